// Shortens the transport's reply time-out for the life of the object.
#ifndef PAVO_TESTS_SUPPORT_REPLY_TIMEOUT_OVERRIDE_H
#define PAVO_TESTS_SUPPORT_REPLY_TIMEOUT_OVERRIDE_H

#include <chrono>

#include "ipc/reply_deadline.h"

namespace pavo::test {

class ReplyTimeoutOverride {
 public:
  explicit ReplyTimeoutOverride(std::chrono::milliseconds timeout) : saved_(ipc::reply_timeout()) {
    ipc::set_reply_timeout_for_testing(timeout);
  }
  ~ReplyTimeoutOverride() { ipc::set_reply_timeout_for_testing(saved_); }
  ReplyTimeoutOverride(const ReplyTimeoutOverride&) = delete;
  ReplyTimeoutOverride& operator=(const ReplyTimeoutOverride&) = delete;

 private:
  std::chrono::milliseconds saved_;
};

}  // namespace pavo::test

#endif  // PAVO_TESTS_SUPPORT_REPLY_TIMEOUT_OVERRIDE_H
