#include "pavo-media-service/faults.h"

#include <unistd.h>

#include <chrono>
#include <thread>

#include "pavo-media-service/console.h"
#include "pavo-media-service/request.h"

namespace pavo::service {

bool Faults::before_reply(const char* text, std::size_t len) {
  if (!request_faults()) return true;
  Request request;
  const int command = text != nullptr && request.parse(text, len) ? request.command() : -1;
  if (matches(options_.exit_on_command, command)) {
    say("pavo-media-service: exiting in the middle of a request (command %d)", command);
    _exit(3);  // no destructor, no reply, queues left as they are: a crash
  }
  if (matches(options_.no_reply_command, command)) {
    trace("fault  no reply to command %d", command);
    std::unique_lock<std::mutex> lock(mu_);
    released_cv_.wait(lock, [this] { return released_; });
    return false;
  }
  if (options_.reply_delay_ms > 0 && matches(options_.late_command, command)) {
    std::this_thread::sleep_for(std::chrono::milliseconds(options_.reply_delay_ms));
  }
  return true;
}

bool Faults::keep_event() {
  const unsigned n = options_.drop_every_nth_event;
  if (n == 0) return true;
  const unsigned long count = ++events_;
  if (count % n != 0) return true;
  trace("fault  event %lu dropped", count);
  return false;
}

void Faults::release() {
  {
    std::lock_guard<std::mutex> lock(mu_);
    released_ = true;
  }
  released_cv_.notify_all();
}

}  // namespace pavo::service
