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
// field below it that is not atomic; a synchronous exchange holds it from
// opening the queues until the reply is in, so there is one request in
// flight per handle.
//
// Which reply answers which request. Frames carry no request number: a
// reply is the next complete message of the handle's msg_type on the reply
// queue, and the handle keeps that true against late, lost, duplicate and
// stray frames as follows.
// - Nothing that waits on the reply queue before a request is sent can
//   answer it. Before each send the handle takes off (without waiting)
//   whatever of its type is queued there: a duplicate reply, a late one, a
//   stray frame of another process, a stale deadline frame. Usually one
//   msgrcv that finds nothing.
// - A reply that may still come for an earlier request is "owed": after a
//   wait that ended without its reply (time-out), while a reply is owed the
//   next caller first waits (within its own time bound) for the owed reply
//   and discards it, and fails with -1 without sending when it does not come.
// - A dropped message (reassembly.h) that had no first frame is a stray
//   frame or the tail of another message: the wait goes on for the reply. A
//   dropped message that began (a reply cut short or malformed, or a forged
//   first frame) was probably the reply: the wait gives a real reply
//   kProbeWait to follow it and then fails with -1, owing nothing.
// So a frame that races an exchange (a stray one of another process, or a
// service's second answer that comes after the next request was sent) can
// cost that one exchange, and a complete forged reply is taken for the
// answer; neither shifts the answers of the exchanges after it.
//
// A wait that ended without its reply (time-out, or the service seen dead:
// reply_deadline.h) makes the handle `silent`: later requests do not wait
// the whole time-out again and again, they fail at once (-1, nothing sent)
// until the service is back. The process that should have answered is
// remembered (by identity, queue_reader.h: a later holder of its id is
// another process). Back means one of:
// - an owed reply has come (a hung or slow service continued);
// - that process lives and no request of the handle waits unread: it is slow,
//   or its reply was lost (taken by another process, or never sent). At most
//   once per kProbeInterval the request is sent as a probe that waits
//   kProbeWait. What it still owes may come first: the probe takes the last
//   message that comes within its wait as its answer. A service that has not
//   even read what was sent (stopped) is not sent more;
// - that process has ended and the request queue has a new, living reader
//   (a restarted service read it): sent with the whole time-out;
// - that process has ended and no request waits unread: a probe (a restarted
//   service that waits on an empty queue is visible no other way).
//
// The service incarnation (peer_generation.h). After each reply the handle
// reads the request queue's last reader (one msgctl): the process that took
// the request, normally the service that answered. While it is the process
// confirmed before (by its kernel id, re-confirmed by identity at most every
// kPeerReconfirm) nothing else is done. Another process is taken for the
// service only when the service known before has ended and the newcomer is
// also the reply queue's last sender: then the generation counts one up. A
// process that merely reads the request queue (any local process can take
// its own messages off it) while the service lives changes nothing; one that
// reads it in the instant between a restarted service's read and its reply
// is not taken for the service unless it also sent on the reply queue last.
// Known limit: a process that does both in that instant, after the known
// service has ended, is taken for the new service (and its end later for a
// restart). A hung service that continues is the same process: no change.
struct pavo_ipc_client {
  key_t key = 0;
  int msg_type = 0;
  int sync = 0;
  uint32_t chunk_size = 0;
  key_t reply_key = 0;

  std::mutex lock;
  int queue_id = -1;
  int reply_queue_id = -1;
  int owed_replies = 0;  // complete replies still to come for ended waits
  bool silent = false;   // fail fast until the service is back
  pavo::ipc::ProcessIdentity silent_peer;  // who should have answered when it fell silent
  pavo::ipc::Clock::time_point next_probe;  // a silent handle whose service lives probes no sooner
  pid_t peer_task = 0;  // the request queue's last reader, last confirmed to be the service
  pavo::ipc::Clock::time_point peer_confirmed;
  // ProcessIdentity::packed of the service that answered; written under
  // lock, read without it.
  std::atomic<uint64_t> peer{0};
  std::atomic<unsigned> peer_generation{0};  // written under lock, read without it
  // The handle's frame and reply text buffers, made at the first send and
  // kept: a send or an exchange allocates nothing else but the caller's copy
  // of the reply text.
  pavo::MallocPtr<pavo::ipc::pavo_ipc_frame> frame;
  pavo::MallocPtr<char> text;
  uint32_t text_capacity = 0;
  pavo::ipc::DeadlineSlot deadline;
};

static_assert(std::atomic<uint64_t>::is_always_lock_free, "client_peer_ended reads the peer without a lock");

namespace pavo::ipc {
namespace {

constexpr int kQueuePermissions = 0666;

// How long a probe, and a reply after a dropped first frame, is waited for.
constexpr auto kProbeWait = std::chrono::milliseconds(50);
// A silent handle whose service lives sends at most one probe this often.
constexpr auto kProbeInterval = std::chrono::seconds(1);
// How long a reader confirmed to be the service is trusted by its kernel id.
constexpr auto kPeerReconfirm = std::chrono::milliseconds(250);

ProcessIdentity known_peer(const pavo_ipc_client* client) {
  return ProcessIdentity::unpack(client->peer.load(std::memory_order_acquire));
}

// Opens the queues that are not open yet. The reply queue is made when it
// does not exist (it is ours as much as the service's: a reply queue that
// was removed is needed before the service can answer into it).
// REQUIRES: client->lock held.
bool open_queues(pavo_ipc_client* client) {
  if (client->queue_id < 0) {
    client->queue_id = msgget(client->key, kQueuePermissions);
    if (client->queue_id < 0) return false;
  }
  if (client->sync && client->reply_queue_id < 0) {
    client->reply_queue_id = msgget(client->reply_key, IPC_CREAT | kQueuePermissions);
    if (client->reply_queue_id < 0) return false;
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

// Marks the handle silent after a wait that ended without its reply, naming
// the process that should have answered: the known service while it lives,
// else the one that took the request. REQUIRES: client->lock held.
void fall_silent(pavo_ipc_client* client) {
  if (client->silent) return;
  client->silent = true;
  client->next_probe = Clock::now() + kProbeInterval;
  const ProcessIdentity known = known_peer(client);
  if (known.known() && !process_ended(known)) {
    client->silent_peer = known;
    return;
  }
  QueueReader reader;
  ProcessIdentity taker;
  const bool lives = read_queue_reader(client->queue_id, &reader) && process_identity(reader.pid, &taker);
  client->silent_peer = lives ? taker : ProcessIdentity{};
}

// Records the process that answered the reply just received; counts a new
// generation when the service known before has ended and another process
// answers (see the comment on pavo_ipc_client). REQUIRES: client->lock held.
void note_peer(pavo_ipc_client* client) {
  QueueReader reader;
  if (!read_queue_reader(client->queue_id, &reader) || reader.pid <= 0) return;
  const Clock::time_point now = Clock::now();
  if (reader.pid == client->peer_task && now - client->peer_confirmed < kPeerReconfirm) return;
  ProcessIdentity answerer;
  if (!process_identity(reader.pid, &answerer)) return;  // ended already: a later reply tells
  const ProcessIdentity known = known_peer(client);
  if (answerer != known) {
    if (known.known() && !process_ended(known)) return;  // a bystander read the queue
    QueueReader replies;
    ProcessIdentity sender;
    if (!read_queue_reader(client->reply_queue_id, &replies) || !process_identity(replies.sender, &sender) ||
        sender != answerer) {
      return;  // not confirmed as the one that answered: a later reply tells
    }
    client->peer.store(answerer.packed(), std::memory_order_release);
    if (known.known()) client->peer_generation.fetch_add(1, std::memory_order_release);
  }
  client->peer_task = reader.pid;
  client->peer_confirmed = now;
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

// Takes off the reply queue, without waiting, what is queued there for the
// handle's type: nothing queued before a request is sent can answer it.
// Returns the number of complete messages taken. REQUIRES: client->lock
// held, buffers made.
int drain_replies(pavo_ipc_client* client) {
  return drain_frames(client->reply_queue_id, client->msg_type, client->chunk_size, client->frame.get());
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
    if (kind == IPC_MSG_SYNC_REQUEST) drain_replies(client);
  }
}

enum class Wait {
  kMessage,   // a complete message: client->text, got.length, client->frame's header
  kDropped,   // a message was dropped (its final frame is taken): got.code, got.began
  kTimedOut,  // this wait's deadline came first (its frame, or the reply queue removed for it)
  kGone,      // the reply queue was removed
  kFailed,    // msgrcv failed otherwise
};

// Waits for the next message of the handle's type on the reply queue until
// `deadline` (none when `bounded` is false). Deadline frames of other waits
// (stale ones) are taken off and ignored. A reply queue that the watchdog
// removed to end this wait is made again at the next exchange.
// REQUIRES: client->lock held.
Wait next_message(pavo_ipc_client* client, bool bounded, Clock::time_point deadline, ReceiveOutcome* got) {
  const uint64_t token = bounded ? arm_reply_deadline(&client->deadline, client->reply_queue_id, client->msg_type,
                                                      deadline, client->queue_id, known_peer(client))
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
  // A frame that fired late is stale now.
  if (bounded && disarm_reply_deadline(&client->deadline) && result == Wait::kGone) {
    client->reply_queue_id = -1;
    result = Wait::kTimedOut;
  }
  return result;
}

// Takes the owed replies off the reply queue, waiting until `deadline`.
// Returns kMessage once none is owed, else how the wait for one ended
// (kTimedOut: it has not come; no request may be sent then).
// REQUIRES: client->lock held.
Wait settle_owed(pavo_ipc_client* client, bool bounded, Clock::time_point deadline) {
  while (client->owed_replies > 0) {
    ReceiveOutcome got;
    const Wait waited = next_message(client, bounded, deadline, &got);
    switch (waited) {
      case Wait::kMessage:
        --client->owed_replies;
        break;
      case Wait::kDropped:
        if (got.began) --client->owed_replies;  // else a stray frame: the reply is still to come
        break;
      case Wait::kGone:
        forget_queues(client);
        return waited;
      case Wait::kTimedOut:
      case Wait::kFailed:
        return waited;
    }
  }
  return Wait::kMessage;
}

enum class Verdict {
  kSend,   // the service is back: send, waiting the whole time-out
  kProbe,  // send, waiting kProbeWait
  kFail,   // still silent: fail without sending
};

// Whether a silent handle's service is back (see the comment on
// pavo_ipc_client). REQUIRES: client->lock held, client->silent.
Verdict recheck(pavo_ipc_client* client, bool bounded) {
  if (client->owed_replies > 0 && frame_waiting(client->reply_queue_id, client->msg_type)) {
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
  const bool unread = frame_waiting(client->queue_id, client->msg_type);
  const Clock::time_point now = Clock::now();
  if (client->silent_peer.known() && !process_ended(client->silent_peer)) {
    // It lives: slow, or its reply was lost.
    if (unread || now < client->next_probe) return Verdict::kFail;
    client->next_probe = now + kProbeInterval;
    return Verdict::kProbe;
  }
  // It has ended (or nobody had read): what it owed will never come.
  ProcessIdentity newcomer;
  if (process_identity(reader.pid, &newcomer) && newcomer != client->silent_peer) {
    // A restarted service has read the queue. What the old one owed comes
    // at once or never.
    if (settle_owed(client, bounded, now + kProbeWait) != Wait::kMessage) client->owed_replies = 0;
    client->silent = false;
    return Verdict::kSend;
  }
  if (unread) return Verdict::kFail;
  client->owed_replies = 0;
  return Verdict::kProbe;
}

struct Reply {
  MallocPtr<char> text;  // the caller's copy
  uint32_t length = 0;   // bytes received
  int32_t kind = 0;      // kind of the final frame
  bool waited = false;   // a wait began (so a failure is one of the wait)
};

// Copies the message just received into `reply`, replacing what it held.
bool keep_reply(const pavo_ipc_client* client, uint32_t length, Reply* reply) {
  reply->text.reset(static_cast<char*>(std::malloc(std::size_t{length} + 1)));
  if (!reply->text) return false;
  std::memcpy(reply->text.get(), client->text.get(), std::size_t{length} + 1);
  reply->length = length;
  reply->kind = client->frame->kind;
  return true;
}

// Waits for the reply to the request just sent, until `deadline`.
// `earlier`: late replies to earlier requests that may come before it (a
// probe's); the last message that comes by the deadline is then the answer.
// A time-out leaves the reply and the earlier ones owed and the handle
// silent. Returns kOk with `reply` filled, kFailed or kNoMemory.
// REQUIRES: client->lock held.
int await_reply(pavo_ipc_client* client, bool bounded, Clock::time_point deadline, int earlier, bool probe,
                Reply* reply) {
  const Clock::time_point wait_start = Clock::now();
  bool answered = false;     // `reply` holds a message
  bool after_drop = false;   // a dropped message may have been the reply
  for (;;) {
    ReceiveOutcome got;
    switch (next_message(client, bounded, deadline, &got)) {
      case Wait::kMessage:
        if (!keep_reply(client, got.length, reply)) return kNoMemory;
        if (earlier == 0) return kOk;
        --earlier;  // perhaps an earlier request's: a later message replaces it
        answered = true;
        break;
      case Wait::kDropped:
        if (got.code == kNoMemory) return kNoMemory;
        if (!got.began) break;  // a stray frame or a tail: the reply is still to come
        if (earlier > 0) {
          --earlier;
          break;
        }
        // Probably the reply, cut short: a real one that a forged first
        // frame went before would follow at once.
        reply->text.reset();
        answered = false;
        after_drop = true;
        deadline = std::min(deadline, Clock::now() + kProbeWait);
        bounded = true;
        break;
      case Wait::kTimedOut: {
        if (answered) return kOk;
        if (after_drop) return kFailed;
        const long long waited =
            std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - wait_start).count();
        report(Stream::kErr, "ipc: no reply on queue key 0x%x after %lld ms%s\n",
               static_cast<unsigned>(client->reply_key), waited, probe ? " (probe)" : "");
        client->owed_replies += earlier + 1;  // the reply, or the rest of it, may still come
        fall_silent(client);
        return kFailed;
      }
      case Wait::kGone:
        forget_queues(client);
        return kFailed;
      case Wait::kFailed:
        return kFailed;
    }
  }
}

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
  reply->waited = true;
  Clock::time_point reply_deadline = deadline;
  bool probe = false;
  if (client->silent) {
    switch (recheck(client, bounded)) {
      case Verdict::kSend:
        break;
      case Verdict::kProbe:
        probe = true;
        reply_deadline = std::min(deadline, Clock::now() + kProbeWait);
        break;
      case Verdict::kFail:
        return kFailed;
    }
  }
  int earlier = 0;
  if (probe) {
    earlier = client->owed_replies;  // a probe does not wait for them first
    client->owed_replies = 0;
  } else {
    const Wait settled = settle_owed(client, bounded, deadline);
    if (settled == Wait::kTimedOut) {
      report(Stream::kErr, "ipc: the reply owed on queue key 0x%x has not come; request not sent\n",
             static_cast<unsigned>(client->reply_key));
      fall_silent(client);
    }
    if (settled != Wait::kMessage) return kFailed;
  }
  if (!open_queues(client)) return kBadArgument;  // a reply queue removed to end a wait is made again
  earlier = std::max(0, earlier - drain_replies(client));
  reply->waited = false;
  const int sent = send_reopening(client, request, IPC_MSG_SYNC_REQUEST);
  if (sent != kOk) return sent;
  reply->waited = true;

  const int got = await_reply(client, bounded || probe, reply_deadline, earlier, probe, reply);
  if (got != kOk) return got;
  client->silent = false;
  note_peer(client);
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
  return client != nullptr && process_ended(known_peer(client));
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
