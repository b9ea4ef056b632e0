// Queue keys, queue clean-up and the transport's frame for tests.
#ifndef PAVO_TESTS_SUPPORT_TEST_QUEUES_H
#define PAVO_TESTS_SUPPORT_TEST_QUEUES_H

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

namespace pavo::test {

// A queue key (and key + 1) that no other test of any running test program
// uses: the process id is part of it, for runs without private namespaces.
key_t unique_key();

// Removes the queues of `key` and `key + 1` (if they exist) on destruction.
class ScopedQueues {
 public:
  explicit ScopedQueues(key_t key) : key_(key) {}
  ~ScopedQueues();
  ScopedQueues(const ScopedQueues&) = delete;
  ScopedQueues& operator=(const ScopedQueues&) = delete;
  key_t key() const { return key_; }

 private:
  key_t key_;
};

// Removes the queue of one key if it exists.
void remove_queue(key_t key);

// Number of messages waiting in the queue of `key`; -1 if there is none.
long queued_messages(key_t key);

// One frame of the transport as msgsnd/msgrcv move it, written here
// independently of the library: the message type, seven header words and
// N + 4 payload bytes (N = kWireChunk, the chunk size of the tests and of
// the media-player queues). A chunk carries at most N + 1 bytes.
constexpr uint32_t kWireChunk = 1024;
constexpr std::size_t kWireTextBytes = kWireChunk + 32;  // what msgsnd/msgrcv move
struct WireFrame {
  long mtype;
  uint32_t kind, total_len, seq_no, is_last, one, zero, chunk_len;  // one: 1, zero: 0
  char payload[kWireChunk + 4];
  std::vector<uint32_t> header() const { return {kind, total_len, seq_no, is_last, one, zero, chunk_len}; }
};

// Polls `done` every millisecond until it holds or `limit` passes.
bool wait_until(const std::function<bool()>& done,
                std::chrono::milliseconds limit = std::chrono::seconds(5));

}  // namespace pavo::test

#endif  // PAVO_TESTS_SUPPORT_TEST_QUEUES_H
