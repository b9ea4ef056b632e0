// Command line of pavo-logctl.
#ifndef PAVO_TOOLS_LOGCTL_COMMAND_LINE_H
#define PAVO_TOOLS_LOGCTL_COMMAND_LINE_H

#include <string>
#include <vector>

namespace pavo::logctl {

// Exit status of the tool.
enum ExitCode : int {
  kExitOk = 0,
  kExitNoListener = 1,    // no listener heard within the time-out
  kExitUsage = 2,         // bad command line
  kExitSocket = 3,        // 127.0.0.1:54321 cannot be used
  kExitAmbiguous = 4,     // several listeners and no --port
  kExitNotConfirmed = 5,  // the listener's module list did not show the change
};

enum class Command { kList, kWatch, kOn, kErrors, kOff, kClear };

struct Options {
  Command command = Command::kList;
  std::vector<std::string> modules;  // for kOn, kErrors, kOff
  int port = 0;                      // the one listener to talk to; 0: any
  int timeout_seconds = 5;
};

enum class ParseResult { kRun, kHelp, kError };

// Reads argv[1..argc-1] into `options`. On kError, `error` says why.
ParseResult parse_command_line(int argc, char** argv, Options& options, std::string& error);

// The --help text.
const char* usage_text();

}  // namespace pavo::logctl

#endif  // PAVO_TOOLS_LOGCTL_COMMAND_LINE_H
