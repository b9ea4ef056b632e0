#include "ipc/framing.h"

#include <sched.h>
#include <sys/msg.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>

#include "base/deleters.h"
#include "ipc/diagnostics.h"
#include "ipc/reassembly.h"
#include "ipc/sys_errors.h"

namespace pavo::ipc {
namespace {

constexpr useconds_t kResendPause = 50000;  // 50 ms
constexpr int kMaxResends = 5;

// One msgsnd of the whole frame; returns 0 or the errno of the failure.
int try_send(int queue_id, pavo_ipc_frame* frame, uint32_t chunk_size) {
  if (msgsnd(queue_id, frame, message_text_size(chunk_size), IPC_NOWAIT) == 0) return 0;
  return errno;
}

// A full queue at the first attempt is nearly always one whose reader is
// about to drain it: a reader on another core that has not woken up yet, or
// one that has not had the CPU since the sender filled the queue. A short
// grace period of retries, yielding the CPU in between, lets it run and
// saves the 50 ms resend pause; only a queue that stays full through the
// grace period is treated as full.
constexpr auto kFullQueueGrace = std::chrono::microseconds(2000);

int send_with_grace(int queue_id, pavo_ipc_frame* frame, uint32_t chunk_size) {
  int err = try_send(queue_id, frame, chunk_size);
  if (err != EAGAIN) return err;
  const auto give_up = std::chrono::steady_clock::now() + kFullQueueGrace;
  do {
    sched_yield();
    err = try_send(queue_id, frame, chunk_size);
  } while (err == EAGAIN && std::chrono::steady_clock::now() < give_up);
  return err;
}

// Up to five resends, each after a 50 ms pause. Returns 0 once one succeeds,
// else the errno of the last failure.
int resend(int queue_id, pavo_ipc_frame* frame, uint32_t chunk_size) {
  int err = 0;
  for (int i = 0; i < kMaxResends; ++i) {
    usleep(kResendPause);
    err = try_send(queue_id, frame, chunk_size);
    if (err == 0) return 0;
    if (err == EAGAIN) report(Stream::kOut, "\n###### resend msgsnd EAGAIN ######\n");
    if (queue_gone(err)) break;  // no resend can reach a removed queue
  }
  return err;
}

// Sends one frame under the intermediate or the final policy. Returns 0 or
// the errno of the attempt that gave up.
int send_frame(int queue_id, pavo_ipc_frame* frame, uint32_t chunk_size, bool final_frame) {
  int err = send_with_grace(queue_id, frame, chunk_size);
  if (err == 0) return 0;
  usleep(kResendPause);
  if (err == EAGAIN) {
    report(Stream::kOut, "\n###### msgsnd EAGAIN ######\n");
  } else if (final_frame || queue_gone(err)) {
    return err;  // the final frame is resent only when the queue was full
  }
  return resend(queue_id, frame, chunk_size);
}

void report_receive_failure(ssize_t res, int err) {
  report(Stream::kErr, "SERVER msgrcv res:%d, errno:%d, strerror:%s\n", static_cast<int>(res), err,
         std::strerror(err));
}

// msgrcv that repeats itself after a signal.
ssize_t receive_frame(int queue_id, pavo_ipc_frame* frame, uint32_t chunk_size, long mtype, int flags) {
  ssize_t n;
  do {
    n = msgrcv(queue_id, frame, message_text_size(chunk_size), mtype, flags);
  } while (n < 0 && interrupted(errno));
  return n;
}

}  // namespace

SendOutcome send_message(int queue_id, long mtype, uint32_t chunk_size, const pavo_ipc_msg* message,
                         int kind, pavo_ipc_frame* frame) {
  SendOutcome out;
  if (message == nullptr || chunk_size == 0 || mtype < 0 ||
      (message->data == nullptr && message->len != 0)) {
    out.code = kBadArgument;
    return out;
  }
  frame->mtype = mtype;
  frame->kind = kind;
  frame->total_len = message->len;
  frame->seq_no = 0;
  frame->reserved_one = 1;
  frame->reserved_zero = 0;

  const std::size_t per_chunk = chunk_payload(chunk_size);
  const std::size_t payload_bytes = frame_buffer_size(chunk_size) - kPayloadOffset;
  std::size_t remaining = message->len;
  std::size_t offset = 0;
  for (;;) {
    ++frame->seq_no;
    const std::size_t take = std::min(per_chunk, remaining);
    if (take > 0) std::memcpy(frame->payload, message->data + offset, take);
    // Every payload byte is written once per chunk: the chunk, then zeros.
    std::memset(frame->payload + take, 0, payload_bytes - take);
    frame->chunk_len = static_cast<uint32_t>(take);
    offset += take;
    remaining -= take;
    const bool final_frame = remaining == 0;
    frame->is_last = final_frame ? 1 : 0;
    const int err = send_frame(queue_id, frame, chunk_size, final_frame);
    if (queue_gone(err)) {
      out.queue_gone = true;
      return out;
    }
    if (final_frame) return out;
  }
}

ReceiveOutcome receive_message(int queue_id, long mtype, uint32_t chunk_size, pavo_ipc_frame* frame,
                               char** text, uint32_t* capacity) {
  ReceiveOutcome out;
  if (frame == nullptr || text == nullptr || *text == nullptr || capacity == nullptr ||
      *capacity < 1 || chunk_size == 0) {
    out.code = kBadArgument;
    return out;
  }
  Reassembly message(mtype, chunk_size, text, capacity);
  for (;;) {
    ssize_t n = receive_frame(queue_id, frame, chunk_size, mtype, 0);
    bool oversized = false;
    if (n < 0) {
      out.err = errno;
      report_receive_failure(n, out.err);
      if (out.err != E2BIG) {
        out.code = kFailed;
        return out;
      }
      // An oversized frame stays at the head of the queue and would fail
      // every receive after it: take it off, cut to our buffer, and drop its
      // message with it.
      n = receive_frame(queue_id, frame, chunk_size, mtype, MSG_NOERROR | IPC_NOWAIT);
      if (n < 0) continue;  // taken by another reader meanwhile
      oversized = true;
    }
    switch (message.add(*frame, static_cast<std::size_t>(n), oversized)) {
      case Reassembly::Step::kMore:
        break;
      case Reassembly::Step::kComplete:
        out.err = 0;
        out.length = message.length();
        return out;
      case Reassembly::Step::kDropped:
        out.code = message.failure();
        out.began = message.dropped_began();
        return out;
    }
  }
}

int drain_frames(int queue_id, long mtype, uint32_t chunk_size, pavo_ipc_frame* frame) {
  int messages = 0;
  while (receive_frame(queue_id, frame, chunk_size, mtype, MSG_NOERROR | IPC_NOWAIT) >= 0) {
    if (frame->is_last) ++messages;
  }
  return messages;
}

bool frame_waiting(int queue_id, long mtype) {
  if (mtype <= 0) return false;
  long type_only;
  for (;;) {
    if (msgrcv(queue_id, &type_only, 0, mtype, IPC_NOWAIT) >= 0) continue;
    if (!interrupted(errno)) return errno == E2BIG;
  }
}

}  // namespace pavo::ipc

extern "C" {

PAVO_EXPORT int ipc_snd_internal(int queue_id, long mtype, uint32_t chunk_size, pavo_ipc_msg* message,
                                 int kind) {
  if (message == nullptr || chunk_size == 0 || mtype < 0) return pavo::kBadArgument;
  pavo::MallocPtr<pavo::ipc::pavo_ipc_frame> frame(
      static_cast<pavo::ipc::pavo_ipc_frame*>(std::malloc(pavo::ipc::frame_buffer_size(chunk_size))));
  if (!frame) {
    const int err = errno;
    pavo::ipc::report(pavo::ipc::Stream::kErr, "malloc failed, errno:%d, strerr:%s\n", err,
                      std::strerror(err));
    return pavo::kNoMemory;
  }
  return pavo::ipc::send_message(queue_id, mtype, chunk_size, message, kind, frame.get()).code;
}

PAVO_EXPORT int ipc_rcv_internal(int queue_id, long mtype, uint32_t chunk_size, void* frame, char** text,
                                 uint32_t* capacity) {
  return pavo::ipc::receive_message(queue_id, mtype, chunk_size,
                                    static_cast<pavo::ipc::pavo_ipc_frame*>(frame), text, capacity)
      .code;
}

}  // extern "C"
