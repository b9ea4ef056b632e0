// The media-player service: answers the requests that arrive on the request
// server, reads the notices, and runs the clock that moves the players on
// (load phases, seeks, end of stream), sending every event in the order it
// happened.
//
// Threads: the request server's and the notice server's receive threads call
// in; a clock thread and an event sender thread of its own. One mutex guards
// all state; events are put in order on the outgoing list under it, and the
// sender thread sends them without it: a full event queue (a library whose
// event thread is busy) delays the events, never a reply or the clock, as a
// service whose events leave on their own thread would. The service's own
// request to the library (display source) is made without the lock.
#ifndef PAVO_MEDIA_SERVICE_SERVICE_H
#define PAVO_MEDIA_SERVICE_SERVICE_H

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <string>
#include <thread>

#include "pavo-media-service/dispatch.h"
#include "pavo-media-service/endpoints.h"

namespace pavo::service {

class Service {
 public:
  // REQUIRES: time_scale > 0; `endpoints` open and outliving the service.
  // `engine` makes the players; null: the model engine at `time_scale`.
  Service(double time_scale, Endpoints* endpoints, EngineFactory engine = nullptr);
  ~Service() { stop(); }
  Service(const Service&) = delete;
  Service& operator=(const Service&) = delete;

  // Starts the clock and sender threads. Idempotent.
  void start();
  // Stops and joins the clock and sender threads. Events that still wait to
  // be sent are given up (with a complaint saying how many): with a library
  // that reads no events each would cost the transport's resend policy
  // (about a quarter of a second). Returns within that time plus a clock
  // step. Idempotent.
  void stop();

  // Answers one request: the reply text (always a JSON object with "ret").
  // Never throws; a malformed request gets a complaint and "ret" -1.
  std::string handle_request(const char* text, std::size_t len);
  // Reads one notice; malformed ones get a complaint.
  void handle_notice(const char* text, std::size_t len);

 private:
  void run_clock();
  void send(Outbox* out);  // REQUIRES: mu_ held; puts the events out, in order
  void run_sender();
  int ask_library_for_source(int source);

  Endpoints* endpoints_;
  std::mutex mu_;
  std::condition_variable wake_;
  ServiceState state_;  // guarded by mu_
  bool stopping_ = false;  // guarded by mu_
  std::thread clock_;

  std::mutex out_mu_;
  std::condition_variable out_ready_;
  std::deque<std::string> outgoing_;  // guarded by out_mu_
  bool sender_stopping_ = false;      // guarded by out_mu_
  std::thread sender_;
};

}  // namespace pavo::service

#endif  // PAVO_MEDIA_SERVICE_SERVICE_H
