#include "tools/logctl/command_line.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "pavo_log.h"

namespace pavo::logctl {
namespace {

constexpr long kMaxTimeoutSeconds = 3600;

bool parse_number(const char* text, long low, long high, int& out) {
  if (text == nullptr || *text == '\0') return false;
  errno = 0;
  char* end = nullptr;
  const long value = std::strtol(text, &end, 10);
  if (errno != 0 || *end != '\0' || value < low || value > high) return false;
  out = static_cast<int>(value);
  return true;
}

bool parse_command(const std::string& word, Command& command) {
  static const struct {
    const char* word;
    Command command;
  } kCommands[] = {{"list", Command::kList}, {"watch", Command::kWatch},
                   {"on", Command::kOn},     {"errors", Command::kErrors},
                   {"off", Command::kOff},   {"clear", Command::kClear}};
  for (const auto& entry : kCommands) {
    if (word == entry.word) {
      command = entry.command;
      return true;
    }
  }
  return false;
}

bool takes_modules(Command command) {
  return command == Command::kOn || command == Command::kErrors || command == Command::kOff;
}

// The names must fit one control datagram and be names the listener keeps.
bool check_modules(const Options& options, std::string& error) {
  size_t text_length = 0;
  for (const std::string& name : options.modules) {
    if (name.empty() || name.find('|') != std::string::npos) {
      error = "a module name must be non-empty and must not contain '|'";
      return false;
    }
    if (name.size() > PAVO_LOG_MAX_MODULE_NAME) {
      error = "module name '" + name + "' is longer than " +
              std::to_string(PAVO_LOG_MAX_MODULE_NAME) + " characters";
      return false;
    }
    if (name == PAVO_LOG_CLEAR_COMMAND) {
      error = "'" + name + "' is the clear command, not a module name: use 'clear'";
      return false;
    }
    text_length += name.size() + 1;
  }
  if (options.command != Command::kOff && options.modules.size() > PAVO_LOG_MAX_MODULES) {
    error = "a process keeps at most " + std::to_string(PAVO_LOG_MAX_MODULES) + " modules";
    return false;
  }
  if (text_length > PAVO_LOG_CONTROL_LEVEL_OFFSET) {
    error = "too many module names for one control datagram";
    return false;
  }
  return true;
}

}  // namespace

ParseResult parse_command_line(int argc, char** argv, Options& options, std::string& error) {
  std::vector<std::string> words;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "-h" || arg == "--help") return ParseResult::kHelp;
    if (arg == "-p" || arg == "--port" || arg == "-t" || arg == "--timeout") {
      const bool is_port = arg == "-p" || arg == "--port";
      const char* value = i + 1 < argc ? argv[++i] : nullptr;
      const bool ok = is_port ? parse_number(value, 1, 65535, options.port)
                              : parse_number(value, 1, kMaxTimeoutSeconds, options.timeout_seconds);
      if (!ok) {
        error = is_port ? "--port needs a port number from 1 to 65535"
                        : "--timeout needs a number of seconds from 1 to 3600";
        return ParseResult::kError;
      }
    } else if (arg == "--") {
      for (++i; i < argc; ++i) words.emplace_back(argv[i]);
    } else if (arg.size() > 1 && arg[0] == '-') {
      error = "unknown option '" + arg + "'";
      return ParseResult::kError;
    } else {
      words.push_back(arg);
    }
  }

  if (!words.empty()) {
    if (!parse_command(words.front(), options.command)) {
      error = "unknown command '" + words.front() + "'";
      return ParseResult::kError;
    }
    options.modules.assign(words.begin() + 1, words.end());
  }
  if (takes_modules(options.command) && options.modules.empty()) {
    error = "'" + words.front() + "' needs at least one module name";
    return ParseResult::kError;
  }
  if (!takes_modules(options.command) && !options.modules.empty()) {
    error = "'" + words.front() + "' takes no module names";
    return ParseResult::kError;
  }
  return check_modules(options, error) ? ParseResult::kRun : ParseResult::kError;
}

const char* usage_text() {
  return R"(Usage: pavo-logctl [OPTIONS] [COMMAND [MODULE...]]

Shows and changes, while they run, which log modules of the processes using
the media back end print every line. A process that has started its log
control listener (pavo_log_initialize(1)) sends its module list to
127.0.0.1:54321 once a second; pavo-logctl receives the lists there, shows
each with the listener's port, and answers the listener to change its table.
A module that is not listed prints error lines only.

Commands:
  list               show each listener's module list once (the default)
  watch              show every module list as it arrives, until interrupted
  on MODULE...       switch the modules to every line (Enter/Leave/values too)
  errors MODULE...   keep the modules listed, printing error lines only
  off MODULE...      remove the modules from the list (error lines only)
  clear              remove every module from the list

  A process applies one change per second. A change is confirmed from the
  listener's next module list; the list names the modules but not their
  levels, so 'on' and 'errors' are confirmed by the names being listed.

Options:
  -p, --port PORT     talk only to the listener that sends from this local
                      UDP port (as shown by 'list'); needed for a change
                      when several listeners are heard
  -t, --timeout SECS  wait at most SECS seconds (1 to 3600, default 5) to
                      hear a listener, and as long again for the change
  -h, --help          show this text

Examples:
  pavo-logctl                      which processes listen, and their modules
  pavo-logctl on PAC_PLUGIN        full output of the media-player client
  pavo-logctl --port 40122 off PAC_PLUGIN

Exit status:
  0  done: lists shown, or the change confirmed
  1  no listener heard within the time-out (or the target fell silent)
  2  bad command line
  3  127.0.0.1:54321 cannot be used (is another pavo-logctl running?)
  4  several listeners heard: choose one with --port
  5  the listener was heard, but its module list did not show the change
     within the time-out (a full table of 20 modules refuses new ones)
)";
}

}  // namespace pavo::logctl
