#include "ipc/reply_deadline.h"

#include <pthread.h>
#include <sys/msg.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>

#include "base/mutex_lock.h"
#include "ipc/diagnostics.h"
#include "ipc/frame.h"
#include "ipc/framing.h"
#include "ipc/queue_reader.h"
#include "ipc/sys_errors.h"

#ifndef PAVO_IPC_REPLY_TIMEOUT_MS
#define PAVO_IPC_REPLY_TIMEOUT_MS 10000
#endif

namespace pavo::ipc {
namespace {

std::atomic<long long> g_reply_timeout_ms{PAVO_IPC_REPLY_TIMEOUT_MS};

// A watchdog that can neither queue its frame nor make room for it nor
// remove the queue tries again after this pause.
constexpr auto kRetryPause = std::chrono::milliseconds(10);
// At most this many frames of other types are taken off a full reply queue
// to make room for one deadline frame (more than a queue that holds one-byte
// messages needs for its 36 bytes).
constexpr int kMakeRoomFrames = 64;

constexpr uint32_t kTokenBytes = sizeof(uint64_t);

// Queues the frame that ends a blocked wait. Returns 0 or errno.
int queue_deadline_frame(int queue_id, long mtype, uint64_t token) {
  alignas(pavo_ipc_frame) unsigned char buffer[kPayloadOffset + kTokenBytes] = {};
  auto* frame = reinterpret_cast<pavo_ipc_frame*>(buffer);
  frame->mtype = mtype;
  frame->kind = IPC_MSG_REPLY_DEADLINE;
  frame->total_len = kTokenBytes;
  frame->seq_no = 1;
  frame->is_last = 1;
  frame->reserved_one = 1;
  frame->chunk_len = kTokenBytes;
  std::memcpy(frame->payload, &token, kTokenBytes);
  int err;
  do {
    if (msgsnd(queue_id, frame, kHeaderTextBytes + kTokenBytes, IPC_NOWAIT) == 0) return 0;
    err = errno;
  } while (interrupted(err));
  return err;
}

// Takes the oldest frame of a type other than `mtype` off the queue, without
// blocking. Returns false when there is none (or the queue failed).
bool take_other_frame(int queue_id, long mtype) {
  struct {
    long mtype;
    char text[64];
  } junk;
  for (;;) {
    if (msgrcv(queue_id, &junk, sizeof junk.text, mtype, IPC_NOWAIT | MSG_EXCEPT | MSG_NOERROR) >= 0) return true;
    if (!interrupted(errno)) return false;
  }
}

// Queues the deadline frame of `slot`, making room in a full queue, or else
// removing the queue (which ends the waiting receive as well). Returns 0 or
// errno (EIDRM once it removed the queue).
int end_wait(const DeadlineSlot* slot) {
  int err = queue_deadline_frame(slot->queue_id, slot->mtype, slot->token);
  if (err != EAGAIN || slot->mtype <= 0) return err;
  for (int i = 0; i < kMakeRoomFrames && err == EAGAIN && take_other_frame(slot->queue_id, slot->mtype); ++i) {
    err = queue_deadline_frame(slot->queue_id, slot->mtype, slot->token);
  }
  if (err != EAGAIN) return err;
  if (msgctl(slot->queue_id, IPC_RMID, nullptr) != 0) return err;
  report(Stream::kErr, "ipc: reply queue %d stayed full at a deadline; removed it to end the wait\n",
         slot->queue_id);
  return EIDRM;
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

  uint64_t arm(DeadlineSlot* slot, int queue_id, long mtype, Clock::time_point deadline, int request_queue_id,
               ProcessIdentity peer) {
    MutexLock lock(&mu_);
    slot->queue_id = queue_id;
    slot->request_queue_id = request_queue_id;
    slot->peer = peer;
    slot->reader_task = 0;
    slot->reader_gone = false;
    slot->armed_at = Clock::now();
    slot->mtype = mtype;
    slot->deadline = deadline;
    slot->token = next_token();
    slot->fired = false;
    slot->prev = nullptr;
    slot->next = armed_;
    if (armed_ != nullptr) armed_->prev = slot;
    armed_ = slot;
    if (!started_) {
      started_ = pthread_create(&thread_, nullptr, &Watchdog::main, this) == 0;
      next_wake_ = Clock::time_point::min();
    } else if (deadline < next_wake_ ||
               (request_queue_id >= 0 && next_wake_ > Clock::now() + kReaderPoll)) {
      // Only when the time-out was shortened (the watchdog sleeps at most
      // half a time-out, so deadlines armed later never come before its
      // wake-up), or when a watched wait finds it idle: while waits are
      // armed it wakes every kReaderPoll anyway.
      pthread_cond_signal(&cv_);
    }
    return slot->token;
  }

  bool disarm(DeadlineSlot* slot) {
    MutexLock lock(&mu_);
    if (slot->prev != nullptr) {
      slot->prev->next = slot->next;
    } else if (armed_ == slot) {
      armed_ = slot->next;
    }
    if (slot->next != nullptr) slot->next->prev = slot->prev;
    slot->prev = slot->next = nullptr;
    return slot->fired;
  }

 private:
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

  // Tokens name the process (high half) and the wait (low half, counted from
  // a clock-derived start, so that a later process that gets the same
  // process id does not reuse the tokens of an ended one). Never 0.
  // REQUIRES: mu_ held.
  uint64_t next_token() {
    if (pid_ == 0) {
      pid_ = static_cast<uint32_t>(getpid());
      counter_ = static_cast<uint32_t>(Clock::now().time_since_epoch().count());
    }
    uint64_t token;
    do {
      token = (uint64_t{pid_} << 32) | ++counter_;
    } while (token == 0);
    return token;
  }

  // The mutex is held across fork so that the child gets it in a known state.
  // The child has no watchdog thread and none of the parent's waits: it
  // starts afresh, with tokens of its own.
  static void before_fork() { pthread_mutex_lock(&instance().mu_); }
  static void after_fork_parent() { pthread_mutex_unlock(&instance().mu_); }
  static void after_fork_child() {
    Watchdog& w = instance();
    w.init_sync();
    w.armed_ = nullptr;
    w.started_ = false;
    w.pid_ = 0;
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
      for (DeadlineSlot* slot = armed_; slot != nullptr; slot = slot->next) {
        if (slot->fired) continue;
        if (slot->deadline > now && !reader_ended(slot, now)) {
          next = std::min(next, slot->deadline);
          if (slot->request_queue_id >= 0) next = std::min(next, now + kReaderPoll);
          continue;
        }
        const int err = end_wait(slot);
        if (err == 0 || queue_gone(err)) {
          slot->fired = true;  // a removed queue ends the wait by itself
        } else {
          next = std::min(next, now + kRetryPause);
        }
      }
      next_wake_ = next;
      const timespec until = to_monotonic_timespec(next);
      pthread_cond_timedwait(&cv_, &mu_, &until);
    }
  }

  // Whether the wait of `slot` watches a request queue whose last reader
  // has ended, and nobody will take the request. The reader's process is
  // looked up when it changes, so that a later holder of its id is not taken
  // for it. REQUIRES: mu_ held.
  static bool reader_ended(DeadlineSlot* slot, Clock::time_point now) {
    QueueReader reader;
    if (slot->request_queue_id < 0 || !read_queue_reader(slot->request_queue_id, &reader) || reader.pid <= 0) {
      return false;
    }
    if (reader.pid != slot->reader_task) {
      slot->reader_task = reader.pid;
      slot->reader_gone = !process_identity(reader.pid, &slot->reader);
    }
    if (!slot->reader_gone && !process_ended(slot->reader)) return false;
    // The service that answered before still lives: the reader that ended
    // was another process, and the service may still answer.
    if (slot->peer.known() && !process_ended(slot->peer)) return false;
    return !frame_waiting(slot->request_queue_id, slot->mtype) || now - slot->armed_at >= kUnreadGrace;
  }

  pthread_mutex_t mu_;
  pthread_cond_t cv_;
  DeadlineSlot* armed_ = nullptr;  // guarded by mu_: the armed slots
  uint32_t pid_ = 0;               // guarded by mu_
  uint32_t counter_ = 0;           // guarded by mu_
  Clock::time_point next_wake_;    // guarded by mu_
  bool started_ = false;           // guarded by mu_
  bool stopping_ = false;          // guarded by mu_
  pthread_t thread_{};
};

}  // namespace

std::chrono::milliseconds reply_timeout() {
  return std::chrono::milliseconds(g_reply_timeout_ms.load(std::memory_order_relaxed));
}

void set_reply_timeout_for_testing(std::chrono::milliseconds timeout) {
  g_reply_timeout_ms.store(timeout.count(), std::memory_order_relaxed);
}

uint64_t arm_reply_deadline(DeadlineSlot* slot, int reply_queue_id, long mtype, Clock::time_point deadline,
                            int request_queue_id, ProcessIdentity peer) {
  return Watchdog::instance().arm(slot, reply_queue_id, mtype, deadline, request_queue_id, peer);
}

bool disarm_reply_deadline(DeadlineSlot* slot) { return Watchdog::instance().disarm(slot); }

uint64_t deadline_token(const char* text, uint32_t length) {
  if (text == nullptr || length != kTokenBytes) return 0;
  uint64_t token;
  std::memcpy(&token, text, kTokenBytes);
  return token;
}

}  // namespace pavo::ipc
