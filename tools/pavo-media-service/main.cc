// pavo-media-service: the media-player service process, for development and
// tests. See options.cc for the command line and catalogue.cc for the media.
#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <new>
#include <string>

#include "pavo-media-service/console.h"
#include "pavo-media-service/endpoints.h"
#include "pavo-media-service/faults.h"
#include "pavo-media-service/gst_engine.h"
#include "pavo-media-service/options.h"
#include "pavo-media-service/service.h"

namespace {

using pavo::service::Faults;
using pavo::service::Service;

// What the request callback works with.
struct Served {
  Service* service;
  Faults* faults;
};

pavo_ipc_msg* on_request(pavo_ipc_msg* message, void* user) {
  auto* served = static_cast<Served*>(user);
  const char* data = message == nullptr ? nullptr : message->data;
  const std::size_t len = message == nullptr ? 0 : message->len;
  // The transport's stop word is never a request: it gets no answer. Sent
  // one-way (which ends the receive thread, see endpoints.h), an answer would
  // be neither sent nor released by the transport; other one-way messages on
  // this queue still cost their answer's memory, as a callback cannot tell
  // them from requests.
  if (len >= 4 && std::strncmp(data, "exit", 4) == 0) return nullptr;
  const std::string reply = served->service->handle_request(data, len);
  if (!served->faults->before_reply(data, len)) return nullptr;
  // Record with new and text with malloc, as the transport releases them.
  char* text = static_cast<char*>(std::malloc(reply.size() + 1));
  if (text == nullptr) return nullptr;
  reply.copy(text, reply.size());
  text[reply.size()] = '\0';
  return new (std::nothrow) pavo_ipc_msg{static_cast<uint32_t>(reply.size()), text};
}

pavo_ipc_msg* on_notice(pavo_ipc_msg* message, void* user) {
  auto* service = static_cast<Served*>(user)->service;
  if (message == nullptr) {
    service->handle_notice(nullptr, 0);
  } else {
    service->handle_notice(message->data, message->len);
  }
  return nullptr;
}

}  // namespace

int main(int argc, char** argv) {
  pavo::service::Options options;
  std::string error;
  if (!pavo::service::parse_options(argc, argv, &options, &error)) {
    std::fprintf(stderr, "pavo-media-service: %s\n%s", error.c_str(), pavo::service::usage());
    return 2;
  }
  if (options.help) {
    std::fputs(pavo::service::usage(), stdout);
    return 0;
  }
  pavo::service::set_verbose(options.verbose);
  pavo::service::EngineFactory engine;  // null: the model
  if (options.engine == "gstreamer" && !pavo::service::gstreamer_engine(options.sinks, &engine, &error)) {
    pavo::service::complain("%s", error.c_str());
    return 2;
  }

  // Every thread inherits the blocked stop signals; main waits for them.
  sigset_t stop_signals;
  sigemptyset(&stop_signals);
  sigaddset(&stop_signals, SIGINT);
  sigaddset(&stop_signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);

  pavo::service::Endpoints endpoints;
  if (!endpoints.open(&error)) {
    pavo::service::complain("%s", error.c_str());
    return 1;
  }
  Faults faults(options.faults);
  endpoints.set_event_filter([&faults] { return faults.keep_event(); });
  Service service(options.time_scale, &endpoints, engine);
  service.start();
  Served served{&service, &faults};
  if (!endpoints.serve(on_request, on_notice, &served)) {
    pavo::service::complain("cannot serve its queues");
    return 1;
  }
  pavo::service::say("pavo-media-service: ready");

  int signal_number = 0;
  while (sigwait(&stop_signals, &signal_number) != 0) {
  }
  faults.release();           // a request held without an answer lets go
  endpoints.stop_serving();   // no request or notice runs after this
  service.stop();             // nor the clock, and the last events are out
  endpoints.close();
  pavo::service::say("pavo-media-service: stopped");
  return 0;
}
