// Server end: owns the queues, runs the receive thread, dispatches messages
// to the registered callback and answers synchronous requests.
#include <pthread.h>
#include <sys/msg.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
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
#include "ipc/sys_errors.h"
#include "pavo_ipc.h"

using pavo::kBadArgument;
using pavo::kFailed;
using pavo::kNoMemory;
using pavo::kNoThread;
using pavo::kOk;
using pavo::ipc::kMaxMessage;

// Thread-safety: `lock` is held by the receive thread while the callback runs
// and its reply is sent, and by (un)registration, so a callback is never
// changed while it runs. `running` is written by the receive thread and read
// by pavo_ipc_server_destroy; the queue identifiers are written by the
// receive thread (when it finds a queue again) and read by destroy.
struct pavo_ipc_server {
  key_t key = 0;
  int msg_type = 0;
  std::atomic<int> running{0};
  std::atomic<int> queue_id{-1};
  pthread_t thread{};
  std::mutex lock;
  // Read without `lock` only to recognise a registration that changes
  // nothing; written under `lock`.
  std::atomic<pavo_ipc_server_callback> callback{nullptr};
  std::atomic<void*> user_data{nullptr};
  key_t reply_key = 0;
  std::atomic<int> reply_queue_id{-1};
  uint32_t chunk_size = 0;
  int sync = 0;

  // The receive thread's end, signalled to pavo_ipc_server_destroy, and
  // destroy's stop order, signalled to a receive thread that waits for its
  // queue to come back.
  std::mutex end_lock;
  std::condition_variable end_signal;
  bool stop_requested = false;  // guarded by end_lock
};

namespace pavo::ipc {
namespace {

constexpr int kCreatePermissions = IPC_CREAT | 0666;
// pavo_ipc_server_destroy waits this long for the thread to see the stop frame.
constexpr auto kStopWait = std::chrono::seconds(1);
// Pause after a receive failure of unknown cause, so it cannot spin a core.
constexpr auto kFailurePause = std::chrono::milliseconds(10);
// Pause between attempts to find a removed queue again.
constexpr auto kRefindPause = std::chrono::milliseconds(100);

// Releases a reply the way the callback contract allocates it.
void release_reply(pavo_ipc_msg* reply) {
  if (reply == nullptr) return;
  std::free(reply->data);
  delete reply;
}

pavo_ipc_msg* run_callback(pavo_ipc_server* server, pavo_ipc_msg* message) {
  pavo_ipc_server_callback callback = server->callback.load();
  if (callback == nullptr) return nullptr;
  pavo_ipc_msg* reply = nullptr;
  call_guarded("ipc: server callback", [&] { reply = callback(message, server->user_data.load()); });
  return reply;
}

// Opens (creating them if need be) the queues of a server whose queue was
// removed. REQUIRES: called on the receive thread.
bool refind_queues(pavo_ipc_server* server) {
  const int id = msgget(server->key, kCreatePermissions);
  if (id < 0) return false;
  server->queue_id.store(id);
  if (server->sync) {
    const int reply_id = msgget(server->reply_key, kCreatePermissions);
    if (reply_id < 0) return false;
    server->reply_queue_id.store(reply_id);
  }
  return true;
}

// Sleeps for `pause` unless destroy asks the thread to stop first. Returns
// false when it did.
bool pause_unless_stopped(pavo_ipc_server* server, std::chrono::milliseconds pause) {
  std::unique_lock<std::mutex> lock(server->end_lock);
  return !server->end_signal.wait_for(lock, pause, [server] { return server->stop_requested; });
}

// Answers a kind-2 request: the callback's reply as kind 3, or the no-reply
// answer "a" (kind 4) when there is none, it is too long, or it cannot be
// sent. A reply queue found removed is made again for the next request; the
// answer to this one is lost with the queue its requester waited on.
void serve_request(pavo_ipc_server* server, pavo_ipc_msg* message, long request_mtype, pavo_ipc_frame* frame) {
  std::lock_guard<std::mutex> guard(server->lock);
  pavo_ipc_msg* reply = run_callback(server, message);
  const int queue = server->reply_queue_id.load();
  SendOutcome sent{kFailed, false};
  if (reply != nullptr && reply->len <= kMaxMessage) {
    sent = send_message(queue, request_mtype, server->chunk_size, reply, IPC_MSG_SYNC_REPLY, frame);
  }
  release_reply(reply);
  if (sent.code != kOk && !sent.queue_gone) {
    char no_reply_text[] = "a";
    pavo_ipc_msg no_reply{2, no_reply_text};
    sent = send_message(queue, request_mtype, server->chunk_size, &no_reply, IPC_MSG_SYNC_NO_REPLY, frame);
  }
  if (sent.queue_gone) refind_queues(server);
}

// A one-way message: the callback's result is ignored, as the interface
// says (it is not released either: it may be anything, a static record too).
void serve_message(pavo_ipc_server* server, pavo_ipc_msg* message) {
  std::lock_guard<std::mutex> guard(server->lock);
  run_callback(server, message);
}

void mark_ended(pavo_ipc_server* server) {
  {
    std::lock_guard<std::mutex> guard(server->end_lock);
    server->running.store(0);
  }
  server->end_signal.notify_all();
}

// The receive loop owns one frame buffer and one text buffer for its whole
// life (the text buffer only grows, to at most 16385 bytes); neither is
// cleared between messages: only the bytes that a frame carries are read.
void receive_loop(pavo_ipc_server* server) {
  const uint32_t n = server->chunk_size;
  uint32_t capacity = n + 1;
  MallocPtr<char> text(static_cast<char*>(std::malloc(capacity)));
  MallocPtr<pavo_ipc_frame> frame(static_cast<pavo_ipc_frame*>(std::malloc(frame_buffer_size(n))));
  if (!text || !frame) return;

  while (server->running.load()) {
    char* raw = text.release();
    const ReceiveOutcome got =
        receive_message(server->queue_id.load(), server->msg_type, n, frame.get(), &raw, &capacity);
    text.reset(raw);
    if (got.code != kOk) {
      if (queue_gone(got.err)) {
        // Removed from the system: find it again (made anew under its key),
        // checking every 100 ms, never spinning.
        report(Stream::kErr, "ipc: queue key 0x%x was removed; waiting for it again\n",
               static_cast<unsigned>(server->key));
        while (!refind_queues(server)) {
          if (!pause_unless_stopped(server, kRefindPause)) return;
        }
      } else if (got.err != 0 && got.err != E2BIG) {
        if (!pause_unless_stopped(server, kFailurePause)) return;
      }
      continue;
    }
    // The callback sees at most the bytes that arrived, whatever the header claims.
    pavo_ipc_msg message{std::min(frame->total_len, got.length), text.get()};
    switch (frame->kind) {
      case IPC_MSG_STOP:
        if (frame->total_len == 0) return;
        break;
      case IPC_MSG_SYNC_REQUEST:
        if (server->sync) serve_request(server, &message, frame->mtype, frame.get());
        break;
      case IPC_MSG_ASYNC:
        serve_message(server, &message);
        if (std::strncmp(text.get(), "exit", 4) == 0) return;
        break;
      default:
        break;  // replies and internal kinds are not for a server
    }
  }
}

void* ipc_server_thread(void* arg) {
  auto* server = static_cast<pavo_ipc_server*>(arg);
  if (server == nullptr) return nullptr;
  if (server->chunk_size != 0) receive_loop(server);
  mark_ended(server);
  return nullptr;
}

}  // namespace
}  // namespace pavo::ipc

extern "C" {

PAVO_EXPORT int pavo_ipc_server_create(key_t key, int msg_type, int sync, uint32_t chunk_size,
                                       pavo_ipc_server** handle_out) {
  if (handle_out == nullptr) return kBadArgument;
  std::unique_ptr<pavo_ipc_server> server(new (std::nothrow) pavo_ipc_server);
  if (!server) return kNoMemory;
  server->sync = sync;
  server->chunk_size = chunk_size;
  server->msg_type = msg_type;
  server->key = key;
  server->queue_id.store(msgget(key, pavo::ipc::kCreatePermissions));
  if (server->queue_id.load() < 0) return kBadArgument;
  if (sync) {
    server->reply_queue_id.store(msgget(key + 1, pavo::ipc::kCreatePermissions));
    if (server->reply_queue_id.load() < 0) return kBadArgument;
    server->reply_key = key + 1;
  }
  server->running.store(1);
  // Joinable rather than detached: destroy waits for the thread's end (after
  // cancelling it if need be) before it releases the handle.
  if (pthread_create(&server->thread, nullptr, &pavo::ipc::ipc_server_thread, server.get()) != 0) {
    return kNoThread;
  }
  *handle_out = server.release();
  return kOk;
}

PAVO_EXPORT int pavo_ipc_server_destroy(pavo_ipc_server* handle) {
  if (handle == nullptr) return kBadArgument;
  // A stop frame is sent only to a running thread: one left in the queue
  // would stop the next server of the same key at once.
  {
    std::lock_guard<std::mutex> guard(handle->end_lock);
    handle->stop_requested = true;
  }
  handle->end_signal.notify_all();
  if (handle->running.load()) {
    char empty[] = "";
    pavo_ipc_msg stop{0, empty};
    ipc_snd_internal(handle->queue_id.load(), handle->msg_type, handle->chunk_size, &stop,
                     pavo::ipc::IPC_MSG_STOP);
  }
  bool ended;
  {
    std::unique_lock<std::mutex> lock(handle->end_lock);
    ended = handle->end_signal.wait_for(lock, pavo::ipc::kStopWait,
                                        [handle] { return handle->running.load() == 0; });
  }
  if (!ended) pthread_cancel(handle->thread);
  pthread_join(handle->thread, nullptr);
  delete handle;
  return kOk;
}

PAVO_EXPORT int pavo_ipc_server_register_callback(pavo_ipc_server* handle,
                                                  pavo_ipc_server_callback callback, void* user_data) {
  if (handle == nullptr) return kBadArgument;
  if (handle->callback.load() == callback && handle->user_data.load() == user_data) return kOk;
  std::lock_guard<std::mutex> guard(handle->lock);
  handle->callback.store(callback);
  handle->user_data.store(user_data);
  return kOk;
}

PAVO_EXPORT int pavo_ipc_server_unregister_callback(pavo_ipc_server* handle) {
  if (handle == nullptr) return kBadArgument;
  std::lock_guard<std::mutex> guard(handle->lock);
  handle->callback.store(nullptr);
  handle->user_data.store(nullptr);
  return kOk;
}

}  // extern "C"
