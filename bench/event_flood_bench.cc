// Event floods against the library's event thread, with pavo-media-service
// answering the requests that the events trigger:
//
// - drained speed events: bursts of speed changes for a playing object, each
//   posted to a plug-in callback of typical cost (a lock, a record, a
//   wake-up); events per second until the last post;
// - drained track events: bursts of track changes, each of which makes the
//   event thread query the service for the components before it posts;
// - events lost while the plug-in's callback stalls: a burst of 64 speed
//   events while the first post takes 300 or 1000 ms; the sender (this
//   process's transport, with the service's resend policy: 2 ms, then five
//   resends 50 ms apart) abandons what finds the queue full too long.
//
// The events are sent on the event queue with the transport, as the service
// sends them; the protocol's queue keys are fixed, so the program moves into
// an IPC namespace of its own when it may.
#include <signal.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

#include "pavo_avctrl.h"
#include "pavo_ipc.h"
#include "service_process.h"
#include "support/bench_support.h"

namespace {

using pavo::bench::remove_queue;
using Clock = std::chrono::steady_clock;

constexpr key_t kEventKey = static_cast<key_t>(0x95000070);
const unsigned kProtocolKeys[] = {0x95000100, 0x95000101, 0x95000080, 0x95000070, 0x95000090, 0x95000091};
constexpr unsigned kFirstPlayer = 1;  // the service numbers its players from 1

void remove_protocol_queues() {
  for (unsigned key : kProtocolKeys) remove_queue(static_cast<key_t>(key));
}

// The plug-in's callback: counts posts by event under a lock and wakes the
// measuring thread; the first post after stall_ms is set sleeps that long.
struct Sink {
  std::mutex mu;
  std::condition_variable cv;
  long posts[PAVO_AVCTRL_EVENT_MEDIAERROR + 1] = {};
  std::atomic<int> stall_ms{0};

  static void on_post(PavoAVCtrlEvent event, const PavoAVCtrlEventInfo*, const void* user) {
    auto* sink = static_cast<Sink*>(const_cast<void*>(user));
    if (const int stall = sink->stall_ms.exchange(0)) std::this_thread::sleep_for(std::chrono::milliseconds(stall));
    {
      std::lock_guard<std::mutex> lock(sink->mu);
      if (event >= 0 && event <= PAVO_AVCTRL_EVENT_MEDIAERROR) ++sink->posts[event];
    }
    sink->cv.notify_all();
  }
  long count(int event) {
    std::lock_guard<std::mutex> lock(mu);
    return posts[event];
  }
  // Waits until `target` posts of `event`, or until none has come for `quiet`.
  long wait_for(int event, long target, std::chrono::milliseconds quiet) {
    std::unique_lock<std::mutex> lock(mu);
    long last = posts[event];
    while (posts[event] < target) {
      if (!cv.wait_for(lock, quiet, [&] { return posts[event] != last; })) break;
      last = posts[event];
    }
    return posts[event];
  }
};

// pavo-media-service, one playing A/V control object and the event sender.
class Setup {
 public:
  bool start() {
    remove_protocol_queues();
    if (!service_.start(1.0, std::chrono::seconds(30))) return false;
    if (Pavo_AVCtrl_Initialize() != 0 || Pavo_AVCtrl_Create(nullptr, &av_) != 0 ||
        Pavo_AVCtrl_RegisterCallback(av_, Sink::on_post, &sink_) != 0 ||
        pavo_ipc_client_create(kEventKey, 1, 0, 1024, &sender_) != 0) {
      return false;
    }
    if (Pavo_AVCtrl_Load(av_, "http://media.test/vod.mp4") != 0 || Pavo_AVCtrl_Play(av_, 1.0) != 0) return false;
    // Playing: the first state post with value 1 (as the service reports it).
    const auto end = Clock::now() + std::chrono::seconds(30);
    PavoAVCtrlPlayState state = PAVO_AVCTRL_PLAYSTATE_STOPPED;
    while (Clock::now() < end) {
      if (Pavo_AVCtrl_GetPlayState(av_, &state) == 0 && state == PAVO_AVCTRL_PLAYSTATE_PLAYING) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return false;
  }
  ~Setup() {
    if (sender_ != nullptr) pavo_ipc_client_destroy(sender_);
    if (av_ != nullptr) Pavo_AVCtrl_Destroy(av_);
    Pavo_AVCtrl_Finalize();
    service_.stop();
    remove_protocol_queues();
  }

  // One player event for the object's player, sent as the service sends it.
  void send(int event, int data1) {
    const std::string text = "{\"event_type\":0,\"event\":" + std::to_string(event) +
                             ",\"sub_event\":0,\"player_id\":" + std::to_string(kFirstPlayer) +
                             ",\"data1\":" + std::to_string(data1) + ",\"data2\":0.0}";
    pavo_ipc_msg m{static_cast<uint32_t>(text.size()), const_cast<char*>(text.data())};
    pavo_ipc_client_send(sender_, &m);
  }

  Sink& sink() { return sink_; }

 private:
  pavo::e2e::ServiceProcess service_;
  Sink sink_;
  void* av_ = nullptr;
  pavo_ipc_client* sender_ = nullptr;
};

constexpr int kSpeedChange = 6;  // service events
constexpr int kTrackChange = 4;

// Sends bursts of `burst` events of `event` and waits until each has been
// posted as `post`; reports events per second and events lost.
void drain(benchmark::State& state, int event, int post, long burst) {
  Setup setup;
  if (!setup.start()) {
    state.SkipWithError("pavo-media-service or the library did not start");
    return;
  }
  long lost = 0;
  int speed = 2000;
  for (auto _ : state) {
    const long target = setup.sink().count(post) + burst;
    for (long i = 0; i < burst; ++i) {
      speed = speed == 2000 ? 1000 : 2000;  // every speed event a change
      setup.send(event, event == kSpeedChange ? speed : 1 /* audio */);
    }
    lost += target - setup.sink().wait_for(post, target, std::chrono::milliseconds(2000));
  }
  state.counters["events_per_s"] =
      benchmark::Counter(static_cast<double>(burst), benchmark::Counter::kIsIterationInvariantRate);
  state.counters["lost"] = static_cast<double>(lost);
}

void BM_DrainSpeedEvents(benchmark::State& state) {
  drain(state, kSpeedChange, PAVO_AVCTRL_EVENT_SPEEDCHANGE, 200);
}
void BM_DrainTrackEvents(benchmark::State& state) {
  drain(state, kTrackChange, PAVO_AVCTRL_EVENT_COMPONENTCHANGE, 50);
}

void BM_LostWhileTheCallbackStalls(benchmark::State& state) {
  constexpr long kBurst = 64;
  Setup setup;
  if (!setup.start()) {
    state.SkipWithError("pavo-media-service or the library did not start");
    return;
  }
  long lost = 0;
  long bursts = 0;
  int speed = 2000;
  for (auto _ : state) {
    const long target = setup.sink().count(PAVO_AVCTRL_EVENT_SPEEDCHANGE) + kBurst;
    setup.sink().stall_ms = static_cast<int>(state.range(0));
    for (long i = 0; i < kBurst; ++i) {
      speed = speed == 2000 ? 1000 : 2000;
      setup.send(kSpeedChange, speed);
    }
    lost += target - setup.sink().wait_for(PAVO_AVCTRL_EVENT_SPEEDCHANGE, target, std::chrono::milliseconds(2000));
    ++bursts;
  }
  state.counters["lost_per_burst"] = static_cast<double>(lost) / static_cast<double>(bursts);
}

BENCHMARK(BM_DrainSpeedEvents)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DrainTrackEvents)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LostWhileTheCallbackStalls)->ArgName("stall_ms")->Arg(300)->Arg(1000)->Iterations(2)
    ->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  signal(SIGPIPE, SIG_IGN);
  pavo::bench::use_private_ipc_namespace();
  return pavo::bench::run_with_ratios(argc, argv, [](pavo::bench::RatioReporter&) {});
}
