#include "pavo-media-service/endpoints.h"

#include <sys/msg.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <vector>

#include "pavo-media-service/console.h"
#include "pavo-media-service/protocol.h"

namespace pavo::service {
namespace {

// Pause before the watch thread tries again to make a server that the
// transport refused.
constexpr auto kRetryPause = std::chrono::milliseconds(100);

// Calls `on_end(argument)` when the thread that armed it ends (a
// thread_local's destructor runs at the end of its thread, whether the
// thread returned or was cancelled). Armed by the first callback that a
// receive thread runs: the transport's threads are not ours to wrap.
struct ThreadEndNotice {
  void (*on_end)(void*) = nullptr;
  void* argument = nullptr;
  ThreadEndNotice() = default;
  ThreadEndNotice(const ThreadEndNotice&) = delete;
  ThreadEndNotice& operator=(const ThreadEndNotice&) = delete;
  ~ThreadEndNotice() {
    if (on_end != nullptr) on_end(argument);
  }
};
thread_local ThreadEndNotice t_end_notice;

// Takes every waiting message off the queue of `key`, if the queue exists.
// Returns how many there were.
long drain(key_t key) {
  const int id = msgget(key, 0);
  if (id < 0) return 0;
  std::vector<char> buffer(sizeof(long) + PAVO_IPC_FRAME_BUFFER_SIZE(kChunkSize));
  long drained = 0;
  for (;;) {
    const ssize_t n = msgrcv(id, buffer.data(), buffer.size() - sizeof(long), 0, IPC_NOWAIT | MSG_NOERROR);
    if (n >= 0) {
      ++drained;
      continue;
    }
    if (errno == EINTR) continue;
    return drained;  // ENOMSG: empty; anything else: nothing more to take
  }
}

}  // namespace

bool Endpoints::open(std::string* reason) {
  for (key_t key : {kRequestKey, kReplyKey, kNoticeKey}) {
    const long stale = drain(key);
    if (stale > 0) complain("removed %ld stale frame(s) from queue 0x%x", stale, static_cast<unsigned>(key));
  }
  requests_.key = kRequestKey;
  notices_.key = kNoticeKey;
  if (pavo_ipc_server_create(kRequestKey, kMessageType, 1, kChunkSize, &requests_.handle) != 0) {
    *reason = "cannot create the request queues";
  } else if (pavo_ipc_server_create(kNoticeKey, kMessageType, 0, kChunkSize, &notices_.handle) != 0) {
    *reason = "cannot create the notice queue";
  } else if (pavo_ipc_client_create(kEventKey, kMessageType, 0, kChunkSize, &events_) != 0 ||
             pavo_ipc_client_create(kDisplayRequestKey, kMessageType, 1, kChunkSize, &library_) != 0) {
    *reason = "out of memory";
  } else {
    return true;
  }
  close();
  return false;
}

bool Endpoints::serve(pavo_ipc_server_callback on_request, pavo_ipc_server_callback on_notice,
                      void* user) {
  requests_.callback = on_request;
  notices_.callback = on_notice;
  for (Served* served : {&requests_, &notices_}) {
    served->user = user;
    if (pavo_ipc_server_register_callback(served->handle, &Endpoints::relay, served) != 0) return false;
  }
  watch_thread_ = std::thread(&Endpoints::watch, this);
  return true;
}

pavo_ipc_msg* Endpoints::relay(pavo_ipc_msg* message, void* served) {
  auto* s = static_cast<Served*>(served);
  if (t_end_notice.argument != s) {
    t_end_notice.on_end = &Endpoints::receive_thread_ended;
    t_end_notice.argument = s;
  }
  return s->callback(message, s->user);
}

void Endpoints::receive_thread_ended(void* served) {
  auto* s = static_cast<Served*>(served);
  Endpoints* self = s->owner;
  {
    std::lock_guard<std::mutex> lock(self->watch_mu_);
    s->ended = true;
  }
  self->watch_wake_.notify_all();
}

bool Endpoints::start_server(Served* served) {
  pavo_ipc_server* server = nullptr;
  if (pavo_ipc_server_create(served->key, kMessageType, served->sync, kChunkSize, &server) != 0) return false;
  pavo_ipc_server_register_callback(server, &Endpoints::relay, served);
  served->handle = server;
  return true;
}

void Endpoints::watch() {
  std::unique_lock<std::mutex> lock(watch_mu_);
  for (;;) {
    watch_wake_.wait(lock, [this] { return watch_stopping_ || requests_.ended || notices_.ended; });
    if (watch_stopping_) return;
    Served* served = requests_.ended ? &requests_ : &notices_;
    served->ended = false;  // before the new thread runs, so that its own end is not missed
    lock.unlock();
    complain("the %s server (queue 0x%x) stopped without being asked (a one-way message beginning "
             "with \"exit\"?); serving it again",
             served->name, static_cast<unsigned>(served->key));
    pavo_ipc_server_destroy(served->handle);  // its thread has ended: returns at once
    served->handle = nullptr;
    lock.lock();
    // A new thread that ends at once waits for the lock to say so: no deadlock.
    while (!start_server(served)) {
      if (watch_wake_.wait_for(lock, kRetryPause, [this] { return watch_stopping_; })) return;
    }
  }
}

void Endpoints::stop_serving() {
  {
    std::lock_guard<std::mutex> lock(watch_mu_);
    watch_stopping_ = true;
  }
  watch_wake_.notify_all();
  if (watch_thread_.joinable()) watch_thread_.join();
  for (Served* served : {&requests_, &notices_}) {
    if (served->handle == nullptr) continue;
    pavo_ipc_server_unregister_callback(served->handle);
    pavo_ipc_server_destroy(served->handle);
    served->handle = nullptr;
  }
}

void Endpoints::close() {
  stop_serving();
  for (pavo_ipc_client** client : {&events_, &library_}) {
    if (*client == nullptr) continue;
    pavo_ipc_client_destroy(*client);
    *client = nullptr;
  }
}

int Endpoints::send_event(const std::string& text) {
  if (keep_event_ && !keep_event_()) return 0;
  pavo_ipc_msg message{static_cast<uint32_t>(text.size()), const_cast<char*>(text.data())};
  return pavo_ipc_client_send(events_, &message);
}

int Endpoints::ask_library(const std::string& text, std::string* answer) {
  pavo_ipc_msg request{static_cast<uint32_t>(text.size()), const_cast<char*>(text.data())};
  pavo_ipc_msg reply{0, nullptr};
  const int rc = pavo_ipc_client_send_sync_with_params(library_, &request, &reply);
  if (rc == 0 && reply.data != nullptr) answer->assign(reply.data);
  std::free(reply.data);
  return rc;
}

}  // namespace pavo::service
