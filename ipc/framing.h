// Sending and receiving one message as a series of frames (the engine behind
// ipc_snd_internal and ipc_rcv_internal), with the extra outcomes that the
// client and server ends need to act on.
#ifndef PAVO_IPC_FRAMING_H
#define PAVO_IPC_FRAMING_H

#include <cstdint>

#include "base/result_codes.h"
#include "ipc/frame.h"
#include "pavo_ipc.h"

namespace pavo::ipc {

struct SendOutcome {
  int code = kOk;           // as ipc_snd_internal
  bool queue_gone = false;  // the queue was removed: the rest of the message was abandoned
};

// Sends `message` as frames of `kind`. Never blocks in the kernel: a frame
// that finds the queue full is retried for a grace period of 2 ms (yielding
// the CPU, so that the reader can drain the queue), then resent at most five
// times, 50 ms apart (a final frame only for EAGAIN), then abandoned. Returns kOk also when a frame
// was abandoned; kBadArgument for a null message (or null data with a
// nonzero length), chunk size 0 or a negative mtype; kNoMemory.
SendOutcome send_message(int queue_id, long mtype, uint32_t chunk_size, const pavo_ipc_msg* message,
                         int kind);

struct ReceiveOutcome {
  int code = kOk;          // as ipc_rcv_internal
  int err = 0;             // errno of a failed msgrcv, 0 otherwise
  uint32_t length = 0;     // bytes gathered (the text's length) on kOk
};

// Blocks for the frames of one message of `mtype` and gathers them into
// *text (grown as needed, capacity stored back). EINTR is retried. A frame
// bigger than N + 32 bytes is taken off the queue and counts as a receive
// failure; a malformed frame, or a message of more than 16384 bytes, drops
// the message (kFailed, err 0).
ReceiveOutcome receive_message(int queue_id, long mtype, uint32_t chunk_size, pavo_ipc_frame* frame,
                               char** text, uint32_t* capacity);

// Removes, without blocking, every frame of `mtype` that waits in the queue.
// Returns the number of final frames (is_last) among them.
int drain_frames(int queue_id, long mtype, uint32_t chunk_size, pavo_ipc_frame* frame);

}  // namespace pavo::ipc

#endif  // PAVO_IPC_FRAMING_H
