// The service's four queue endpoints, over the project's transport:
// the request server (requests on 0x95000100, replies on 0x95000101), the
// notice server (0x95000080), the event client (0x95000070) and the client
// for the service's own requests to the library (0x95000090).
//
// The servers are kept serving. The transport ends a receive thread after a
// one-way message that begins with "exit", and every local process may send
// one; a service that went on without its request server would look alive
// and answer nothing. So each receive thread that ends without being asked
// is reported once on standard error, and a watch thread makes its server
// again at once (every 100 ms while the transport refuses). Messages that
// arrive meanwhile wait in the queue. The transport starts a receive thread
// before its callback can be registered: a message that the new thread takes
// in that window is handled as by a server without a callback (a request is
// answered "no reply", and the library's call fails once).
#ifndef PAVO_MEDIA_SERVICE_ENDPOINTS_H
#define PAVO_MEDIA_SERVICE_ENDPOINTS_H

#include <sys/types.h>

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
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
  // receive threads, or on the threads of servers made again) and starts
  // the watch thread. Returns false when the transport refuses.
  // REQUIRES: open() succeeded; called once.
  bool serve(pavo_ipc_server_callback on_request, pavo_ipc_server_callback on_notice, void* user);
  // Stops the watch thread, then both receive threads (waiting for a
  // callback that runs): no request or notice runs after it. The clients
  // stay. Idempotent.
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
  // One server and what it serves. `handle` is written by open(), the watch
  // thread and stop_serving(), never by two of them at once (stop_serving
  // joins the watch thread first); the callback fields are set before the
  // watch thread starts.
  struct Served {
    Endpoints* owner;
    const char* name;
    key_t key;
    int sync;
    pavo_ipc_server* handle = nullptr;
    pavo_ipc_server_callback callback = nullptr;
    void* user = nullptr;
    bool ended = false;  // guarded by watch_mu_: its receive thread ended
  };

  // The callback registered with the transport: notes which thread serves,
  // then calls the service's own callback.
  static pavo_ipc_msg* relay(pavo_ipc_msg* message, void* served);
  // Runs on a receive thread as it ends, whatever ended it.
  static void receive_thread_ended(void* served);
  bool start_server(Served* served);  // creates and registers; false when refused
  void watch();

  Served requests_{this, "request", 0, 1};
  Served notices_{this, "notice", 0, 0};
  std::mutex watch_mu_;
  std::condition_variable watch_wake_;
  bool watch_stopping_ = false;  // guarded by watch_mu_
  std::thread watch_thread_;

  pavo_ipc_client* events_ = nullptr;
  pavo_ipc_client* library_ = nullptr;
  std::function<bool()> keep_event_;
};

}  // namespace pavo::service

#endif  // PAVO_MEDIA_SERVICE_ENDPOINTS_H
