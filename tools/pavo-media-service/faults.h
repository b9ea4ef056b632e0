// Fault injection for the reliability tests: a service that answers late,
// never answers, dies in the middle of a request or loses events. Chosen on
// the command line (options.h); with none chosen every hook is a no-op.
//
// Thread-safe: the request server's receive thread calls before_reply(), the
// clock and request threads keep_event(), main release().
#ifndef PAVO_MEDIA_SERVICE_FAULTS_H
#define PAVO_MEDIA_SERVICE_FAULTS_H

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <mutex>

namespace pavo::service {

struct FaultOptions {
  static constexpr int kNone = -1;
  static constexpr int kAnyCommand = -2;
  int reply_delay_ms = 0;           // replies to late_command leave this much later
  int late_command = kAnyCommand;   // a command number or kAnyCommand
  int no_reply_command = kNone;     // a command number, kAnyCommand or kNone
  int exit_on_command = kNone;      // likewise
  unsigned drop_every_nth_event = 0;  // 0: none; 1: every event; N: every N-th
};

class Faults {
 public:
  explicit Faults(const FaultOptions& options) : options_(options) {}
  Faults(const Faults&) = delete;
  Faults& operator=(const Faults&) = delete;

  // Called after the service has acted on the request `text` (`len`
  // bytes), before its reply is handed to the transport. May sleep (reply
  // delay), block until release() (no reply: returns false, the caller
  // sends nothing of its own) or end the process with status 3 without
  // answering. Reads the request only when a fault is chosen.
  bool before_reply(const char* text, std::size_t len);

  // Whether the next event is sent (false: it is dropped, as if lost).
  bool keep_event();

  // Ends every wait of before_reply(); called before the service stops.
  void release();

 private:
  bool request_faults() const {
    return options_.reply_delay_ms > 0 || options_.no_reply_command != FaultOptions::kNone ||
           options_.exit_on_command != FaultOptions::kNone;
  }
  static bool matches(int chosen, int command) {
    return chosen == FaultOptions::kAnyCommand || (chosen >= 0 && chosen == command);
  }

  const FaultOptions options_;
  std::mutex mu_;
  std::condition_variable released_cv_;
  bool released_ = false;  // guarded by mu_
  std::atomic<unsigned long> events_{0};
};

}  // namespace pavo::service

#endif  // PAVO_MEDIA_SERVICE_FAULTS_H
