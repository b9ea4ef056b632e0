#include "support/test_queues.h"

#include <sys/msg.h>
#include <unistd.h>

#include <atomic>
#include <thread>

namespace pavo::test {

key_t unique_key() {
  static std::atomic<int> counter{0};
  const int n = counter.fetch_add(1);
  // Even keys, so that key + 1 (a reply queue) never meets another test's key.
  return static_cast<key_t>(0x50000000 | ((getpid() & 0x7fff) << 12) | ((n & 0x7ff) << 1));
}

void remove_queue(key_t key) {
  const int id = msgget(key, 0);
  if (id >= 0) msgctl(id, IPC_RMID, nullptr);
}

ScopedQueues::~ScopedQueues() {
  remove_queue(key_);
  remove_queue(key_ + 1);
}

long queued_messages(key_t key) {
  const int id = msgget(key, 0);
  if (id < 0) return -1;
  msqid_ds ds{};
  if (msgctl(id, IPC_STAT, &ds) != 0) return -1;
  return static_cast<long>(ds.msg_qnum);
}

bool wait_until(const std::function<bool()>& done, std::chrono::milliseconds limit) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!done()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

}  // namespace pavo::test
