#include "pavo-hbbtv-browser/command_line.h"

#include <regex.h>

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>

namespace pavo::hbbtv {
namespace {

struct KeyName {
  const char* name;
  int code;
};
// The HbbTV key codes (KeyEvent.VK_*).
constexpr KeyName kKeys[] = {
    {"ENTER", 13},  {"LEFT", 37},  {"UP", 38},      {"RIGHT", 39},     {"DOWN", 40},    {"RED", 403},
    {"GREEN", 404}, {"YELLOW", 405}, {"BLUE", 406}, {"PLAY", 415},     {"PAUSE", 19},   {"STOP", 413},
    {"FAST_FWD", 417}, {"REWIND", 412}, {"BACK", 461},
};

bool parse_number(const char* text, double& out) {
  char* end = nullptr;
  errno = 0;
  const double v = std::strtod(text, &end);
  if (end == text || *end != '\0' || errno != 0 || !std::isfinite(v)) return false;
  out = v;
  return true;
}

}  // namespace

const char* default_user_agent() {
  return "Mozilla/5.0 (X11; Linux x86_64) AppleWebKit/537.36 (KHTML, like Gecko) "
         "HbbTV/1.5.1 (+DRM+TRICKMODE; pavo; pavo-hbbtv-browser; 1.0; 1.0;) pavo-hbbtv-browser/1.0";
}

int key_code(const std::string& name) {
  if (name.size() == 1 && name[0] >= '0' && name[0] <= '9') return 48 + (name[0] - '0');
  for (const KeyName& k : kKeys) {
    if (name == k.name) return k.code;
  }
  return -1;
}

std::string usage_text() {
  return "Usage: pavo-hbbtv-browser [options] URL\n"
         "Opens URL in Chromium as an HbbTV terminal would: its A/V Control and DRM agent objects are\n"
         "backed by the library and a running media-player service (pavo-media-service).\n"
         "\n"
         "  --user-agent UA      the user agent (default: an HbbTV 1.5.1 one)\n"
         "  --cookie NAME=VALUE  a cookie for URL's site, set before the first load (repeatable)\n"
         "  --keys K1,K2,...     remote-control keys sent after the page has loaded: ENTER, UP, DOWN,\n"
         "                       LEFT, RIGHT, RED, GREEN, YELLOW, BLUE, PLAY, PAUSE, STOP, FAST_FWD,\n"
         "                       REWIND, BACK, 0-9\n"
         "  --key-interval MS    time between two keys (default 300)\n"
         "  --for SECONDS        end after this long\n"
         "  --until-url REGEX    end when the top page navigates to a matching URL (extended regex)\n"
         "  --screenshot FILE    write a PNG of the page at the end\n"
         "  --window WxH         the page's size (default 1280x720)\n"
         "  --frames DIR         paint the media service's frame previews from DIR into the video\n"
         "                       boxes (the service's PAVO_FRAME_PREVIEW_DIR)\n"
         "  --show               a browser window on the display instead of headless\n"
         "  --browser PATH       the browser executable\n"
         "  --help               this text\n"
         "\n"
         "Output: a timeline of the page objects' calls with their results, the events delivered to\n"
         "the page, its console messages and uncaught exceptions, and its navigations.\n"
         "Exit status: 0 ended as asked; 1 the page or browser failed; 2 bad command line;\n"
         "3 no media-player service answers; 4 the browser could not be started; 130 interrupted.\n";
}

ParseResult parse_command_line(int argc, char** argv, Options& options, std::string& error) {
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    auto value = [&](const char*& out) {
      if (i + 1 >= argc) {
        error = arg + " needs a value";
        return false;
      }
      out = argv[++i];
      return true;
    };
    const char* v = nullptr;
    if (arg == "--help" || arg == "-h") return ParseResult::kHelp;
    if (arg == "--show") {
      options.browser.show = true;
    } else if (arg == "--user-agent") {
      if (!value(v)) return ParseResult::kError;
      options.user_agent = v;
    } else if (arg == "--cookie") {
      if (!value(v)) return ParseResult::kError;
      const char* eq = std::strchr(v, '=');
      if (eq == nullptr || eq == v) {
        error = "--cookie wants NAME=VALUE, not '" + std::string(v) + "'";
        return ParseResult::kError;
      }
      options.cookies.emplace_back(std::string(v, eq), std::string(eq + 1));
    } else if (arg == "--keys") {
      if (!value(v)) return ParseResult::kError;
      std::string list = v;
      std::size_t start = 0;
      while (start <= list.size()) {
        const std::size_t comma = list.find(',', start);
        const std::string name = list.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
        const int code = key_code(name);
        if (code < 0) {
          error = "unknown key '" + name + "' in --keys";
          return ParseResult::kError;
        }
        options.keys.push_back(code);
        if (comma == std::string::npos) break;
        start = comma + 1;
      }
    } else if (arg == "--key-interval" || arg == "--for") {
      if (!value(v)) return ParseResult::kError;
      double n = 0;
      if (!parse_number(v, n) || n < 0 || n > 1e6) {
        error = arg + " wants a number >= 0, not '" + std::string(v) + "'";
        return ParseResult::kError;
      }
      if (arg == "--for") options.for_seconds = n;
      else options.key_interval_ms = static_cast<int>(n);
    } else if (arg == "--until-url") {
      if (!value(v)) return ParseResult::kError;
      regex_t re;
      if (regcomp(&re, v, REG_EXTENDED | REG_NOSUB) != 0) {
        error = "--until-url: not a regular expression: '" + std::string(v) + "'";
        return ParseResult::kError;
      }
      regfree(&re);
      options.until_url = v;
    } else if (arg == "--screenshot") {
      if (!value(v)) return ParseResult::kError;
      options.screenshot = v;
    } else if (arg == "--frames") {
      if (!value(v)) return ParseResult::kError;
      options.frames = v;
    } else if (arg == "--browser") {
      if (!value(v)) return ParseResult::kError;
      options.browser.executable = v;
    } else if (arg == "--window") {
      if (!value(v)) return ParseResult::kError;
      int w = 0, h = 0;
      char extra = 0;
      if (std::sscanf(v, "%dx%d%c", &w, &h, &extra) != 2 || w < 64 || h < 64 || w > 7680 || h > 4320) {
        error = "--window wants WxH (64x64 to 7680x4320), not '" + std::string(v) + "'";
        return ParseResult::kError;
      }
      options.browser.width = w;
      options.browser.height = h;
    } else if (!arg.empty() && arg[0] == '-') {
      error = "unknown option " + arg;
      return ParseResult::kError;
    } else if (options.url.empty()) {
      options.url = arg;
    } else {
      error = "more than one URL";
      return ParseResult::kError;
    }
  }
  if (options.url.empty()) {
    error = "no URL";
    return ParseResult::kError;
  }
  return ParseResult::kRun;
}

}  // namespace pavo::hbbtv
