// Client end: one-way sends and synchronous request/reply exchanges.
#include <sys/msg.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <new>

#include "base/callback_guard.h"
#include "base/deleters.h"
#include "base/result_codes.h"
#include "ipc/framing.h"
#include "ipc/reply_deadline.h"
#include "ipc/sys_errors.h"
#include "pavo_ipc.h"

using pavo::kBadArgument;
using pavo::kFailed;
using pavo::kNoMemory;
using pavo::kOk;
using pavo::ipc::kMaxMessage;

// Thread-safe: `lock` serialises every send on the handle; a synchronous
// exchange holds it from opening the queues until the reply is in, so there
// is one request in flight per handle and its reply is the next message of
// the handle's msg_type on the reply queue.
struct pavo_ipc_client {
  key_t key = 0;
  int msg_type = 0;
  int queue_id = -1;       // guarded by lock
  std::mutex lock;
  key_t reply_key = 0;
  int reply_queue_id = -1;  // guarded by lock
  int sync = 0;
  uint32_t chunk_size = 0;
  // Complete messages of this handle's type that are expected to reach the
  // reply queue unasked (the late reply of a timed-out exchange, a deadline
  // frame that lost the race with the reply); drained before the next
  // request. Guarded by lock.
  int stale_messages = 0;
};

namespace pavo::ipc {
namespace {

constexpr int kQueuePermissions = 0666;

using FrameBuffer = MallocPtr<pavo_ipc_frame>;
using TextBuffer = MallocPtr<char>;

// Opens the queues that are not open yet. REQUIRES: client->lock held.
bool open_queues(pavo_ipc_client* client) {
  if (client->queue_id < 0) {
    client->queue_id = msgget(client->key, kQueuePermissions);
    if (client->queue_id < 0) return false;
  }
  if (client->sync && client->reply_queue_id < 0) {
    client->reply_queue_id = msgget(client->reply_key, kQueuePermissions);
    if (client->reply_queue_id < 0) return false;
  }
  return true;
}

// A queue that was removed (a restarted service recreates it under the same
// key) is opened anew at the next send. REQUIRES: client->lock held.
void forget_queues(pavo_ipc_client* client) {
  client->queue_id = -1;
  client->reply_queue_id = -1;
  client->stale_messages = 0;
}

struct Reply {
  TextBuffer text;
  uint32_t length = 0;  // bytes received
  int32_t kind = 0;     // kind of the final frame
  bool sent = false;    // the request went out (so a failure is one of the wait)
};

// Sends `request` as a kind-2 message and waits for the reply.
// REQUIRES: arguments checked; client->sync set.
int exchange(pavo_ipc_client* client, const pavo_ipc_msg* request, Reply* reply) {
  std::lock_guard<std::mutex> guard(client->lock);
  if (!open_queues(client)) return kBadArgument;
  if (request->len > kMaxMessage) return kFailed;

  const uint32_t n = client->chunk_size;
  FrameBuffer frame(static_cast<pavo_ipc_frame*>(std::calloc(1, frame_buffer_size(n))));
  if (!frame) return kNoMemory;
  uint32_t capacity = n + 1;
  TextBuffer text(static_cast<char*>(std::calloc(1, capacity)));
  if (!text) return kNoMemory;

  if (client->stale_messages > 0) {
    const int drained = drain_frames(client->reply_queue_id, client->msg_type, n, frame.get());
    client->stale_messages = drained >= client->stale_messages ? 0 : client->stale_messages - drained;
  }

  const SendOutcome sent = send_message(client->queue_id, client->msg_type, n, request,
                                        IPC_MSG_SYNC_REQUEST);
  if (sent.code != kOk) return sent.code == kNoMemory ? kNoMemory : kFailed;
  if (sent.queue_gone) {
    forget_queues(client);
    return kFailed;  // nobody can answer a request that reached no queue
  }
  reply->sent = true;

  const auto timeout = reply_timeout();
  const bool bounded = timeout.count() > 0;
  const uint64_t token =
      bounded ? arm_reply_deadline(client->reply_queue_id, client->msg_type, Clock::now() + timeout) : 0;
  char* raw = text.release();
  const ReceiveOutcome got =
      receive_message(client->reply_queue_id, client->msg_type, n, frame.get(), &raw, &capacity);
  text.reset(raw);
  const bool deadline_fired = bounded && disarm_reply_deadline(token);

  if (got.code != kOk) {
    if (queue_gone(got.err)) {
      forget_queues(client);
    } else if (deadline_fired) {
      ++client->stale_messages;
    }
    return got.code == kNoMemory ? kNoMemory : kFailed;
  }
  if (frame->kind == IPC_MSG_REPLY_DEADLINE) {
    std::fprintf(stderr, "ipc: no reply on queue key 0x%x within %lld ms\n",
                 static_cast<unsigned>(client->reply_key), static_cast<long long>(timeout.count()));
    ++client->stale_messages;  // the reply, or the rest of it, may still come
    return kFailed;
  }
  if (deadline_fired) ++client->stale_messages;  // its frame waits behind the reply

  reply->text = std::move(text);
  reply->length = got.length;
  reply->kind = frame->kind;
  return kOk;
}

bool sync_request_ok(const pavo_ipc_client* client, const pavo_ipc_msg* request) {
  return client->sync && client->chunk_size != 0 && request->len != 0 && request->data != nullptr;
}

}  // namespace
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
  const pavo::ipc::SendOutcome sent = pavo::ipc::send_message(
      handle->queue_id, handle->msg_type, handle->chunk_size, message, pavo::ipc::IPC_MSG_ASYNC);
  if (sent.queue_gone) pavo::ipc::forget_queues(handle);
  return sent.code == kOk && !sent.queue_gone ? kOk : kFailed;
}

PAVO_EXPORT int pavo_ipc_client_send_sync_with_params(pavo_ipc_client* handle, pavo_ipc_msg* request,
                                                      pavo_ipc_msg* reply_out) {
  if (handle == nullptr || request == nullptr || reply_out == nullptr) return kBadArgument;
  if (!pavo::ipc::sync_request_ok(handle, request)) return kBadArgument;
  pavo::ipc::Reply reply;
  const int rc = pavo::ipc::exchange(handle, request, &reply);
  if (rc != kOk) {
    if (reply.sent) reply_out->data = nullptr;
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
