// The command line of pavo-hbbtv-browser.
#ifndef PAVO_TOOLS_HBBTV_COMMAND_LINE_H
#define PAVO_TOOLS_HBBTV_COMMAND_LINE_H

#include <string>
#include <utility>
#include <vector>

#include "pavo-hbbtv-browser/browser_process.h"

namespace pavo::hbbtv {

// Exit statuses.
constexpr int kExitOk = 0;            // ended as asked
constexpr int kExitPageFailed = 1;    // the page or the browser failed
constexpr int kExitUsage = 2;         // bad command line
constexpr int kExitNoService = 3;     // no media-player service answers
constexpr int kExitNoBrowser = 4;     // the browser could not be started
constexpr int kExitInterrupted = 130;

struct Options {
  std::string url;
  std::string user_agent;  // empty: the default HbbTV user agent
  std::vector<std::pair<std::string, std::string>> cookies;
  std::vector<int> keys;  // HbbTV key codes, sent after the page has loaded
  int key_interval_ms = 300;
  double for_seconds = 0;  // 0: no time limit
  std::string until_url;   // extended regular expression; empty: none
  std::string screenshot;  // PNG written at the end; empty: none
  std::string frames;      // where the media service offers its frames; empty: none
  BrowserSettings browser;
};

enum class ParseResult { kRun, kHelp, kError };

// Reads argv into `options`; kError with `error` for a bad command line.
ParseResult parse_command_line(int argc, char** argv, Options& options, std::string& error);
std::string usage_text();
// The HbbTV key code of a key name (ENTER, RED, 0-9, ...); -1 if unknown.
int key_code(const std::string& name);
// The user agent used without --user-agent.
const char* default_user_agent();

}  // namespace pavo::hbbtv

#endif  // PAVO_TOOLS_HBBTV_COMMAND_LINE_H
