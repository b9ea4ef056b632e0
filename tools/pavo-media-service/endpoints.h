// The service's four queue endpoints, over the project's transport:
// the request server (requests on 0x95000100, replies on 0x95000101), the
// notice server (0x95000080), the event client (0x95000070) and the client
// for the service's own requests to the library (0x95000090).
#ifndef PAVO_MEDIA_SERVICE_ENDPOINTS_H
#define PAVO_MEDIA_SERVICE_ENDPOINTS_H

#include <functional>
#include <string>
#include <utility>

#include "pavo_ipc.h"

namespace pavo::service {

// Thread-safe after open(): the transport serialises each client.
class Endpoints {
 public:
  Endpoints() = default;
  ~Endpoints() { close(); }
  Endpoints(const Endpoints&) = delete;
  Endpoints& operator=(const Endpoints&) = delete;

  // Removes the frames that an earlier run left in the queues the service
  // reads or answers on, then creates the endpoints. Returns false with a
  // reason when one cannot be made (what was made is closed again).
  bool open(std::string* reason);
  // Routes requests and notices to the callbacks (run on the servers'
  // receive threads). Returns false when the transport refuses.
  bool serve(pavo_ipc_server_callback on_request, pavo_ipc_server_callback on_notice, void* user);
  // Stops both receive threads (waiting for a callback that runs): no
  // request or notice runs after it. The clients stay. Idempotent.
  void stop_serving();
  // Stops serving and releases everything. The queues stay. Idempotent.
  // REQUIRES: no thread sends an event or asks the library any more.
  void close();

  // Consulted before each event is sent; false drops it (fault injection).
  // REQUIRES: called before serving.
  void set_event_filter(std::function<bool()> keep) { keep_event_ = std::move(keep); }

  // Sends one event text; the transport's result (0 on success; 0 too for
  // an event the filter dropped).
  int send_event(const std::string& text);
  // Sends a request to the library and waits for its answer (at most the
  // transport's reply time-out). 0 with *answer set; the transport's code
  // otherwise.
  int ask_library(const std::string& text, std::string* answer);

 private:
  pavo_ipc_server* requests_ = nullptr;
  pavo_ipc_server* notices_ = nullptr;
  pavo_ipc_client* events_ = nullptr;
  pavo_ipc_client* library_ = nullptr;
  std::function<bool()> keep_event_;
};

}  // namespace pavo::service

#endif  // PAVO_MEDIA_SERVICE_ENDPOINTS_H
