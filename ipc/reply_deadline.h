// Bounded waits for replies.
//
// msgrcv has no time-out, and interrupting it with a signal would mean
// installing a signal handler in the host process. Instead a client that
// waits for a reply arms a deadline here and then blocks in msgrcv as usual.
// If the deadline passes first, one process-wide watchdog thread queues a
// frame of kind IPC_MSG_REPLY_DEADLINE with the waiting client's message
// type on the client's own reply queue, which ends the blocking receive.
//
// A wait may name the queue its request went to: while it is armed the
// watchdog looks every kReaderPoll at who last read that queue, and ends the
// wait (as if its deadline had passed) when that process has ended
// (queue_reader.h, by identity: a later holder of its id does not count):
// at once when no request of the wait's type waits there (the ended reader
// took it), after kUnreadGrace when one still does (a restarted service
// that is not reading yet would take it by then). A service that died does
// not keep its caller waiting for the whole time-out. When the wait names
// the service that answered before and that process still lives, a reader
// that ended was a bystander (any process can read the queue): the wait goes
// on.
//
// A deadline frame that finds the reply queue full still ends its wait
// within a few milliseconds: the watchdog makes room by taking frames of
// other types off the queue (they belong to nobody who waits, or to a client
// that stopped reading), and when that does not help (the queue's capacity
// was lowered by its owner) it removes the reply queue, which ends the
// waiting receive with EIDRM; the client makes the queue again. Only a queue
// that this process may neither make room in nor remove (another user's,
// with its capacity at nothing) keeps the watchdog retrying every 10 ms.
//
// Each deadline frame carries a token that names the process and the wait
// it ends (8 payload bytes). A waiting client takes only the frame of its
// current wait as its time-out; any other deadline frame is stale (a frame
// that lost the race with the real reply, or one left behind by a process
// that ended during a wait) and is ignored.
//
// Thread-safe. The watchdog starts at the first arm and ends when the
// library is unloaded; a forked child starts its own when it needs one.
#ifndef PAVO_IPC_REPLY_DEADLINE_H
#define PAVO_IPC_REPLY_DEADLINE_H

#include <chrono>
#include <cstdint>

#include "ipc/queue_reader.h"

namespace pavo::ipc {

using Clock = std::chrono::steady_clock;  // CLOCK_MONOTONIC: immune to wall-clock jumps

// The longest wait for a reply; zero means no limit. Defaults to the
// build-time PAVO_IPC_REPLY_TIMEOUT_MS.
std::chrono::milliseconds reply_timeout();

// Test hook (not exported): replaces the reply time-out of this process.
void set_reply_timeout_for_testing(std::chrono::milliseconds timeout);

// One client's fixed place in the watchdog, armed for at most one wait at a
// time: arming links it into the watchdog's list and disarming unlinks it,
// so a wait allocates nothing. Owned by the client; its fields are the
// watchdog's (guarded by the watchdog's mutex).
struct DeadlineSlot {
  DeadlineSlot() = default;
  DeadlineSlot(const DeadlineSlot&) = delete;
  DeadlineSlot& operator=(const DeadlineSlot&) = delete;

  int queue_id = -1;
  int request_queue_id = -1;  // watched for a reader that ended; -1: none
  ProcessIdentity peer;       // the service that answered before; unknown: none
  pid_t reader_task = 0;      // the request queue's last reader as last looked up
  ProcessIdentity reader;     // its process
  bool reader_gone = false;   // it had ended when looked up
  Clock::time_point armed_at;
  long mtype = 0;
  Clock::time_point deadline;
  uint64_t token = 0;
  bool fired = false;
  DeadlineSlot* prev = nullptr;
  DeadlineSlot* next = nullptr;
};

// How often an armed wait's request queue is looked at.
constexpr std::chrono::milliseconds kReaderPoll(25);
// How long a request may wait unread on a queue whose last reader has ended.
constexpr std::chrono::milliseconds kUnreadGrace(200);

// Arms `slot` for a wait on `reply_queue_id` for frames of `mtype`; when
// `request_queue_id` is not -1 the wait also ends once the last reader of
// that queue has ended, unless `peer` (the process that answered before, if
// known) still lives. Returns the token that this wait's deadline frame
// carries. Never blocks for long (the watchdog's mutex). REQUIRES: slot not
// armed.
uint64_t arm_reply_deadline(DeadlineSlot* slot, int reply_queue_id, long mtype, Clock::time_point deadline,
                            int request_queue_id = -1, ProcessIdentity peer = {});

// Disarms `slot`. Returns true when its deadline had fired: a deadline frame
// was queued, or the queue had gone or was removed to end the wait. After it
// returns no frame with the slot's token is queued any more. REQUIRES: slot
// armed.
bool disarm_reply_deadline(DeadlineSlot* slot);

// Reads the token of a complete deadline message (its text and length, as
// reassembled). Returns 0 for a text that is not a deadline frame's.
uint64_t deadline_token(const char* text, uint32_t length);

}  // namespace pavo::ipc

#endif  // PAVO_IPC_REPLY_DEADLINE_H
