#include "ipc/reply_deadline.h"

#include <pthread.h>
#include <sys/msg.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <map>

#include "base/mutex_lock.h"
#include "ipc/frame.h"
#include "ipc/sys_errors.h"

#ifndef PAVO_IPC_REPLY_TIMEOUT_MS
#define PAVO_IPC_REPLY_TIMEOUT_MS 10000
#endif

namespace pavo::ipc {
namespace {

std::atomic<long long> g_reply_timeout_ms{PAVO_IPC_REPLY_TIMEOUT_MS};

// A watchdog that cannot queue its frame (the reply queue is full) tries
// again after this pause.
constexpr auto kRetryPause = std::chrono::milliseconds(10);

// Queues the frame that ends a blocked wait. Returns 0 or errno.
int queue_deadline_frame(int queue_id, long mtype) {
  alignas(pavo_ipc_frame) unsigned char buffer[kPayloadOffset + 4] = {};
  auto* frame = reinterpret_cast<pavo_ipc_frame*>(buffer);
  frame->mtype = mtype;
  frame->kind = IPC_MSG_REPLY_DEADLINE;
  frame->seq_no = 1;
  frame->is_last = 1;
  frame->reserved_one = 1;
  if (msgsnd(queue_id, frame, kHeaderTextBytes + 4, IPC_NOWAIT) == 0) return 0;
  return errno;
}

timespec to_monotonic_timespec(Clock::time_point t) {
  auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(t.time_since_epoch()).count();
  if (ns < 0) ns = 0;
  timespec ts;
  ts.tv_sec = static_cast<time_t>(ns / 1000000000);
  ts.tv_nsec = static_cast<long>(ns % 1000000000);
  return ts;
}

class Watchdog {
 public:
  static Watchdog& instance() {
    static Watchdog watchdog;
    return watchdog;
  }

  uint64_t arm(int queue_id, long mtype, Clock::time_point deadline) {
    MutexLock lock(&mu_);
    const uint64_t token = next_token_++;
    entries_[token] = Entry{queue_id, mtype, deadline, false};
    if (!started_) {
      started_ = pthread_create(&thread_, nullptr, &Watchdog::main, this) == 0;
      next_wake_ = Clock::time_point::min();
    } else if (deadline < next_wake_) {
      // Only when the time-out was shortened: the watchdog sleeps at most
      // half a time-out, so deadlines armed later never come before its wake-up.
      pthread_cond_signal(&cv_);
    }
    return token;
  }

  bool disarm(uint64_t token) {
    MutexLock lock(&mu_);
    auto it = entries_.find(token);
    if (it == entries_.end()) return false;
    const bool fired = it->second.fired;
    entries_.erase(it);
    return fired;
  }

 private:
  struct Entry {
    int queue_id;
    long mtype;
    Clock::time_point deadline;
    bool fired;
  };

  Watchdog() {
    init_sync();
    pthread_atfork(&Watchdog::before_fork, &Watchdog::after_fork_parent, &Watchdog::after_fork_child);
  }

  // Stops the thread when the library is unloaded, so that no code of an
  // unloaded library keeps running.
  ~Watchdog() {
    bool joinable;
    {
      MutexLock lock(&mu_);
      stopping_ = true;
      joinable = started_;
      pthread_cond_signal(&cv_);
    }
    if (joinable) pthread_join(thread_, nullptr);
  }

  void init_sync() {
    pthread_mutex_init(&mu_, nullptr);
    pthread_condattr_t attr;
    pthread_condattr_init(&attr);
    pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    pthread_cond_init(&cv_, &attr);
    pthread_condattr_destroy(&attr);
  }

  // The mutex is held across fork so that the child gets it in a known state.
  // The child has no watchdog thread and none of the parent's waits: it
  // starts afresh.
  static void before_fork() { pthread_mutex_lock(&instance().mu_); }
  static void after_fork_parent() { pthread_mutex_unlock(&instance().mu_); }
  static void after_fork_child() {
    Watchdog& w = instance();
    w.init_sync();
    w.entries_.clear();
    w.started_ = false;
  }

  static void* main(void* self) {
    static_cast<Watchdog*>(self)->run();
    return nullptr;
  }

  void run() {
    MutexLock lock(&mu_);
    while (!stopping_) {
      const Clock::time_point now = Clock::now();
      const auto idle = std::max<Clock::duration>(reply_timeout() / 2, std::chrono::milliseconds(1));
      Clock::time_point next = now + idle;
      for (auto& [token, entry] : entries_) {
        if (entry.fired) continue;
        if (entry.deadline > now) {
          next = std::min(next, entry.deadline);
          continue;
        }
        const int err = queue_deadline_frame(entry.queue_id, entry.mtype);
        if (err == 0 || queue_gone(err)) {
          entry.fired = true;  // a removed queue ends the wait by itself
        } else {
          next = std::min(next, now + kRetryPause);
        }
      }
      next_wake_ = next;
      const timespec until = to_monotonic_timespec(next);
      pthread_cond_timedwait(&cv_, &mu_, &until);
    }
  }

  pthread_mutex_t mu_;
  pthread_cond_t cv_;
  std::map<uint64_t, Entry> entries_;  // guarded by mu_
  uint64_t next_token_ = 1;            // guarded by mu_
  Clock::time_point next_wake_;        // guarded by mu_
  bool started_ = false;               // guarded by mu_
  bool stopping_ = false;              // guarded by mu_
  pthread_t thread_{};
};

}  // namespace

std::chrono::milliseconds reply_timeout() {
  return std::chrono::milliseconds(g_reply_timeout_ms.load(std::memory_order_relaxed));
}

void set_reply_timeout_for_testing(std::chrono::milliseconds timeout) {
  g_reply_timeout_ms.store(timeout.count(), std::memory_order_relaxed);
}

uint64_t arm_reply_deadline(int reply_queue_id, long mtype, Clock::time_point deadline) {
  return Watchdog::instance().arm(reply_queue_id, mtype, deadline);
}

bool disarm_reply_deadline(uint64_t token) { return Watchdog::instance().disarm(token); }

}  // namespace pavo::ipc
