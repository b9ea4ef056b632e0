// Bounded waits for replies.
//
// msgrcv has no time-out, and interrupting it with a signal would mean
// installing a signal handler in the host process. Instead a client that
// waits for a reply arms a deadline here and then blocks in msgrcv as usual.
// If the deadline passes first, one process-wide watchdog thread queues a
// frame of kind IPC_MSG_REPLY_DEADLINE with the waiting client's message
// type on the client's own reply queue, which ends the blocking receive.
//
// A deadline that fired while the real reply arrived anyway leaves its frame
// in the queue: disarm() reports it so that the client drains it before its
// next request.
//
// Thread-safe. The watchdog starts at the first arm() and ends when the
// library is unloaded; a forked child starts its own when it needs one.
#ifndef PAVO_IPC_REPLY_DEADLINE_H
#define PAVO_IPC_REPLY_DEADLINE_H

#include <chrono>
#include <cstdint>

namespace pavo::ipc {

using Clock = std::chrono::steady_clock;  // CLOCK_MONOTONIC: immune to wall-clock jumps

// The longest wait for a reply; zero means no limit. Defaults to the
// build-time PAVO_IPC_REPLY_TIMEOUT_MS.
std::chrono::milliseconds reply_timeout();

// Test hook (not exported): replaces the reply time-out of this process.
void set_reply_timeout_for_testing(std::chrono::milliseconds timeout);

// Arms a deadline for a wait on `reply_queue_id` for frames of `mtype`.
// Returns a token for disarm().
uint64_t arm_reply_deadline(int reply_queue_id, long mtype, Clock::time_point deadline);

// Disarms a deadline. Returns true when it had fired already: a deadline
// frame was queued (or the queue had gone) and may still wait in the queue.
bool disarm_reply_deadline(uint64_t token);

}  // namespace pavo::ipc

#endif  // PAVO_IPC_REPLY_DEADLINE_H
