// A/V control tests: the fake service, the library started, one object whose
// callback records what the plug-in would receive.
#ifndef PAVO_TESTS_AV_CONTROL_ADAPTOR_AVCTRL_HARNESS_H
#define PAVO_TESTS_AV_CONTROL_ADAPTOR_AVCTRL_HARNESS_H

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "av_control_adaptor/event_translation.h"
#include "av_control_adaptor/handle_lookup.h"
#include "av_control_adaptor/object.h"
#include "hbbtv_plugin_impl_standin.h"
#include "pavo_avctrl.h"
#include "pavo_media_log_standin.h"
#include "support/fake_media_service.h"
#include "support/test_queues.h"

namespace pavo::test {

constexpr unsigned kPlayerId = 7;  // the id the fake service gives the object
constexpr int kState = PAVO_AVCTRL_EVENT_PLAYSTATECHANGE, kSpeed = PAVO_AVCTRL_EVENT_SPEEDCHANGE,
              kPosition = PAVO_AVCTRL_EVENT_POSITIONCHANGE,
              kComponent = PAVO_AVCTRL_EVENT_COMPONENTCHANGE;
constexpr int kAsk = -1;  // in a Seen list: a request, with its command number as the value
enum : int32_t { STOPPED, PLAYING, PAUSED, CONNECTING, BUFFERING, FINISHED, ERROR };

// What the service and the plug-in saw, in order: requests as {kAsk, command},
// posts as {event, value}.
using Seen = std::vector<std::pair<int, double>>;

inline Json::Value reply_with(int ret, const char* member = nullptr,
                              const Json::Value& value = {}) {
  Json::Value reply(Json::objectValue);
  reply["ret"] = ret;
  if (member != nullptr) reply[member] = value;
  return reply;
}

// Whether the A/V control layer logged `text` at level 3 for `function`.
inline bool logged(const std::string& function, const std::string& text) {
  for (const auto& line : standin::media_log_lines()) {
    if (line.function == function && line.text == text) return line.level == 3;
  }
  return false;
}

// Each test: a fresh fake service, Pavo_AVCtrl_Initialize, one object whose
// callback records every post; all undone afterwards.
class AvctrlTest : public ::testing::Test {
 protected:
  void SetUp() override {
    standin::media_log_capture(true);
    standin::hbbtv_reset();
    answer(0, reply_with(0, "player_id", kPlayerId));
    ASSERT_EQ(Pavo_AVCtrl_Initialize(), 0);
    ASSERT_EQ(Pavo_AVCtrl_Create(nullptr, &handle_), 0);
    ASSERT_EQ(Pavo_AVCtrl_RegisterCallback(handle_, record, this), 0);
    clear();
  }

  void TearDown() override {
    Pavo_AVCtrl_Destroy(handle_);
    Pavo_AVCtrl_Finalize();
    standin::media_log_capture(false);
  }

  // The plug-in's callback; `self` is the test. Every byte of the record
  // past the event's value must be zero.
  static void record(PavoAVCtrlEvent event, const PavoAVCtrlEventInfo* info, const void* self) {
    auto* test = static_cast<AvctrlTest*>(const_cast<void*>(self));
    const bool is_double = event == kSpeed || event == kPosition;
    const auto* bytes = reinterpret_cast<const unsigned char*>(info);
    EXPECT_TRUE(std::all_of(bytes + (is_double ? sizeof(double) : sizeof(int32_t)),
                            bytes + sizeof *info, [](unsigned char b) { return b == 0; }))
        << "event " << event;
    test->seen(event, is_double ? info->value.doubleValue : info->value.intValue);
    if (test->on_post_) test->on_post_(event);
  }

  // Requests and posts in the order they happened; first appends the
  // requests that arrived since the last call, then the post `event`, if any.
  Seen seen(int event = kAsk, double value = 0.0) {
    std::lock_guard<std::mutex> lock(mutex_);
    const std::vector<Received> requests = service_.requests();
    for (; requests_seen_ < requests.size(); ++requests_seen_) {
      seen_.emplace_back(kAsk, requests[requests_seen_].json["event_type"].asInt());
    }
    if (event != kAsk) seen_.emplace_back(event, value);
    return seen_;
  }

  std::vector<Json::Value> requests_of(int event_type) const {
    std::vector<Json::Value> out;
    for (const Received& r : service_.requests()) {
      if (r.json["event_type"].asInt() == event_type) out.push_back(r.json);
    }
    return out;
  }

  // Sets the play-state bookkeeping that the state machine reads.
  void put(int32_t state, int32_t prev = STOPPED, int32_t command = AVCTRL_CMD_NONE,
           double speed = 1.0, double pending = PAVO_AVCTRL_PENDING_NONE) {
    ctx()->play_state = state;
    ctx()->prev_state = prev;
    ctx()->last_command = command;
    ctx()->speed = speed;
    ctx()->pending_speed = pending;
    ctx()->error = 1;
  }

  // Hands a player event to the object's translation on this thread.
  void event(PavoMediaPluginEvent event, int data1, double data2 = 0.0, int error = 0) {
    mediaplayer_adaptor_callback(event, static_cast<PavoMediaError>(error), handle_, data1, data2);
  }

  void answer(int event_type, const Json::Value& reply) {
    service_.script(event_type, Answer::json(reply));
  }

  // Forgets requests, posts and log lines.
  void clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    service_.clear_records();
    seen_.clear();
    requests_seen_ = 0;
    standin::media_log_clear();
  }

  PavoAVCtrlContext* ctx() const { return static_cast<PavoAVCtrlContext*>(handle_); }

  // The library's own queues, removed after the library has stopped.
  ScopedQueues event_queues_{FakeMediaService::kEventKey};
  ScopedQueues service_request_queues_{FakeMediaService::kServiceRequestKey};
  FakeMediaService service_;
  std::mutex mutex_;
  Seen seen_;                      // guarded by mutex_
  std::size_t requests_seen_ = 0;  // guarded by mutex_
  std::function<void(int event)> on_post_;  // runs inside the callback
  void* handle_ = nullptr;
};

}  // namespace pavo::test

#endif  // PAVO_TESTS_AV_CONTROL_ADAPTOR_AVCTRL_HARNESS_H
