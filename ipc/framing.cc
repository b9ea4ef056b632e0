#include "ipc/framing.h"

#include <sched.h>
#include <sys/msg.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "base/deleters.h"
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
    if (err == EAGAIN) puts("\n###### resend msgsnd EAGAIN ######");
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
    puts("\n###### msgsnd EAGAIN ######");
  } else if (final_frame || queue_gone(err)) {
    return err;  // the final frame is resent only when the queue was full
  }
  return resend(queue_id, frame, chunk_size);
}

void print_receive_failure(ssize_t res, int err) {
  std::fprintf(stderr, "SERVER msgrcv res:%d, errno:%d, strerror:%s\n", static_cast<int>(res), err,
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
                         int kind) {
  SendOutcome out;
  if (message == nullptr || chunk_size == 0 || mtype < 0 ||
      (message->data == nullptr && message->len != 0)) {
    out.code = kBadArgument;
    return out;
  }
  MallocPtr<pavo_ipc_frame> frame(
      static_cast<pavo_ipc_frame*>(std::calloc(1, frame_buffer_size(chunk_size))));
  if (!frame) {
    int err = errno;
    std::fprintf(stderr, "malloc failed, errno:%d, strerr:%s\n", err, std::strerror(err));
    out.code = kNoMemory;
    return out;
  }
  frame->mtype = mtype;
  frame->kind = kind;
  frame->total_len = message->len;
  frame->seq_no = 0;
  frame->is_last = 0;
  frame->reserved_one = 1;
  frame->reserved_zero = 0;

  const std::size_t per_chunk = chunk_payload(chunk_size);
  std::size_t remaining = message->len;
  std::size_t offset = 0;
  for (;;) {
    // Clear what the previous chunk left, so the bytes behind chunk_len are zero.
    std::memset(frame->payload, 0, per_chunk);
    ++frame->seq_no;
    const std::size_t take = std::min(per_chunk, remaining);
    if (take > 0) std::memcpy(frame->payload, message->data + offset, take);
    frame->chunk_len = static_cast<uint32_t>(take);
    offset += take;
    remaining -= take;
    const bool final_frame = remaining == 0;
    frame->is_last = final_frame ? 1 : 0;
    const int err = send_frame(queue_id, frame.get(), chunk_size, final_frame);
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
  uint32_t cap = *capacity;
  std::size_t offset = 0;
  std::size_t room = cap;
  for (;;) {
    std::memset(frame, 0, kPayloadOffset + chunk_payload(chunk_size));
    const ssize_t n = receive_frame(queue_id, frame, chunk_size, mtype, 0);
    if (n < 0) {
      out.err = errno;
      print_receive_failure(n, out.err);
      if (out.err == E2BIG) {
        // An oversized frame stays at the head of the queue and would fail
        // every receive after it: take it off, cut to our buffer.
        receive_frame(queue_id, frame, chunk_size, mtype, MSG_NOERROR | IPC_NOWAIT);
      }
      out.code = kFailed;
      return out;
    }
    // The header is untrusted: chunk_len must fit both the payload that a
    // frame of this chunk size carries and the bytes that actually arrived.
    const std::size_t arrived = static_cast<std::size_t>(n);
    const std::size_t chunk_len = frame->chunk_len;
    if (arrived < kHeaderTextBytes || chunk_len > chunk_payload(chunk_size) ||
        chunk_len > arrived - kHeaderTextBytes) {
      std::fprintf(stderr, "ipc: dropped a malformed frame (%zu bytes, chunk_len %zu)\n", arrived,
                   chunk_len);
      out.code = kFailed;
      return out;
    }
    if (offset + chunk_len > kMaxMessage) {
      std::fprintf(stderr, "ipc: dropped a message longer than %u bytes\n", kMaxMessage);
      out.code = kFailed;
      return out;
    }
    if (chunk_len >= room) {
      // Doubling less one keeps one byte free for the terminating NUL.
      std::size_t grown = std::max<std::size_t>(2 * std::size_t{cap} - 1, offset + chunk_len + 1);
      char* bigger = static_cast<char*>(std::realloc(*text, grown));
      if (bigger == nullptr) {
        out.code = kNoMemory;
        return out;
      }
      *text = bigger;
      room += grown - cap;
      cap = static_cast<uint32_t>(grown);
      *capacity = cap;
    }
    std::memcpy(*text + offset, frame->payload, chunk_len);
    offset += chunk_len;
    room -= chunk_len;
    if (frame->is_last) {
      (*text)[offset] = '\0';
      *capacity = cap;
      out.length = static_cast<uint32_t>(offset);
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

}  // namespace pavo::ipc

extern "C" {

PAVO_EXPORT int ipc_snd_internal(int queue_id, long mtype, uint32_t chunk_size, pavo_ipc_msg* message,
                                 int kind) {
  return pavo::ipc::send_message(queue_id, mtype, chunk_size, message, kind).code;
}

PAVO_EXPORT int ipc_rcv_internal(int queue_id, long mtype, uint32_t chunk_size, void* frame, char** text,
                                 uint32_t* capacity) {
  return pavo::ipc::receive_message(queue_id, mtype, chunk_size,
                                    static_cast<pavo::ipc::pavo_ipc_frame*>(frame), text, capacity)
      .code;
}

}  // extern "C"
