// Putting one message back together from its frames: the pure part of a
// receive, fed one frame at a time, with no queue behind it (so the fuzzer
// can drive it with any sequence of frames).
//
// Rules, for frames whose header is untrusted:
// - A frame with `seq_no` 1 starts a message. A message in progress that has
//   not seen its final frame is dropped (cut short) when the next one starts.
// - A frame out of sequence (a message that does not start at 1, a chunk that
//   went missing), a malformed frame (`chunk_len` beyond what a frame of this
//   chunk size carries or what arrived, an `mtype` other than the one
//   received, a `kind` outside the transport's), or a message that grows
//   beyond 16384 bytes drops its message; the rest of that message is taken
//   off up to its final frame (`is_last`) and discarded, so that it is never
//   read as the start of the next message.
// - A frame shorter than its header carries nothing usable and is ignored.
// Every drop is reported once (ipc/diagnostics.h). The text buffer never
// grows beyond 16385 bytes; nothing is read or written outside a buffer.
//
// Not thread-safe: one object per receive.
#ifndef PAVO_IPC_REASSEMBLY_H
#define PAVO_IPC_REASSEMBLY_H

#include <cstddef>
#include <cstdint>

#include "ipc/frame.h"

namespace pavo::ipc {

class Reassembly {
 public:
  enum class Step {
    kMore,      // the message goes on: feed the next frame
    kComplete,  // the final frame is in: text(), length()
    kDropped,   // the final frame of a dropped message is in: failure()
  };

  // `text` points to the caller's malloc'ed text buffer of `*capacity` bytes
  // (at least 1); the buffer is grown with realloc (doubling less one) when a
  // chunk leaves no room for the terminating NUL, and the new pointer and
  // capacity are stored back. REQUIRES: chunk_size > 0.
  Reassembly(long mtype, uint32_t chunk_size, char** text, uint32_t* capacity);

  Reassembly(const Reassembly&) = delete;
  Reassembly& operator=(const Reassembly&) = delete;

  // Adds one frame of which `arrived` bytes of message text (the header words
  // and the payload behind `mtype`, as msgrcv counts them) were received.
  // `oversized`: the frame was longer than a frame of this chunk size and was
  // cut to it; its message is dropped.
  Step add(const pavo_ipc_frame& frame, std::size_t arrived, bool oversized = false);

  // After kComplete: bytes gathered; the text is NUL-terminated behind them.
  uint32_t length() const { return static_cast<uint32_t>(offset_); }
  // After kDropped: kFailed, or kNoMemory when the text buffer could not grow.
  int failure() const { return failure_; }
  // After kDropped: whether the dropped message had a first frame (seq_no 1),
  // so that it may have been the message awaited; a drop without one is a
  // stray frame or the tail of a message whose head went elsewhere.
  bool dropped_began() const { return dropped_began_; }
  // True while frames of a message (kept or being skipped) have been taken.
  bool in_message() const { return frames_ > 0 || skipping_; }

 private:
  void restart();
  void skip(const char* why, const pavo_ipc_frame& frame, std::size_t arrived);
  bool append(const pavo_ipc_frame& frame);

  const long mtype_;
  const uint32_t chunk_size_;
  char** const text_;
  uint32_t* const capacity_;
  std::size_t offset_ = 0;   // bytes gathered
  uint32_t frames_ = 0;      // frames appended to this message
  bool skipping_ = false;    // the message was dropped; its frames are discarded
  bool began_ = false;       // this message had a frame with seq_no 1
  bool dropped_began_ = false;
  int failure_;
};

}  // namespace pavo::ipc

#endif  // PAVO_IPC_REASSEMBLY_H
