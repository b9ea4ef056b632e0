// Server end: owns the queues, runs the receive thread, dispatches messages
// to the registered callback and answers synchronous requests.
#include <pthread.h>
#include <sys/msg.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>

#include "base/callback_guard.h"
#include "base/deleters.h"
#include "base/result_codes.h"
#include "ipc/framing.h"
#include "ipc/sys_errors.h"
#include "pavo_ipc.h"

using pavo::kBadArgument;
using pavo::kNoMemory;
using pavo::kNoThread;
using pavo::kOk;
using pavo::ipc::kMaxMessage;

// Thread-safety: `lock` is held by the receive thread while the callback runs
// and its reply is sent, and by (un)registration, so a callback is never
// changed while it runs. `running` is written by the receive thread and read
// by pavo_ipc_server_destroy.
struct pavo_ipc_server {
  key_t key = 0;
  int msg_type = 0;
  std::atomic<int> running{0};
  int queue_id = -1;
  pthread_t thread{};
  std::mutex lock;
  // Read without `lock` only to recognise a registration that changes
  // nothing; written under `lock`.
  std::atomic<pavo_ipc_server_callback> callback{nullptr};
  std::atomic<void*> user_data{nullptr};
  key_t reply_key = 0;
  int reply_queue_id = -1;
  uint32_t chunk_size = 0;
  int sync = 0;

  // The receive thread's end, signalled to pavo_ipc_server_destroy.
  std::mutex end_lock;
  std::condition_variable end_signal;
};

namespace pavo::ipc {
namespace {

constexpr int kCreatePermissions = IPC_CREAT | 0666;
// pavo_ipc_server_destroy waits this long for the thread to see the stop frame.
constexpr auto kStopWait = std::chrono::seconds(1);
// Pause after a receive failure of unknown cause, so it cannot spin a core.
constexpr useconds_t kFailurePause = 10000;

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

// Answers a kind-2 request: the callback's reply as kind 3, or the no-reply
// answer "a" (kind 4) when there is none, it is too long, or it cannot be sent.
void serve_request(pavo_ipc_server* server, pavo_ipc_msg* message, long request_mtype) {
  std::lock_guard<std::mutex> guard(server->lock);
  pavo_ipc_msg* reply = run_callback(server, message);
  bool answered = false;
  if (reply != nullptr && reply->len <= kMaxMessage) {
    const SendOutcome sent = send_message(server->reply_queue_id, request_mtype, server->chunk_size,
                                          reply, IPC_MSG_SYNC_REPLY);
    answered = sent.code == kOk && !sent.queue_gone;
  }
  release_reply(reply);
  if (!answered) {
    char no_reply_text[] = "a";
    pavo_ipc_msg no_reply{2, no_reply_text};
    send_message(server->reply_queue_id, request_mtype, server->chunk_size, &no_reply,
                 IPC_MSG_SYNC_NO_REPLY);
  }
}

void serve_message(pavo_ipc_server* server, pavo_ipc_msg* message) {
  std::lock_guard<std::mutex> guard(server->lock);
  release_reply(run_callback(server, message));  // one-way: a reply goes nowhere
}

void mark_ended(pavo_ipc_server* server) {
  {
    std::lock_guard<std::mutex> guard(server->end_lock);
    server->running.store(0);
  }
  server->end_signal.notify_all();
}

void receive_loop(pavo_ipc_server* server) {
  const uint32_t n = server->chunk_size;
  uint32_t capacity = n + 1;
  MallocPtr<char> text(static_cast<char*>(std::malloc(capacity)));
  MallocPtr<pavo_ipc_frame> frame(
      static_cast<pavo_ipc_frame*>(std::malloc(frame_buffer_size(n))));
  if (!text || !frame) return;

  while (server->running.load()) {
    std::memset(text.get(), 0, capacity);
    std::memset(frame.get(), 0, frame_buffer_size(n));
    char* raw = text.release();
    const ReceiveOutcome got =
        receive_message(server->queue_id, server->msg_type, n, frame.get(), &raw, &capacity);
    text.reset(raw);
    if (got.code != kOk) {
      if (queue_gone(got.err)) {
        std::fprintf(stderr, "ipc: queue key 0x%x was removed; its receive thread ends\n",
                     static_cast<unsigned>(server->key));
        return;
      }
      if (got.err != 0 && got.err != E2BIG) usleep(kFailurePause);
      continue;
    }
    // The callback sees at most the bytes that arrived, whatever the header claims.
    pavo_ipc_msg message{std::min(frame->total_len, got.length), text.get()};
    switch (frame->kind) {
      case IPC_MSG_STOP:
        if (frame->total_len == 0) return;
        break;
      case IPC_MSG_SYNC_REQUEST:
        if (server->sync && frame->is_last) serve_request(server, &message, frame->mtype);
        break;
      case IPC_MSG_ASYNC:
        if (!frame->is_last) break;
        serve_message(server, &message);
        if (std::strncmp(text.get(), "exit", 4) == 0) return;
        break;
      default:
        break;  // replies and unknown kinds are not for a server
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
  server->queue_id = msgget(key, pavo::ipc::kCreatePermissions);
  if (server->queue_id < 0) return kBadArgument;
  if (sync) {
    server->reply_queue_id = msgget(key + 1, pavo::ipc::kCreatePermissions);
    if (server->reply_queue_id < 0) return kBadArgument;
    server->reply_key = key + 1;
  }
  server->key = key;
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
  if (handle->running.load()) {
    char empty[] = "";
    pavo_ipc_msg stop{0, empty};
    pavo::ipc::send_message(handle->queue_id, handle->msg_type, handle->chunk_size, &stop,
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
