// pavo-logctl: shows the log modules of the processes whose log control
// listener runs, and switches modules on, back to errors only, off, or
// clears them, confirming each change from the listener's next module list.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <set>
#include <string>

#include "pavo_log.h"
#include "tools/logctl/command_line.h"
#include "tools/logctl/control_socket.h"

namespace pavo::logctl {
namespace {

// Listeners send once a second; listening a little longer hears them all.
constexpr auto kOnePass = std::chrono::milliseconds(1500);

// Names as received may hold any byte: show control bytes as '?'.
std::string printable(const std::string& text) {
  std::string out = text;
  for (char& c : out) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = '?';
  }
  return out;
}

std::string describe(const std::vector<std::string>& modules) {
  if (modules.empty()) return "(none)";
  std::string out;
  for (const std::string& name : modules) {
    if (!out.empty()) out += '|';
    out += printable(name);
  }
  return out;
}

void show(const ModuleList& list) {
  std::printf("port %d: %s\n", list.port, describe(list.modules).c_str());
  std::fflush(stdout);
}

bool lists(const ModuleList& list, const std::string& name) {
  return std::find(list.modules.begin(), list.modules.end(), name) != list.modules.end();
}

class Session {
 public:
  Session(const Options& options, ControlSocket& socket) : options_(options), socket_(socket) {}

  int run() {
    switch (options_.command) {
      case Command::kList:
      case Command::kWatch:
        return show_lists();
      default:
        return change();
    }
  }

 private:
  Clock::time_point from_now(std::chrono::seconds span) const { return Clock::now() + span; }
  std::chrono::seconds timeout() const { return std::chrono::seconds(options_.timeout_seconds); }

  bool wanted(const ModuleList& list) const {
    return options_.port == 0 || list.port == options_.port;
  }

  // Waits until `deadline` for a module list from the wanted listener(s).
  bool receive_wanted(Clock::time_point deadline, ModuleList& list) {
    while (socket_.receive(deadline, list)) {
      if (wanted(list)) return true;
    }
    return false;
  }

  int no_listener() const {
    if (options_.port != 0) {
      std::fprintf(stderr,
                   "pavo-logctl: no module list from port %d on 127.0.0.1:%d within %d s\n",
                   options_.port, PAVO_LOG_CONTROL_PORT, options_.timeout_seconds);
    } else {
      std::fprintf(stderr,
                   "pavo-logctl: no log control listener heard on 127.0.0.1:%d within %d s "
                   "(has the process called pavo_log_initialize(1)?)\n",
                   PAVO_LOG_CONTROL_PORT, options_.timeout_seconds);
    }
    return kExitNoListener;
  }

  // list: each listener once, after one pass of listening past the first.
  // watch: every list, until interrupted.
  int show_lists() {
    const bool watch = options_.command == Command::kWatch;
    ModuleList list;
    if (!receive_wanted(from_now(timeout()), list)) return no_listener();
    show(list);
    if (!watch && options_.port != 0) return kExitOk;
    std::set<int> shown{list.port};
    const Clock::time_point end = watch ? Clock::time_point::max() : Clock::now() + kOnePass;
    while (receive_wanted(end, list)) {
      if (watch || shown.insert(list.port).second) show(list);
    }
    return kExitOk;
  }

  // Finds the one listener to change: the --port one, or the only one heard
  // during one pass.
  int find_target(ModuleList& target) {
    if (!receive_wanted(from_now(timeout()), target)) return no_listener();
    if (options_.port != 0) return kExitOk;
    std::set<int> heard{target.port};
    ModuleList list;
    const Clock::time_point end = Clock::now() + kOnePass;
    while (socket_.receive(end, list)) heard.insert(list.port);
    if (heard.size() == 1) return kExitOk;
    std::fprintf(stderr, "pavo-logctl: %zu listeners heard, at ports", heard.size());
    for (const int port : heard) std::fprintf(stderr, " %d", port);
    std::fprintf(stderr, "; choose one with --port\n");
    return kExitAmbiguous;
  }

  bool shows_change(const ModuleList& list) const {
    switch (options_.command) {
      case Command::kClear:
        return list.modules.empty();
      case Command::kOff:
        return std::none_of(options_.modules.begin(), options_.modules.end(),
                            [&](const std::string& name) { return lists(list, name); });
      default:
        return std::all_of(options_.modules.begin(), options_.modules.end(),
                           [&](const std::string& name) { return lists(list, name); });
    }
  }

  std::string control_text() const {
    if (options_.command == Command::kClear) return PAVO_LOG_CLEAR_COMMAND;
    std::string text;
    for (const std::string& name : options_.modules) {
      if (!text.empty()) text += '|';
      text += name;
    }
    return text;
  }

  // The level byte: 1 every line, 2 errors only, 0 removes.
  uint8_t control_level() const {
    switch (options_.command) {
      case Command::kOn:
        return 1;
      case Command::kErrors:
        return 2;
      default:
        return 0;
    }
  }

  void report_done(const ModuleList& list) const {
    const std::string names = describe(options_.modules);
    const std::string now = describe(list.modules);
    switch (options_.command) {
      case Command::kOn:
        std::printf("port %d: every line of %s (modules: %s)\n", list.port, names.c_str(),
                    now.c_str());
        break;
      case Command::kErrors:
        std::printf("port %d: error lines only of %s (modules: %s)\n", list.port, names.c_str(),
                    now.c_str());
        break;
      case Command::kOff:
        std::printf("port %d: removed %s (modules: %s)\n", list.port, names.c_str(), now.c_str());
        break;
      default:
        std::printf("port %d: module list cleared\n", list.port);
        break;
    }
  }

  int change() {
    ModuleList target;
    const int found = find_target(target);
    if (found != kExitOk) return found;
    if (!socket_.send_control(target.port, control_text(), control_level())) {
      std::fprintf(stderr, "pavo-logctl: cannot send to port %d\n", target.port);
      return kExitSocket;
    }
    // The listener applies one control datagram per pass and then sends its
    // list; lists sent before ours was applied may still show the old table.
    const Clock::time_point deadline = from_now(timeout());
    ModuleList list;
    bool heard = false;
    while (socket_.receive(deadline, list)) {
      if (list.port != target.port) continue;
      heard = true;
      if (shows_change(list)) {
        report_done(list);
        return kExitOk;
      }
      target = list;
    }
    if (!heard) {
      std::fprintf(stderr, "pavo-logctl: the listener at port %d fell silent\n", target.port);
      return kExitNoListener;
    }
    std::fprintf(stderr,
                 "pavo-logctl: the listener at port %d still lists %s after %d s: change not "
                 "confirmed\n",
                 target.port, describe(target.modules).c_str(), options_.timeout_seconds);
    return kExitNotConfirmed;
  }

  const Options& options_;
  ControlSocket& socket_;
};

}  // namespace
}  // namespace pavo::logctl

int main(int argc, char** argv) {
  using namespace pavo::logctl;
  Options options;
  std::string error;
  switch (parse_command_line(argc, argv, options, error)) {
    case ParseResult::kHelp:
      std::fputs(usage_text(), stdout);
      return kExitOk;
    case ParseResult::kError:
      std::fprintf(stderr, "pavo-logctl: %s (see pavo-logctl --help)\n", error.c_str());
      return kExitUsage;
    case ParseResult::kRun:
      break;
  }
  ControlSocket socket;
  if (!socket.open(error)) {
    std::fprintf(stderr,
                 "pavo-logctl: cannot bind 127.0.0.1:%d: %s (is another pavo-logctl running?)\n",
                 PAVO_LOG_CONTROL_PORT, error.c_str());
    return kExitSocket;
  }
  return Session(options, socket).run();
}
