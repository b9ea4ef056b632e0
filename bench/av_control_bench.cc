// Cost of the A/V control layer on top of the media-player client, each
// beside its baseline measured in the same run and placement, set up as the
// media-player client benchmark sets up its own:
//
// - a request: Pavo_AVCtrl_GetPosition end to end, beside
//   Pavo_MediaPlayer_IPC_GetCurrentTime, against a minimal responder process
//   that answers every request with one prepared reply;
// - an event: a service state report sent from this process (the service)
//   to the library in the responder process, translated there and posted to
//   the plug-in's callback, which answers with one frame; beside the plain
//   dispatch of the same event to a player callback that answers alike.
//   Reports alternate between paused and playing, so every one is a change
//   that the translation posts.
//
// Targets (medians): GetPosition at most 1.1x GetCurrentTime on either
// placement; the translated report at most 1.1x the plain dispatch across
// two cores (reported on one core). The platform log stand-in writes to
// /dev/null in the library's process. The library uses the fixed queue keys
// of the protocol, so the program moves into an IPC namespace of its own
// when it may.
#include <fcntl.h>
#include <json/json.h>
#include <sched.h>
#include <signal.h>
#include <sys/msg.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <future>
#include <thread>
#include <string>
#include <vector>

#include "ipc/frame.h"
#include "pavo_avctrl.h"
#include "pavo_ipc.h"
#include "pavo_mediaplayer_ipc.h"
#include "support/bench_support.h"

namespace {

using pavo::bench::remove_queue;
using pavo::bench::Responder;
using pavo::bench::ScopedPin;

constexpr uint32_t kN = 1024;
constexpr long kMsgType = 1;
constexpr key_t kRequestKey = static_cast<key_t>(PAVO_MEDIAPLAYER_REQUEST_KEY);
constexpr key_t kEventKey = static_cast<key_t>(PAVO_MEDIAPLAYER_EVENT_KEY);
constexpr key_t kAckKey = 0x6c000020;  // the event benchmarks' answers
constexpr unsigned kPlayer = 7;        // the id in the prepared reply

std::string styled(const char* text) {
  Json::Value v;
  Json::Reader().parse(text, v);
  return v.toStyledString();
}
// One reply serves every request: Create reads "player_id", GetCurrentTime
// "current_time".
const std::string kReply = styled(R"({"current_time":12.5,"player_id":7,"ret":0})");
// State reports for the player of the prepared reply.
const std::string kReports[2] = {
    styled(R"({"event_type":0,"event":1,"sub_event":0,"player_id":7,"data1":4,"data2":0.0})"),
    styled(R"({"event_type":0,"event":1,"sub_event":0,"player_id":7,"data1":5,"data2":0.0})")};


// Messages through the transport's own framing, for the responder and the
// service side of the event benchmarks alike.
class Wire {
 public:
  Wire() : frame_(PAVO_IPC_FRAME_BUFFER_SIZE(kN)), text_(static_cast<char*>(std::malloc(64))) {}
  ~Wire() { std::free(text_); }
  Wire(const Wire&) = delete;
  Wire& operator=(const Wire&) = delete;

  bool send(int queue, long mtype, const std::string& text, int kind) const {
    pavo_ipc_msg message{static_cast<uint32_t>(text.size()), const_cast<char*>(text.data())};
    return ipc_snd_internal(queue, mtype, kN, &message, kind) == 0;
  }
  // Blocks for one message of `mtype` (0: any); remembers its type.
  bool receive(int queue, long mtype) {
    if (ipc_rcv_internal(queue, mtype, kN, frame_.data(), &text_, &capacity_) != 0) return false;
    received_type_ = reinterpret_cast<const pavo::ipc::pavo_ipc_frame*>(frame_.data())->mtype;
    return true;
  }
  long received_type() const { return received_type_; }

 private:
  std::vector<unsigned char> frame_;
  char* text_;
  uint32_t capacity_ = 64;
  long received_type_ = 0;
};

// The minimal service: every request on 0x95000100 gets the prepared reply.
void serve_prepared_reply(const std::function<void()>& ready) {
  const int requests = msgget(kRequestKey, IPC_CREAT | 0666);
  const int replies = msgget(kRequestKey + 1, IPC_CREAT | 0666);
  Wire wire;
  ready();
  while (wire.receive(requests, 0) &&
         wire.send(replies, wire.received_type(), kReply, pavo::ipc::IPC_MSG_SYNC_REPLY)) {
  }
}

// A request per iteration from this process, with the library's client open.
template <typename Body>
void run_requests(benchmark::State& state, Body&& body) {
  const int placement = static_cast<int>(state.range(0));
  remove_queue(kRequestKey);
  remove_queue(kRequestKey + 1);
  {
    Responder responder(pavo::bench::responder_cpu(placement), serve_prepared_reply);
    ScopedPin pin(pavo::bench::caller_cpu(placement));
    if (Pavo_MediaPlayer_IPC_Initialize(1) == 0) {
      body();
    } else {
      state.SkipWithError("client not started");
    }
    Pavo_MediaPlayer_IPC_Finalize();
  }
  remove_queue(kRequestKey);
  remove_queue(kRequestKey + 1);
  state.SetLabel(pavo::bench::placement_name(placement));
}

void BM_GetCurrentTime(benchmark::State& state) {
  run_requests(state, [&] {
    for (auto _ : state) {
      double seconds = 0;
      if (Pavo_MediaPlayer_IPC_GetCurrentTime(kPlayer, &seconds) != 0 || seconds != 12.5) {
        return state.SkipWithError("request failed");
      }
    }
  });
}

void BM_GetPosition(benchmark::State& state) {
  run_requests(state, [&] {
    void* handle = nullptr;
    Pavo_AVCtrl_Create(nullptr, &handle);
    for (auto _ : state) {
      double ms = 0;
      Pavo_AVCtrl_GetPosition(handle, &ms);
      if (ms != 12500.0) return state.SkipWithError("no position");
    }
    Pavo_AVCtrl_Destroy(handle);
  });
}

// ---- Events: the library lives in the responder process ----

int g_ack_queue = -1;
Wire* g_ack = nullptr;
const std::string kAck = "ok";

void acknowledge() { g_ack->send(g_ack_queue, kMsgType, kAck, pavo::ipc::IPC_MSG_ASYNC); }

void plain_player_callback(PavoMediaPluginEvent, PavoMediaError, const void*, int, double) {
  acknowledge();
}

void plug_in_callback(PavoAVCtrlEvent event, const PavoAVCtrlEventInfo*, const void*) {
  if (event == PAVO_AVCTRL_EVENT_PLAYSTATECHANGE) acknowledge();
}

// In the responder: the library's log lines (the media log on standard
// error, the client's error records on standard output) go to /dev/null, its
// client is started, and `attach` registers what answers the events.
void run_events(benchmark::State& state, void (*attach)()) {
  const int placement = static_cast<int>(state.range(0));
  for (key_t key : {kEventKey, kAckKey, kRequestKey, kRequestKey + 1}) remove_queue(key);
  const int acks = msgget(kAckKey, IPC_CREAT | 0666);
  {
    Responder library(pavo::bench::responder_cpu(placement),
                      [&](const std::function<void()>& ready) {
                        const int null_fd = open("/dev/null", O_WRONLY | O_CLOEXEC);
                        dup2(null_fd, STDOUT_FILENO);
                        dup2(null_fd, STDERR_FILENO);
                        g_ack_queue = acks;
                        g_ack = new Wire;
                        if (Pavo_MediaPlayer_IPC_Initialize(1) != 0) return;
                        attach();
                        ready();
                        for (;;) pause();
                      });
    ScopedPin pin(pavo::bench::caller_cpu(placement));
    const int events = msgget(kEventKey, 0);
    Wire service;
    size_t report = 0;
    for (auto _ : state) {
      report ^= 1;
      if (!service.send(events, kMsgType, kReports[report], pavo::ipc::IPC_MSG_ASYNC) ||
          !service.receive(acks, kMsgType)) {
        state.SkipWithError("event round trip failed");
        break;
      }
    }
  }
  for (key_t key : {kEventKey, kAckKey, static_cast<key_t>(PAVO_MEDIAPLAYER_SERVICE_REQUEST_KEY),
                    static_cast<key_t>(PAVO_MEDIAPLAYER_SERVICE_REQUEST_KEY + 1)}) {
    remove_queue(key);
  }
  state.SetLabel(pavo::bench::placement_name(placement));
}

void BM_PlainEventDispatch(benchmark::State& state) {
  run_events(state,
             [] { Pavo_MediaPlayer_IPC_RegisterCallback(kPlayer, plain_player_callback, nullptr); });
}

// The object gets its player from the minimal service, which a thread of
// the responder runs (it lives until the responder is ended).
void BM_TranslatedStateReport(benchmark::State& state) {
  run_events(state, [] {
    std::promise<void> serving;
    std::thread([&serving] { serve_prepared_reply([&serving] { serving.set_value(); }); }).detach();
    serving.get_future().wait();
    void* handle = nullptr;
    Pavo_AVCtrl_Create(nullptr, &handle);
    Pavo_AVCtrl_RegisterCallback(handle, plug_in_callback, nullptr);
  });
}

BENCHMARK(BM_GetCurrentTime)->Apply(pavo::bench::per_placement);
BENCHMARK(BM_GetPosition)->Apply(pavo::bench::per_placement);
BENCHMARK(BM_PlainEventDispatch)->Apply(pavo::bench::per_placement);
BENCHMARK(BM_TranslatedStateReport)->Apply(pavo::bench::per_placement);

}  // namespace

int main(int argc, char** argv) {
  signal(SIGPIPE, SIG_IGN);
  pavo::bench::use_private_ipc_namespace();
  return pavo::bench::run_with_ratios(argc, argv, [](pavo::bench::RatioReporter& r) {
    r.ratio_per_placement("GetPosition / GetCurrentTime", "BM_GetPosition", "BM_GetCurrentTime", 1.1, 1.1);
    r.ratio_per_placement("translated report / plain dispatch", "BM_TranslatedStateReport",
                          "BM_PlainEventDispatch", 1.1);
  });
}
