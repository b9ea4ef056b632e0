#include "pavo-avctl/command_line.h"

#include <algorithm>
#include <cmath>
#include <optional>

namespace pavo::avctl {
namespace {

// The play command's end: at most this long until finished (a deadline
// like every wait; Ctrl-C ends it sooner).
constexpr const char* kPlayToEndMs = "21600000";

struct PlayOptions {
  std::string speed, seek, audio, subtitles, for_ms;
};

Step step(std::string verb, std::vector<std::string> args = {}) {
  Step s;
  s.verb = std::move(verb);
  s.args = std::move(args);
  return s;
}

// The steps of `play URL [options]`: what a page does to play a stream.
std::vector<Step> play_steps(const std::string& url, const PlayOptions& o) {
  std::vector<Step> steps = {step("load", {url}), step("play"), step("wait-state", {"playing"})};
  if (!o.audio.empty()) {
    steps.push_back(step("components", {"audio"}));
    steps.push_back(step("select", {"audio", o.audio}));
    steps.push_back(step("wait-event", {"component"}));
  }
  if (!o.subtitles.empty()) {
    steps.push_back(step("subtitles", {o.subtitles}));
    if (o.subtitles == "on") steps.push_back(step("components", {"subtitle"}));
  }
  if (!o.seek.empty()) {
    steps.push_back(step("seek", {o.seek}));
    steps.push_back(step("wait-event", {"position"}));
  }
  if (!o.speed.empty()) steps.push_back(step("play", {o.speed}));
  if (!o.for_ms.empty()) {
    steps.push_back(step("sleep", {o.for_ms}));
    steps.push_back(step("stop"));
    steps.push_back(step("wait-state", {"stopped"}));
  } else {
    steps.push_back(step("wait-state", {"finished", kPlayToEndMs}));
  }
  return steps;
}

}  // namespace

ParseResult parse_command_line(int argc, char** argv, Options& options, std::string& error) {
  std::vector<std::string> positional;
  PlayOptions play;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--help" || arg == "-h") return ParseResult::kHelp;
    if (arg == "--plain") {
      options.plain = true;
      continue;
    }
    if (arg.size() < 2 || arg.compare(0, 2, "--") != 0) {
      positional.push_back(arg);
      continue;
    }
    if (i + 1 >= argc) {
      error = arg + " needs a value";
      return ParseResult::kError;
    }
    const std::string value = argv[++i];
    std::optional<double> ms = parse_ms(value);
    if (arg == "--timeout" && ms && *ms >= 1) {
      options.session.default_timeout = Millis(std::llround(*ms));
    } else if (arg == "--progress" && ms) {
      options.progress_ms = std::lround(*ms);
    } else if (arg == "--media-log") {
      options.media_log = value;
    } else if (arg == "--speed" && parse_speed(value)) {
      play.speed = value;
    } else if (arg == "--seek" && ms) {
      play.seek = value;
    } else if (arg == "--for" && ms) {
      play.for_ms = value;
    } else if (arg == "--audio") {
      play.audio = value;
    } else if (arg == "--subtitles" && parse_switch(value)) {
      play.subtitles = value;
    } else if (arg == "--timeout" || arg == "--progress" || arg == "--speed" || arg == "--seek" ||
               arg == "--for" || arg == "--subtitles") {
      error = "bad value for " + arg + ": '" + value + "'";
      return ParseResult::kError;
    } else {
      error = "unknown option " + arg;
      return ParseResult::kError;
    }
  }
  if (positional.size() != 2 || (positional[0] != "play" && positional[0] != "session")) {
    error = "expected 'play URL' or 'session FILE'";
    return ParseResult::kError;
  }
  options.target = positional[1];
  if (positional[0] == "session") {
    options.mode = Options::Mode::kSession;
    if (!play.speed.empty() || !play.seek.empty() || !play.for_ms.empty() || !play.audio.empty() ||
        !play.subtitles.empty()) {
      error = "--speed, --seek, --audio, --subtitles and --for belong to 'play'";
      return ParseResult::kError;
    }
    return ParseResult::kRun;
  }
  options.mode = Options::Mode::kPlay;
  options.steps = play_steps(options.target, play);
  return ParseResult::kRun;
}

std::string usage_text() {
  std::string text =
      "Usage: pavo-avctl [OPTIONS] play URL [--speed S] [--seek MS] [--audio LANG]\n"
      "                                     [--subtitles on|off] [--for MS]\n"
      "       pavo-avctl [OPTIONS] session FILE\n"
      "\n"
      "Plays the HbbTV plug-in's part against a running media-player service\n"
      "(pavo-media-service, in the same IPC namespace): it starts the library,\n"
      "makes one A/V control object and drives it through the exported\n"
      "Pavo_AVCtrl_*, Pavo_Platform_* and Pavo_DrmAgent_* functions, printing\n"
      "every event that the plug-in's callbacks receive on a timeline.\n"
      "\n"
      "play URL     load and play; then, in this order, select the audio component\n"
      "             of language LANG (two- or three-letter code), switch subtitles,\n"
      "             seek to MS, play at speed S; then play until finished, or for\n"
      "             MS milliseconds and stop (--for).\n"
      "session FILE run the steps of a script (FILE '-': standard input).\n"
      "\n"
      "Options:\n"
      "  --timeout MS    time-out of every wait without one of its own (default 10000)\n"
      "  --plain         plain lines even on a terminal (no live progress line)\n"
      "  --progress MS   how often the play position is shown (default: 100 ms live\n"
      "                  on a terminal, a line every 1000 ms otherwise; 0: never)\n"
      "  --media-log F   write the platform log's lines (the A/V control layer's log,\n"
      "                  on standard error by default) to file F\n"
      "  --help          this text\n"
      "\n"
      "Script: one step per line, words separated by blanks. A '#' at the start of\n"
      "a word begins a comment to the end of the line, unless a digit follows it\n"
      "('#1' is a component's position). The whole script is checked before the\n"
      "first step runs. T is a time-out in ms (default --timeout). A step that\n"
      "fails prints why and ends the session.\n"
      "\n";
  for (const VerbRule& row : verb_table()) {
    const std::string usage = row.usage;
    for (std::size_t start = 0; start < usage.size();) {
      const std::size_t end = std::min(usage.find('\n', start), usage.size());
      text += "  " + usage.substr(start, end - start) + "\n";
      start = end + 1;
    }
  }
  text +=
      "\n"
      "Output: one line per step, event and finding: seconds since the start, a\n"
      "tag (step, event, ok, info, pos, FAIL) and the text, e.g.\n"
      "     0.215  event  play state -> playing\n"
      "\n"
      "Exit status: 0 every step succeeded; 1 a step failed; 2 bad command line or\n"
      "script (nothing was sent); 3 no media-player service answers (at the start,\n"
      "or a step failed and the service has ended or stopped answering since);\n"
      "130 interrupted.\n";
  return text;
}

}  // namespace pavo::avctl
