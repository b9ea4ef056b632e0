// Command line of pavo-avctl.
#ifndef PAVO_TOOLS_AVCTL_COMMAND_LINE_H
#define PAVO_TOOLS_AVCTL_COMMAND_LINE_H

#include <string>
#include <vector>

#include "pavo-avctl/script.h"
#include "pavo-avctl/session.h"

namespace pavo::avctl {

// Exit status of the tool.
enum ExitCode : int {
  kExitOk = 0,
  kExitStepFailed = 1,  // a step failed (or the stream ended in an error)
  kExitUsage = 2,       // bad command line or script; nothing was sent
  kExitNoService = 3,   // no media-player service answers (at the start, or after a failed step)
  kExitInterrupted = 130,
};

struct Options {
  enum class Mode { kPlay, kSession } mode = Mode::kPlay;
  std::string target;     // the URL (play) or the script file (session; "-" = standard input)
  std::vector<Step> steps;  // play: made from the options; session: read by main
  SessionSettings session;
  bool plain = false;      // no live progress line even on a terminal
  long progress_ms = -1;   // -1: 100 on a terminal, 1000 otherwise
  std::string media_log;   // where the platform log's lines go ("" = standard error)
};

enum class ParseResult { kRun, kHelp, kError };

// Reads argv[1..argc-1] into `options`; for play, also makes its steps.
// On kError, `error` says why.
ParseResult parse_command_line(int argc, char** argv, Options& options, std::string& error);

// The --help text, with the step table.
std::string usage_text();

}  // namespace pavo::avctl

#endif  // PAVO_TOOLS_AVCTL_COMMAND_LINE_H
