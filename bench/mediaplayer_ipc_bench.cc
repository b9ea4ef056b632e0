// Cost of the media-player client on top of the transport, each beside its
// baseline measured in the same run and placement:
//
// - a command round trip, Pavo_MediaPlayer_IPC_GetCurrentTime, against a
//   minimal responder process that answers every request frame with one
//   prepared reply frame; beside the same exchange made with the bare
//   transport client, and a raw msgsnd/msgrcv ping-pong of single frames
//   with the same responder;
// - an event round trip: a prepared event frame from this process (the
//   service) to the library in the responder process, whose player callback
//   answers with one raw frame; beside the raw ping-pong;
// - in this process, the library's own JSON work per command (request
//   built and rendered, reply parsed and read into the outputs) beside the
//   plain jsoncpp calls that the protocol names (a Json::Value rendered
//   with toStyledString, the reply copied and parsed with a new
//   Json::Reader, the members read).
//
// Targets (medians): across two cores the command at most 1.3x the transport
// exchange; the JSON work no slower than the jsoncpp baseline. The library
// uses the fixed queue keys of the protocol, so the program moves into an
// IPC namespace of its own when it may.
#include <sched.h>
#include <signal.h>
#include <sys/msg.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "ipc/frame.h"
#include "mediaplayer_ipc/request_frame.h"
#include "pavo_ipc.h"
#include "pavo_mediaplayer_ipc.h"
#include "support/bench_support.h"

namespace {

using pavo::bench::remove_queue;
using pavo::bench::Responder;
using pavo::bench::ScopedPin;
using pavo::ipc::pavo_ipc_frame;

constexpr uint32_t kN = 1024;
constexpr long kMsgType = 1;
constexpr key_t kRequestKey = static_cast<key_t>(PAVO_MEDIAPLAYER_REQUEST_KEY);
constexpr key_t kEventKey = static_cast<key_t>(PAVO_MEDIAPLAYER_EVENT_KEY);
constexpr key_t kAckKey = 0x6c000010;  // the event benchmark's answers
constexpr unsigned kPlayer = 3;

std::string styled(const char* text) {
  Json::Value v;
  Json::Reader().parse(text, v);
  return v.toStyledString();
}
const std::string kTimeRequest = styled(R"({"event_type":10,"player_id":7})");
const std::string kTimeReply = styled(R"({"current_time":12.5,"ret":0})");
const std::string kTrackReply = styled(
    R"({"index":1,"trackId":2,"activated":true,"encrypted":false,"type":1,"pid":256,"componentTag":3,
        "encoding":"aac","priority":1,"audioDescription":0,"audioChannels":6,"language":"deu","ret":0})");
const std::string kEvent = styled(R"({"event_type":0,"event":6,"sub_event":0,"player_id":3,"data1":1000,"data2":0.0})");


// One single-chunk frame of the transport, kept ready to send.
struct Frame {
  explicit Frame(const std::string& text = "", int32_t kind = pavo::ipc::IPC_MSG_SYNC_REQUEST)
      : buffer(pavo::ipc::frame_buffer_size(kN)) {
    auto* f = get();
    f->mtype = kMsgType;
    f->kind = kind;
    f->total_len = static_cast<uint32_t>(text.size());
    f->seq_no = 1;
    f->is_last = 1;
    f->reserved_one = 1;
    f->chunk_len = static_cast<uint32_t>(text.size());
    std::memcpy(f->payload, text.data(), text.size());
  }
  pavo_ipc_frame* get() { return reinterpret_cast<pavo_ipc_frame*>(buffer.data()); }
  bool send(int queue) { return msgsnd(queue, get(), pavo::ipc::message_text_size(kN), 0) == 0; }
  bool receive(int queue, long type) {
    return msgrcv(queue, get(), pavo::ipc::message_text_size(kN), type, 0) >= 0;
  }
  std::vector<unsigned char> buffer;
};

// The minimal service: every final request frame on 0x95000100 is answered
// with the prepared reply on 0x95000101.
void serve_prepared_reply(const std::function<void()>& ready) {
  const int requests = msgget(kRequestKey, IPC_CREAT | 0666);
  const int replies = msgget(kRequestKey + 1, IPC_CREAT | 0666);
  Frame request;
  Frame reply(kTimeReply, pavo::ipc::IPC_MSG_SYNC_REPLY);
  ready();
  while (request.receive(requests, 0)) {
    if (!request.get()->is_last) continue;
    reply.get()->mtype = request.get()->mtype;
    if (!reply.send(replies)) break;
  }
}

enum class Exchange { kRaw, kTransport, kCommand };

void run_exchanges(benchmark::State& state, Exchange how) {
  const int placement = static_cast<int>(state.range(0));
  remove_queue(kRequestKey);
  remove_queue(kRequestKey + 1);
  {
    Responder responder(pavo::bench::responder_cpu(placement), serve_prepared_reply);
    ScopedPin pin(pavo::bench::caller_cpu(placement));
    const int requests = msgget(kRequestKey, 0);
    const int replies = msgget(kRequestKey + 1, 0);
    Frame frame(kTimeRequest);
    pavo_ipc_client* client = nullptr;
    pavo_ipc_client_create(kRequestKey, kMsgType, 1, kN, &client);
    std::string text = kTimeRequest;
    if (how == Exchange::kCommand) Pavo_MediaPlayer_IPC_Initialize(1);
    for (auto _ : state) {
      bool ok = false;
      if (how == Exchange::kRaw) {
        ok = frame.send(requests) && frame.receive(replies, kMsgType);
      } else if (how == Exchange::kTransport) {
        pavo_ipc_msg request{static_cast<uint32_t>(text.size()), text.data()};
        pavo_ipc_msg reply{0, nullptr};
        ok = pavo_ipc_client_send_sync_with_params(client, &request, &reply) == 0 && reply.len > 0;
        std::free(reply.data);
      } else {
        double time = 0;
        ok = Pavo_MediaPlayer_IPC_GetCurrentTime(7, &time) == 0 && time == 12.5;
      }
      if (!ok) {
        state.SkipWithError("exchange failed");
        break;
      }
    }
    if (how == Exchange::kCommand) Pavo_MediaPlayer_IPC_Finalize();
    pavo_ipc_client_destroy(client);
  }
  remove_queue(kRequestKey);
  remove_queue(kRequestKey + 1);
  state.SetLabel(pavo::bench::placement_name(placement));
}

void BM_RawPingPong(benchmark::State& state) { run_exchanges(state, Exchange::kRaw); }
void BM_TransportExchange(benchmark::State& state) { run_exchanges(state, Exchange::kTransport); }
void BM_GetCurrentTime(benchmark::State& state) { run_exchanges(state, Exchange::kCommand); }

// The library's side of the event benchmark: each speed-change event of the
// player is answered with one raw frame.
int g_ack_queue = -1;
Frame* g_ack = nullptr;
void acknowledge(PavoMediaPluginEvent, PavoMediaError, const void*, int, double) { g_ack->send(g_ack_queue); }

void BM_EventDispatch(benchmark::State& state) {
  const int placement = static_cast<int>(state.range(0));
  remove_queue(kEventKey);
  remove_queue(kAckKey);
  const int acks = msgget(kAckKey, IPC_CREAT | 0666);
  {
    Responder library(pavo::bench::responder_cpu(placement), [&](const std::function<void()>& ready) {
      g_ack_queue = acks;
      g_ack = new Frame("ok", pavo::ipc::IPC_MSG_ASYNC);
      if (Pavo_MediaPlayer_IPC_Initialize(1) != 0) return;
      Pavo_MediaPlayer_IPC_RegisterCallback(kPlayer, acknowledge, nullptr);
      ready();
      for (;;) pause();
    });
    ScopedPin pin(pavo::bench::caller_cpu(placement));
    const int events = msgget(kEventKey, 0);
    Frame event(kEvent, pavo::ipc::IPC_MSG_ASYNC);
    Frame ack;
    for (auto _ : state) {
      if (!event.send(events) || !ack.receive(acks, kMsgType)) {
        state.SkipWithError("event round trip failed");
        break;
      }
    }
  }
  remove_queue(kEventKey);
  remove_queue(kAckKey);
  remove_queue(static_cast<key_t>(PAVO_MEDIAPLAYER_SERVICE_REQUEST_KEY));
  remove_queue(static_cast<key_t>(PAVO_MEDIAPLAYER_SERVICE_REQUEST_KEY) + 1);
  state.SetLabel(pavo::bench::placement_name(placement));
}

// ---- JSON work of one command, in this process ------------------------------

// The frame as the protocol names it: a Json::Value rendered with
// toStyledString, the reply copied into a string and parsed with a new
// Json::Reader (comments collected), the outputs read.
void BM_JsonBaseline_GetCurrentTime(benchmark::State& state) {
  for (auto _ : state) {
    Json::Value request;
    request["event_type"] = 10;
    request["player_id"] = 7u;
    std::string text = request.toStyledString();
    benchmark::DoNotOptimize(text.data());
    const std::string copy(kTimeReply.c_str());
    Json::Reader reader;
    Json::Value reply;
    if (!reader.parse(copy, reply, true)) state.SkipWithError("parse");
    double time = reply["current_time"].asDouble();
    int ret = reply["ret"].asInt();
    benchmark::DoNotOptimize(time);
    benchmark::DoNotOptimize(ret);
  }
}

void BM_JsonLibrary_GetCurrentTime(benchmark::State& state) {
  std::string text;  // run() keeps one per thread
  for (auto _ : state) {
    double time = 0;
    pavo::mediaplayer::Command command("Pavo_MediaPlayer_IPC_GetCurrentTime", 10);
    command.player(7).read("current_time", &time);
    command.render(&text);
    benchmark::DoNotOptimize(text.data());
    int ret = command.read_reply(kTimeReply.c_str());
    if (text != kTimeRequest || time != 12.5) state.SkipWithError("wrong request or output");
    benchmark::DoNotOptimize(ret);
  }
}

void BM_JsonBaseline_GetTrackByIndex(benchmark::State& state) {
  for (auto _ : state) {
    Json::Value request;
    request["event_type"] = 24;
    request["player_id"] = 7u;
    request["track_type"] = 1;
    request["index"] = 1;
    std::string text = request.toStyledString();
    benchmark::DoNotOptimize(text.data());
    const std::string copy(kTrackReply.c_str());
    Json::Reader reader;
    Json::Value reply;
    if (!reader.parse(copy, reply, true)) state.SkipWithError("parse");
    PavoAVCtrlTrackInfo info;
    info.index = reply["index"].asInt();
    info.trackId = reply["trackId"].asInt();
    info.activated = reply["activated"].asBool();
    info.encrypted = reply["encrypted"].asBool();
    info.type = reply["type"].asInt();
    info.pid = reply["pid"].asUInt();
    info.componentTag = reply["componentTag"].asUInt();
    info.encoding = reply["encoding"].asString();
    info.audio.priority = reply["priority"].asInt();
    info.audio.audioDescription = reply["audioDescription"].asInt();
    info.audio.audioChannels = reply["audioChannels"].asInt();
    info.audio.language = reply["language"].asString();
    int ret = reply["ret"].asInt();
    benchmark::DoNotOptimize(info);
    benchmark::DoNotOptimize(ret);
  }
}

void BM_JsonLibrary_GetTrackByIndex(benchmark::State& state) {
  std::string text;
  for (auto _ : state) {
    PavoAVCtrlTrackInfo info;
    pavo::mediaplayer::Command command("Pavo_MediaPlayer_IPC_GetTrackByIndex", 24);
    command.player(7).with("track_type", 1).with("index", 1);
    command.read("index", &info.index)
        .read("trackId", &info.trackId)
        .read("activated", &info.activated)
        .read("encrypted", &info.encrypted)
        .read("type", &info.type)
        .read("pid", &info.pid)
        .read("componentTag", &info.componentTag)
        .read("encoding", &info.encoding)
        .read("priority", &info.audio.priority)
        .read("audioDescription", &info.audio.audioDescription)
        .read("audioChannels", &info.audio.audioChannels)
        .read("language", &info.audio.language);
    command.render(&text);
    benchmark::DoNotOptimize(text.data());
    int ret = command.read_reply(kTrackReply.c_str());
    if (info.audio.language != "deu") state.SkipWithError("wrong output");
    benchmark::DoNotOptimize(ret);
  }
}

BENCHMARK(BM_RawPingPong)->Apply(pavo::bench::per_placement);
BENCHMARK(BM_TransportExchange)->Apply(pavo::bench::per_placement);
BENCHMARK(BM_GetCurrentTime)->Apply(pavo::bench::per_placement);
BENCHMARK(BM_EventDispatch)->Apply(pavo::bench::per_placement);
BENCHMARK(BM_JsonBaseline_GetCurrentTime)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_JsonLibrary_GetCurrentTime)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_JsonBaseline_GetTrackByIndex)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_JsonLibrary_GetTrackByIndex)->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
  signal(SIGPIPE, SIG_IGN);
  pavo::bench::use_private_ipc_namespace();
  // Pinned like the responders, so that the JSON figures are comparable.
  ScopedPin pin(0);
  return pavo::bench::run_with_ratios(argc, argv, [](pavo::bench::RatioReporter& r) {
    r.ratio_per_placement("command / transport exchange", "BM_GetCurrentTime", "BM_TransportExchange", 1.3);
    r.ratio_per_placement("command / raw ping-pong", "BM_GetCurrentTime", "BM_RawPingPong");
    r.ratio_per_placement("transport exchange / raw ping-pong", "BM_TransportExchange", "BM_RawPingPong");
    r.ratio_per_placement("event round trip / raw ping-pong", "BM_EventDispatch", "BM_RawPingPong");
    r.ratio("JSON work GetCurrentTime, library / jsoncpp", "BM_JsonLibrary_GetCurrentTime",
            "BM_JsonBaseline_GetCurrentTime", 1.0);
    r.ratio("JSON work GetTrackByIndex, library / jsoncpp", "BM_JsonLibrary_GetTrackByIndex",
            "BM_JsonBaseline_GetTrackByIndex", 1.0);
  });
}
