#include "demo/media_service_simulator.h"

#include <json/json.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>

#include "pavo_ipc.h"
#include "pavo_mediaplayer_ipc.h"

namespace pavo::demo {
namespace {

constexpr uint32_t kChunkSize = 1024;
constexpr unsigned kPlayerId = 1;
constexpr double kDurationSeconds = 596.5;

// The service's player states (as the events carry them).
constexpr int kConnecting = 2, kPaused = 4, kPlaying = 5, kBuffering = 6, kStopped = 9;
// Event numbers of a player event.
constexpr int kStateChange = 1, kTrackChange = 4, kSpeedChange = 6, kSeekCompleted = 7;

struct Track {
  int type;
  const char* encoding;
  const char* language;
  int channels;
};
const Track kTracks[] = {
    {0, "video/H264", "", 0},   {1, "audio/mp4a", "en", 2},   {1, "audio/ac3", "fra", 6},
    {1, "audio/mp4a", "xx", 2}, {2, "application/ttml+xml", "de", 0},
};

class Player {
 public:
  explicit Player(pavo_ipc_client* events) : events_(events) {}

  Json::Value handle(const Json::Value& request) {
    std::lock_guard<std::mutex> lock(mu_);
    Json::Value reply;
    reply["ret"] = 0;
    const int command = request["event_type"].asInt();
    switch (command) {
      case 0: reply["player_id"] = kPlayerId; break;
      case 2:  // load
        state(kConnecting);
        break;
      case 3:  // play
        if (state_ != kPlaying) {
          state(kBuffering);
          state(kPlaying);
          started_ = std::chrono::steady_clock::now();
        }
        break;
      case 4:  // pause
        position_ = position();
        state(kPaused);
        break;
      case 5:  // stop
        position_ = 0;
        state(kStopped);
        break;
      case 6:  // seek
        position_ = request["pos"].asDouble();
        started_ = std::chrono::steady_clock::now();
        event(kSeekCompleted, 0, position_);
        break;
      case 7:  // rate
        position_ = position();
        started_ = std::chrono::steady_clock::now();
        rate_ = request["play_rate"].asDouble() / 1000.0;
        event(kSpeedChange, static_cast<int>(request["play_rate"].asDouble()), 0);
        break;
      case 8: reply["duration"] = kDurationSeconds; break;
      case 9: reply["play_rate"] = rate_ * 1000.0; break;
      case 10: reply["current_time"] = position(); break;
      case 14: reply["play_state"] = state_; break;
      case 23: reply["num"] = count(request["track_type"].asInt()); break;
      case 24: describe(request["track_type"].asInt(), request["index"].asInt(), &reply); break;
      case 25:  // select
        active_[request["track_type"].asInt() & 3] = request["index"].asInt();
        event(kTrackChange, request["track_type"].asInt(), 0);
        break;
      default: break;
    }
    return reply;
  }

 private:
  double position() const {
    if (state_ != kPlaying) return position_;
    const double elapsed =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started_).count();
    return position_ + elapsed * rate_;
  }

  void state(int s) {
    state_ = s;
    event(kStateChange, s, 0);
  }

  void event(int event, int data1, double data2) {
    Json::Value e;
    e["event_type"] = 0;
    e["event"] = event;
    e["sub_event"] = 0;
    e["player_id"] = kPlayerId;
    e["data1"] = data1;
    e["data2"] = data2;
    std::string text = e.toStyledString();
    pavo_ipc_msg message{static_cast<uint32_t>(text.size()), text.data()};
    pavo_ipc_client_send(events_, &message);
  }

  static int count(int type) {
    int n = 0;
    for (const Track& t : kTracks) n += t.type == type;
    return n;
  }

  void describe(int type, int index, Json::Value* reply) const {
    int i = 0;
    for (const Track& t : kTracks) {
      if (t.type != type || i++ != index) continue;
      (*reply)["index"] = index;
      (*reply)["trackId"] = 100 + static_cast<int>(&t - kTracks);
      (*reply)["activated"] = active_[type & 3] == index;
      (*reply)["type"] = type;
      (*reply)["encoding"] = t.encoding;
      (*reply)["language"] = t.language;
      (*reply)["audioChannels"] = t.channels;
      (*reply)["width"] = type == 0 ? 1920 : 0;
      (*reply)["height"] = type == 0 ? 1080 : 0;
      return;
    }
    (*reply)["ret"] = -1;
  }

  pavo_ipc_client* events_;
  std::mutex mu_;
  int state_ = kStopped;
  double position_ = 0;
  double rate_ = 1.0;
  std::chrono::steady_clock::time_point started_;
  int active_[4] = {0, 0, -1, -1};
};

pavo_ipc_msg* serve(pavo_ipc_msg* message, void* user) {
  Json::Value request;
  Json::Reader reader;
  Json::Value reply;
  if (reader.parse(std::string(message->data, message->len), request, false) && request.isObject()) {
    reply = static_cast<Player*>(user)->handle(request);
  } else {
    reply["ret"] = -1;
  }
  const std::string text = reply.toStyledString();
  auto* out = new pavo_ipc_msg;
  out->data = strdup(text.c_str());
  out->len = static_cast<uint32_t>(text.size());
  return out;
}

}  // namespace

int run_media_service(void (*ready)(void* context), void* context) {
  pavo_ipc_server* requests = nullptr;
  pavo_ipc_client* events = nullptr;
  if (pavo_ipc_server_create(PAVO_MEDIAPLAYER_REQUEST_KEY, 1, 1, kChunkSize, &requests) != 0 ||
      pavo_ipc_client_create(PAVO_MEDIAPLAYER_EVENT_KEY, 1, 0, kChunkSize, &events) != 0) {
    std::fprintf(stderr, "media service: cannot create its queues\n");
    return 1;
  }
  static Player player(events);
  pavo_ipc_server_register_callback(requests, serve, &player);
  ready(context);
  for (;;) pause();
}

}  // namespace pavo::demo
