// The library against pavo-media-service from end to end, beside the raw
// transport figures measured in the same run and the same pinned placements:
//
// - command round trip: Pavo_MediaPlayer_IPC_GetCurrentTime answered by the
//   service (the plug-in's call to the service's reply), beside the bare
//   transport exchange with a minimal transport server, and a raw
//   msgsnd/msgrcv ping-pong of one small message;
// - request and event: Pavo_MediaPlayer_IPC_SetPlayRate, whose speed-change
//   event the service sends, until the library's player callback has run;
//   beside the same shape made with the bare transport (a request whose
//   server also sends one one-way message to a server in this process).
//   The difference of the two service figures is the event's latency from
//   the service to the callback.
//
// The service runs pinned to the responder's CPU; this process and the
// library's threads to the caller's. The protocol's queue keys are fixed, so
// the program moves into an IPC namespace of its own when it may.
#include <signal.h>
#include <sys/msg.h>

#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

#include "pavo_ipc.h"
#include "pavo_mediaplayer_ipc.h"
#include "service_process.h"
#include "support/bench_support.h"

namespace {

using pavo::bench::remove_queue;
using pavo::bench::Responder;
using pavo::bench::ScopedPin;

constexpr uint32_t kN = 1024;
constexpr key_t kRawKey = 0x6c000020;        // raw ping-pong: requests, answers on + 1
constexpr key_t kTransportKey = 0x6c000030;  // transport exchange: requests, replies on + 1
constexpr key_t kSideEventKey = 0x6c000040;  // transport request and event: the event
const unsigned kProtocolKeys[] = {0x95000100, 0x95000101, 0x95000080, 0x95000070, 0x95000090, 0x95000091};

void remove_protocol_queues() {
  for (unsigned key : kProtocolKeys) remove_queue(static_cast<key_t>(key));
}

// Wakes the measuring thread when a callback has run.
struct Signal {
  std::mutex mu;
  std::condition_variable cv;
  unsigned count = 0;
  void post() {
    {
      std::lock_guard<std::mutex> lock(mu);
      ++count;
    }
    cv.notify_one();
  }
  bool wait_for_count(unsigned n) {
    std::unique_lock<std::mutex> lock(mu);
    return cv.wait_for(lock, std::chrono::seconds(5), [&] { return count >= n; });
  }
};
Signal g_signal;

// ---- Raw and transport baselines -------------------------------------------

struct RawMessage {
  long mtype;
  char text[64];
};

void raw_echo(const std::function<void()>& ready) {
  const int in = msgget(kRawKey, IPC_CREAT | 0666);
  const int out = msgget(kRawKey + 1, IPC_CREAT | 0666);
  RawMessage m{};
  ready();
  while (msgrcv(in, &m, sizeof m.text, 0, 0) >= 0) {
    if (msgsnd(out, &m, sizeof m.text, 0) != 0) break;
  }
}

const std::string kTimeReply = "{\"current_time\":12.5,\"ret\":0}";
const std::string kSpeedEvent =
    "{\"data1\":1000,\"data2\":0.0,\"event\":6,\"event_type\":0,\"player_id\":1,\"sub_event\":0}";
pavo_ipc_client* g_side_client = nullptr;

pavo_ipc_msg* prepared_reply(pavo_ipc_msg*, void* with_event) {
  if (with_event != nullptr) {
    pavo_ipc_msg event{static_cast<uint32_t>(kSpeedEvent.size()), const_cast<char*>(kSpeedEvent.data())};
    pavo_ipc_client_send(g_side_client, &event);
  }
  return new pavo_ipc_msg{static_cast<uint32_t>(kTimeReply.size()), strdup(kTimeReply.c_str())};
}

void transport_server(bool with_event, const std::function<void()>& ready) {
  pavo_ipc_server* server = nullptr;
  if (pavo_ipc_server_create(kTransportKey, 1, 1, kN, &server) != 0) return;
  pavo_ipc_client_create(kSideEventKey, 1, 0, kN, &g_side_client);
  pavo_ipc_server_register_callback(server, prepared_reply, with_event ? &g_side_client : nullptr);
  ready();
  for (;;) pause();
}

pavo_ipc_msg* count_event(pavo_ipc_msg*, void*) {
  g_signal.post();
  return nullptr;
}

enum class Shape { kRaw, kTransport, kTransportWithEvent };

void run_baseline(benchmark::State& state, Shape shape) {
  const int placement = static_cast<int>(state.range(0));
  for (key_t key : {kRawKey, kTransportKey, kSideEventKey}) {
    remove_queue(key);
    remove_queue(key + 1);
  }
  {
    ScopedPin pin(pavo::bench::caller_cpu(placement));
    pavo_ipc_server* events = nullptr;
    if (shape == Shape::kTransportWithEvent) {
      pavo_ipc_server_create(kSideEventKey, 1, 0, kN, &events);
      pavo_ipc_server_register_callback(events, count_event, nullptr);
    }
    Responder responder(pavo::bench::responder_cpu(placement), [shape](const std::function<void()>& ready) {
      if (shape == Shape::kRaw) {
        raw_echo(ready);
      } else {
        transport_server(shape == Shape::kTransportWithEvent, ready);
      }
    });
    pavo_ipc_client* client = nullptr;
    pavo_ipc_client_create(kTransportKey, 1, 1, kN, &client);
    const int raw_in = msgget(kRawKey, 0), raw_out = msgget(kRawKey + 1, 0);
    std::string text = "{\"event_type\":10,\"player_id\":1}";
    RawMessage m{1, {}};
    std::memcpy(m.text, text.data(), text.size());
    unsigned seen = g_signal.count;
    for (auto _ : state) {
      bool ok = false;
      if (shape == Shape::kRaw) {
        ok = msgsnd(raw_in, &m, sizeof m.text, 0) == 0 && msgrcv(raw_out, &m, sizeof m.text, 0, 0) >= 0;
      } else {
        pavo_ipc_msg request{static_cast<uint32_t>(text.size()), text.data()};
        pavo_ipc_msg reply{0, nullptr};
        ok = pavo_ipc_client_send_sync_with_params(client, &request, &reply) == 0 && reply.len > 0;
        std::free(reply.data);
        if (ok && shape == Shape::kTransportWithEvent) ok = g_signal.wait_for_count(++seen);
      }
      if (!ok) {
        state.SkipWithError("exchange failed");
        break;
      }
    }
    pavo_ipc_client_destroy(client);
    if (events != nullptr) pavo_ipc_server_destroy(events);
  }
  for (key_t key : {kRawKey, kTransportKey, kSideEventKey}) {
    remove_queue(key);
    remove_queue(key + 1);
  }
  state.SetLabel(pavo::bench::placement_name(placement));
}

void BM_RawPingPong(benchmark::State& state) { run_baseline(state, Shape::kRaw); }
void BM_TransportExchange(benchmark::State& state) { run_baseline(state, Shape::kTransport); }
void BM_TransportRequestAndEvent(benchmark::State& state) { run_baseline(state, Shape::kTransportWithEvent); }

// ---- Against pavo-media-service ----------------------------------------------

void on_player_event(PavoMediaPluginEvent event, PavoMediaError, const void*, int, double) {
  if (event == 6) g_signal.post();  // speed change
}

void run_service(benchmark::State& state, bool with_event) {
  const int placement = static_cast<int>(state.range(0));
  remove_protocol_queues();
  {
    ScopedPin pin(pavo::bench::caller_cpu(placement));
    pavo::e2e::ServiceProcess service;
    if (!service.start(1.0, std::chrono::seconds(10), {}, pavo::bench::responder_cpu(placement))) {
      state.SkipWithError("pavo-media-service did not start");
      return;
    }
    unsigned player = 0;
    if (Pavo_MediaPlayer_IPC_Initialize(1) != 0 || Pavo_MediaPlayer_IPC_Create(&player) != 0 ||
        Pavo_MediaPlayer_IPC_RegisterCallback(player, on_player_event, &g_signal) != 0 ||
        Pavo_MediaPlayer_IPC_Load(player, "http://media.test/live.ts") != 0) {
      state.SkipWithError("the library could not reach the service");
    } else {
      unsigned seen = 0;
      {
        std::lock_guard<std::mutex> lock(g_signal.mu);
        seen = g_signal.count;
      }
      for (auto _ : state) {
        bool ok;
        if (with_event) {
          ok = Pavo_MediaPlayer_IPC_SetPlayRate(player, 1000.0) == 0 && g_signal.wait_for_count(++seen);
        } else {
          double time = -1;
          ok = Pavo_MediaPlayer_IPC_GetCurrentTime(player, &time) == 0 && time >= 0;
        }
        if (!ok) {
          state.SkipWithError("command failed");
          break;
        }
      }
      Pavo_MediaPlayer_IPC_UnregisterCallback(player);
      Pavo_MediaPlayer_IPC_Destory(player);
    }
    Pavo_MediaPlayer_IPC_Finalize();
    service.stop();
  }
  remove_protocol_queues();
  state.SetLabel(pavo::bench::placement_name(placement));
}

void BM_ServiceCommand(benchmark::State& state) { run_service(state, false); }
void BM_ServiceRequestAndEvent(benchmark::State& state) { run_service(state, true); }

BENCHMARK(BM_RawPingPong)->Apply(pavo::bench::per_placement);
BENCHMARK(BM_TransportExchange)->Apply(pavo::bench::per_placement);
BENCHMARK(BM_TransportRequestAndEvent)->Apply(pavo::bench::per_placement);
BENCHMARK(BM_ServiceCommand)->Apply(pavo::bench::per_placement);
BENCHMARK(BM_ServiceRequestAndEvent)->Apply(pavo::bench::per_placement);

}  // namespace

int main(int argc, char** argv) {
  signal(SIGPIPE, SIG_IGN);
  pavo::bench::use_private_ipc_namespace();
  return pavo::bench::run_with_ratios(argc, argv, [](pavo::bench::RatioReporter& r) {
    r.ratio_per_placement("service command / transport exchange", "BM_ServiceCommand", "BM_TransportExchange");
    r.ratio_per_placement("service command / raw ping-pong", "BM_ServiceCommand", "BM_RawPingPong");
    r.ratio_per_placement("service request+event / transport request+event", "BM_ServiceRequestAndEvent",
                          "BM_TransportRequestAndEvent");
    r.ratio_per_placement("service request+event / service command", "BM_ServiceRequestAndEvent",
                          "BM_ServiceCommand");
  });
}
