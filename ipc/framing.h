// Sending and receiving one message as a series of frames (the engine behind
// ipc_snd_internal and ipc_rcv_internal), with the extra outcomes that the
// client and server ends need to act on. Not thread-safe per frame buffer:
// the caller owns the frame and text buffers it passes and serialises their use.
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

// Sends `message` as frames of `kind`, built in the caller's `frame` buffer
// (frame_buffer_size(chunk_size) bytes, any content). Never blocks in the
// kernel: a frame that finds the queue full is retried for a grace period of
// 2 ms (yielding the CPU, so that the reader can drain the queue), then
// resent at most five times, 50 ms apart (a final frame only for EAGAIN),
// then abandoned. Returns kOk also when a frame was abandoned; kBadArgument
// for a null message (or null data with a nonzero length), chunk size 0 or a
// negative mtype. Stops at once, with queue_gone, when the queue was removed.
SendOutcome send_message(int queue_id, long mtype, uint32_t chunk_size, const pavo_ipc_msg* message,
                         int kind, pavo_ipc_frame* frame);

struct ReceiveOutcome {
  int code = kOk;          // as ipc_rcv_internal
  int err = 0;             // errno of a failed msgrcv, 0 otherwise
  uint32_t length = 0;     // bytes gathered (the text's length) on kOk
  bool began = false;      // a dropped message had a first frame (seq_no 1): Reassembly::dropped_began
};

// Blocks for the frames of one message of `mtype` and gathers them into
// *text (grown as needed, capacity stored back) under the rules of
// ipc/reassembly.h. EINTR is retried. A dropped message (a malformed frame,
// an oversized frame, which is taken off the queue, or more than 16384
// bytes) gives kFailed (kNoMemory when the text could not grow) once its
// final frame has been taken off the queue. A failed msgrcv gives kFailed
// with its errno. On kOk the frame buffer holds the final frame's header.
ReceiveOutcome receive_message(int queue_id, long mtype, uint32_t chunk_size, pavo_ipc_frame* frame,
                               char** text, uint32_t* capacity);

// Removes, without blocking, every frame of `mtype` that waits in the queue.
// Returns the number of final frames (is_last) among them. One msgrcv when
// there is none.
int drain_frames(int queue_id, long mtype, uint32_t chunk_size, pavo_ipc_frame* frame);

// Whether a frame of `mtype` (> 0) waits in the queue, without taking it off
// (a receive of zero bytes fails with E2BIG and leaves a longer message
// queued). A message of no text, which carries nothing, is taken off and the
// look repeated. One msgrcv; never blocks. False when the queue cannot be read.
bool frame_waiting(int queue_id, long mtype);

}  // namespace pavo::ipc

#endif  // PAVO_IPC_FRAMING_H
