#include "pavo-media-service/endpoints.h"

#include <sys/msg.h>

#include <cerrno>
#include <cstdlib>
#include <vector>

#include "pavo-media-service/console.h"
#include "pavo-media-service/protocol.h"

namespace pavo::service {
namespace {

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
  if (pavo_ipc_server_create(kRequestKey, kMessageType, 1, kChunkSize, &requests_) != 0) {
    *reason = "cannot create the request queues";
  } else if (pavo_ipc_server_create(kNoticeKey, kMessageType, 0, kChunkSize, &notices_) != 0) {
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
  return pavo_ipc_server_register_callback(requests_, on_request, user) == 0 &&
         pavo_ipc_server_register_callback(notices_, on_notice, user) == 0;
}

void Endpoints::stop_serving() {
  for (pavo_ipc_server** server : {&requests_, &notices_}) {
    if (*server == nullptr) continue;
    pavo_ipc_server_unregister_callback(*server);
    pavo_ipc_server_destroy(*server);
    *server = nullptr;
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
