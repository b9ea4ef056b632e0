// Client end: one-way sends and synchronous request/reply exchanges.
#include <sys/msg.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>

#include "base/callback_guard.h"
#include "base/deleters.h"
#include "base/result_codes.h"
#include "ipc/diagnostics.h"
#include "ipc/framing.h"
#include "ipc/peer_generation.h"
#include "ipc/queue_reader.h"
#include "ipc/reply_deadline.h"
#include "ipc/sys_errors.h"
#include "pavo_ipc.h"

using pavo::kBadArgument;
using pavo::kFailed;
using pavo::kNoMemory;
using pavo::kOk;
using pavo::ipc::kMaxMessage;

// Thread-safe: `lock` serialises every send on the handle and guards every
// field below it; a synchronous exchange holds it from opening the queues
// until the reply is in, so there is one request in flight per handle and its
// reply is the next message of the handle's msg_type on the reply queue.
//
// Frames carry no request number. A request whose wait ended before its reply
// (time-out) leaves that reply owed: while a reply is owed the handle sends
// no new request; the next caller first waits, within its own time bound,
// for the owed reply and discards it, and fails with -1 without sending when
// it does not come (the service is hung). So a reply is never taken for the
// answer to another request.
//
// A wait that ended without its reply (time-out, or the service seen dead:
// reply_deadline.h) makes the handle `silent`: later requests do not wait
// the whole time-out again and again, they fail at once (-1, nothing sent)
// until the service is back. Back means one of: an owed reply has come (a
// hung service continued); the request queue has a new, living last reader
// (a restarted service read it); or, when the last reader has ended and the
// request queue is empty, a probe answered within kProbeWait (the request is
// sent and waited for that briefly: a restarted service that has not read
// yet is invisible otherwise). A dead service is told by its ended last
// reader (queue_reader.h).
//
// The service incarnation (peer_generation.h): after each reply the handle
// reads the request queue's last reader, the thread that took the request,
// and looks up its process: the one that answered. When that is another process than the one that answered
// before, the service was restarted (or replaced) in between, and the
// generation counts one up. A hung service that continues is the same
// process: no change. The check is one msgctl(IPC_STAT) after a reply; what
// goes on the queues does not change.
struct pavo_ipc_client {
  key_t key = 0;
  int msg_type = 0;
  int sync = 0;
  uint32_t chunk_size = 0;
  key_t reply_key = 0;

  std::mutex lock;
  int queue_id = -1;
  int reply_queue_id = -1;
  // The reply queue was opened and not yet cleared of what an ended process
  // may have left there (a late reply, a deadline frame).
  bool reply_queue_fresh = false;
  int owed_replies = 0;  // complete replies still to come for ended waits
  bool silent = false;   // fail fast until the service is back
  pid_t silent_reader = 0;  // last reader of the request queue when it fell silent
  pid_t peer_reader = 0;   // the thread that took the last answered request; 0 before the first
  std::atomic<pid_t> peer_process{0};  // its process; written under lock, read without it
  std::atomic<unsigned> peer_generation{0};  // written under lock, read without it
  // The handle's frame and reply text buffers, made at the first send and
  // kept: a send or an exchange allocates nothing else but the caller's copy
  // of the reply text.
  pavo::MallocPtr<pavo::ipc::pavo_ipc_frame> frame;
  pavo::MallocPtr<char> text;
  uint32_t text_capacity = 0;
  pavo::ipc::DeadlineSlot deadline;
};

namespace pavo::ipc {
namespace {

constexpr int kQueuePermissions = 0666;

// How long a silent handle's probe waits for its reply.
constexpr auto kProbeWait = std::chrono::milliseconds(50);

// Opens the queues that are not open yet. REQUIRES: client->lock held.
bool open_queues(pavo_ipc_client* client) {
  if (client->queue_id < 0) {
    client->queue_id = msgget(client->key, kQueuePermissions);
    if (client->queue_id < 0) return false;
  }
  if (client->sync && client->reply_queue_id < 0) {
    client->reply_queue_id = msgget(client->reply_key, kQueuePermissions);
    if (client->reply_queue_id < 0) return false;
    client->reply_queue_fresh = true;
  }
  return true;
}

// A queue that was removed is opened anew (a restarted service creates it
// again under the same key); what was owed on it went with it.
// REQUIRES: client->lock held.
void forget_queues(pavo_ipc_client* client) {
  client->queue_id = -1;
  client->reply_queue_id = -1;
  client->owed_replies = 0;
  client->silent = false;  // new queues: a new service
}

// Marks the handle silent after a wait that ended without its reply.
// REQUIRES: client->lock held.
void fall_silent(pavo_ipc_client* client) {
  QueueReader reader;
  client->silent = true;
  client->silent_reader = read_queue_reader(client->queue_id, &reader) ? reader.pid : 0;
}

// Records the process that answered the reply just received; counts a new
// generation when it is another than the last one. The kernel names the
// reading thread: a reader other than the last one is looked up as its
// process (a /proc read, only then). REQUIRES: client->lock held.
void note_peer(pavo_ipc_client* client) {
  QueueReader reader;
  if (!read_queue_reader(client->queue_id, &reader) || reader.pid <= 0) return;
  if (reader.pid == client->peer_reader) return;
  const pid_t process = process_of(reader.pid);
  if (process == 0) return;  // ended already: the next reply tells
  const pid_t before = client->peer_process.load(std::memory_order_relaxed);
  if (before != 0 && process != before) {
    client->peer_generation.fetch_add(1, std::memory_order_release);
  }
  client->peer_reader = reader.pid;
  client->peer_process.store(process, std::memory_order_release);
}

// Makes the handle's buffers. REQUIRES: client->lock held.
bool ensure_buffers(pavo_ipc_client* client, bool with_text) {
  const uint32_t n = client->chunk_size;
  if (!client->frame) {
    client->frame.reset(static_cast<pavo_ipc_frame*>(std::malloc(frame_buffer_size(n))));
    if (!client->frame) return false;
  }
  if (with_text && !client->text) {
    client->text.reset(static_cast<char*>(std::malloc(std::size_t{n} + 1)));
    if (!client->text) return false;
    client->text_capacity = n + 1;
  }
  return true;
}

// Takes off a newly opened reply queue what is queued there for the handle's
// type: nothing sent before the handle's first request on it can answer it
// (a late reply or a deadline frame of a process that ended during a wait).
// REQUIRES: client->lock held, buffers made.
void clear_fresh_reply_queue(pavo_ipc_client* client) {
  if (!client->reply_queue_fresh) return;
  drain_frames(client->reply_queue_id, client->msg_type, client->chunk_size, client->frame.get());
  client->reply_queue_fresh = false;
}

// Sends on the request queue; a queue found removed is opened again and the
// message sent once more. Returns kOk, kBadArgument (no queue to open) or
// kFailed. REQUIRES: client->lock held, queues open, buffers made.
int send_reopening(pavo_ipc_client* client, const pavo_ipc_msg* message, int kind) {
  for (int attempt = 0;; ++attempt) {
    const SendOutcome sent =
        send_message(client->queue_id, client->msg_type, client->chunk_size, message, kind, client->frame.get());
    if (sent.code != kOk) return kFailed;
    if (!sent.queue_gone) return kOk;
    forget_queues(client);
    if (attempt > 0) return kFailed;
    if (!open_queues(client)) return kBadArgument;
    if (kind == IPC_MSG_SYNC_REQUEST) clear_fresh_reply_queue(client);
  }
}

enum class Wait {
  kMessage,   // a complete message: client->text, got.length, client->frame's header
  kDropped,   // a message was dropped (its final frame is taken): got.code
  kTimedOut,  // this wait's deadline frame came first
  kGone,      // the reply queue was removed
  kFailed,    // msgrcv failed otherwise
};

// Waits for the next message of the handle's type on the reply queue until
// `deadline` (none when `bounded` is false). Deadline frames of other waits
// (stale ones) are taken off and ignored. REQUIRES: client->lock held.
Wait next_message(pavo_ipc_client* client, bool bounded, Clock::time_point deadline, ReceiveOutcome* got) {
  const uint64_t token = bounded ? arm_reply_deadline(&client->deadline, client->reply_queue_id, client->msg_type,
                                                      deadline, client->queue_id)
                                 : 0;
  Wait result;
  for (;;) {
    char* text = client->text.release();
    *got = receive_message(client->reply_queue_id, client->msg_type, client->chunk_size, client->frame.get(),
                           &text, &client->text_capacity);
    client->text.reset(text);
    if (got->code == kOk && client->frame->kind == IPC_MSG_REPLY_DEADLINE) {
      if (bounded && deadline_token(text, got->length) == token) {
        result = Wait::kTimedOut;
        break;
      }
      continue;  // stale: a frame that lost the race with a reply, or an ended process's
    }
    if (got->code == kOk) {
      result = Wait::kMessage;
    } else if (got->err == 0) {
      result = Wait::kDropped;
    } else {
      result = queue_gone(got->err) ? Wait::kGone : Wait::kFailed;
    }
    break;
  }
  if (bounded) disarm_reply_deadline(&client->deadline);  // a frame that fired late is stale now
  return result;
}

// Takes the owed replies off the reply queue. Returns false when one has not
// come by `deadline` (or the queue failed): no request may be sent then.
// REQUIRES: client->lock held.
bool settle_owed(pavo_ipc_client* client, bool bounded, Clock::time_point deadline) {
  while (client->owed_replies > 0) {
    ReceiveOutcome got;
    switch (next_message(client, bounded, deadline, &got)) {
      case Wait::kMessage:
      case Wait::kDropped:
        --client->owed_replies;
        break;
      case Wait::kTimedOut:
        report(Stream::kErr, "ipc: the reply owed on queue key 0x%x has not come; request not sent\n",
               static_cast<unsigned>(client->reply_key));
        fall_silent(client);
        return false;
      case Wait::kGone:
        forget_queues(client);
        return false;
      case Wait::kFailed:
        return false;
    }
  }
  return true;
}

enum class Verdict {
  kSend,   // the service is back: send, waiting the whole time-out
  kProbe,  // nobody reads: send, waiting kProbeWait
  kFail,   // still silent: fail without sending
};

// Whether a silent handle's service is back. REQUIRES: client->lock held,
// client->silent.
Verdict recheck(pavo_ipc_client* client, bool bounded) {
  QueueReader replies;
  if (read_queue_reader(client->reply_queue_id, &replies) && replies.queued > 0) {
    // Something has come: an owed reply, or a stale deadline frame.
    const int owed = client->owed_replies;
    settle_owed(client, bounded, Clock::now() + kProbeWait);
    if (client->owed_replies < owed) {
      client->silent = false;  // it answered: the rest of what is owed is awaited as usual
      return Verdict::kSend;
    }
  }
  QueueReader reader;
  if (!read_queue_reader(client->queue_id, &reader)) {
    client->silent = false;  // the queue has gone: the send opens it anew or fails
    return Verdict::kSend;
  }
  const bool reader_gone = process_ended(reader.pid);
  if (reader.pid > 0 && reader.pid != client->silent_reader && !reader_gone) {
    // A restarted service has read the queue. What the old one owed comes
    // at once or never.
    if (!settle_owed(client, bounded, Clock::now() + kProbeWait)) client->owed_replies = 0;
    client->silent = false;
    return Verdict::kSend;
  }
  if ((reader.pid == 0 || reader_gone) && reader.queued == 0) {
    client->owed_replies = 0;  // whoever owed them has ended
    return Verdict::kProbe;
  }
  return Verdict::kFail;
}

struct Reply {
  MallocPtr<char> text;  // the caller's copy
  uint32_t length = 0;   // bytes received
  int32_t kind = 0;      // kind of the final frame
  bool waited = false;   // a wait began (so a failure is one of the wait)
};

// Sends `request` as a kind-2 message and waits for the reply, all within
// one time bound. REQUIRES: arguments checked; client->sync set.
int exchange(pavo_ipc_client* client, const pavo_ipc_msg* request, Reply* reply) {
  std::lock_guard<std::mutex> guard(client->lock);
  if (!open_queues(client)) return kBadArgument;
  if (request->len > kMaxMessage) return kFailed;
  if (!ensure_buffers(client, true)) return kNoMemory;

  const auto timeout = reply_timeout();
  const bool bounded = timeout.count() > 0;
  const Clock::time_point deadline = bounded ? Clock::now() + timeout : Clock::time_point::max();
  clear_fresh_reply_queue(client);
  reply->waited = true;
  Clock::time_point reply_deadline = deadline;
  if (client->silent) {
    switch (recheck(client, bounded)) {
      case Verdict::kSend:
        break;
      case Verdict::kProbe:
        reply_deadline = std::min(deadline, Clock::now() + kProbeWait);
        break;
      case Verdict::kFail:
        return kFailed;
    }
  }
  if (!settle_owed(client, bounded, deadline)) return kFailed;
  reply->waited = false;
  const int sent = send_reopening(client, request, IPC_MSG_SYNC_REQUEST);
  if (sent != kOk) return sent;
  reply->waited = true;

  ReceiveOutcome got;
  const bool probe = client->silent;
  const Clock::time_point wait_start = Clock::now();
  switch (next_message(client, bounded || probe, reply_deadline, &got)) {
    case Wait::kMessage:
      client->silent = false;
      note_peer(client);
      break;
    case Wait::kDropped:
      return got.code == kNoMemory ? kNoMemory : kFailed;
    case Wait::kTimedOut: {
      const long long waited =
          std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - wait_start).count();
      report(Stream::kErr, "ipc: no reply on queue key 0x%x after %lld ms%s\n",
             static_cast<unsigned>(client->reply_key), waited, probe ? " (probe)" : "");
      ++client->owed_replies;  // the reply, or the rest of it, may still come
      fall_silent(client);
      return kFailed;
    }
    case Wait::kGone:
      forget_queues(client);
      return kFailed;
    case Wait::kFailed:
      return kFailed;
  }
  reply->text.reset(static_cast<char*>(std::malloc(std::size_t{got.length} + 1)));
  if (!reply->text) return kNoMemory;
  std::memcpy(reply->text.get(), client->text.get(), std::size_t{got.length} + 1);
  reply->length = got.length;
  reply->kind = client->frame->kind;
  return kOk;
}

bool sync_request_ok(const pavo_ipc_client* client, const pavo_ipc_msg* request) {
  return client->sync && client->chunk_size != 0 && request->len != 0 && request->data != nullptr;
}

}  // namespace

unsigned client_peer_generation(const pavo_ipc_client* client) {
  return client == nullptr ? 0 : client->peer_generation.load(std::memory_order_acquire);
}

bool client_peer_ended(const pavo_ipc_client* client) {
  return client != nullptr && process_ended(client->peer_process.load(std::memory_order_acquire));
}

}  // namespace pavo::ipc

extern "C" {

PAVO_EXPORT int pavo_ipc_client_create(key_t key, int msg_type, int sync, uint32_t chunk_size,
                                       pavo_ipc_client** handle_out) {
  if (handle_out == nullptr) return kBadArgument;
  auto* client = new (std::nothrow) pavo_ipc_client;
  if (client == nullptr) return kNoMemory;
  client->key = key;
  client->msg_type = msg_type;
  client->sync = sync;
  client->chunk_size = chunk_size;
  if (sync) client->reply_key = key + 1;
  *handle_out = client;
  return kOk;
}

PAVO_EXPORT int pavo_ipc_client_destroy(pavo_ipc_client* handle) {
  if (handle == nullptr) return kBadArgument;
  delete handle;
  return kOk;
}

PAVO_EXPORT int pavo_ipc_client_send(pavo_ipc_client* handle, pavo_ipc_msg* message) {
  if (handle == nullptr || message == nullptr || message->len == 0 || message->data == nullptr)
    return kBadArgument;
  std::lock_guard<std::mutex> guard(handle->lock);
  if (!pavo::ipc::open_queues(handle)) return kBadArgument;
  if (message->len > kMaxMessage) return kFailed;
  if (!pavo::ipc::ensure_buffers(handle, false)) return kNoMemory;
  return pavo::ipc::send_reopening(handle, message, pavo::ipc::IPC_MSG_ASYNC);
}

PAVO_EXPORT int pavo_ipc_client_send_sync_with_params(pavo_ipc_client* handle, pavo_ipc_msg* request,
                                                      pavo_ipc_msg* reply_out) {
  if (handle == nullptr || request == nullptr || reply_out == nullptr) return kBadArgument;
  if (!pavo::ipc::sync_request_ok(handle, request)) return kBadArgument;
  pavo::ipc::Reply reply;
  const int rc = pavo::ipc::exchange(handle, request, &reply);
  if (rc != kOk) {
    if (reply.waited) reply_out->data = nullptr;
    return rc;
  }
  // A no-reply answer leaves len as the caller set it; its text is "a".
  if (reply.kind == pavo::ipc::IPC_MSG_SYNC_REPLY) reply_out->len = reply.length;
  reply_out->data = reply.text.release();
  return kOk;
}

PAVO_EXPORT int pavo_ipc_client_send_sync_with_callback(pavo_ipc_client* handle, pavo_ipc_msg* request,
                                                        pavo_ipc_reply_callback callback) {
  if (handle == nullptr || request == nullptr) return kBadArgument;
  if (!pavo::ipc::sync_request_ok(handle, request)) return kBadArgument;
  pavo::ipc::Reply reply;
  const int rc = pavo::ipc::exchange(handle, request, &reply);
  if (rc != kOk) return rc;
  if (reply.kind == pavo::ipc::IPC_MSG_SYNC_REPLY && callback != nullptr) {
    pavo_ipc_msg message{reply.length, reply.text.get()};
    const bool returned = pavo::call_guarded("ipc: reply callback", [&] { callback(&message, 0); });
    if (!returned) return kFailed;
  }
  return kOk;
}

}  // extern "C"
