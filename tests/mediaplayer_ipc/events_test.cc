// The service's events and requests as they arrive on the library's queues:
// delivery to the three callbacks, hostile texts, callbacks that unregister,
// and commands from several threads while events arrive.
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "client_fixture.h"
#include "hbbtv_plugin_impl_standin.h"
#include "mediaplayer_ipc/registry.h"
#include "pavo_drm_agent.h"
#include "support/output_capture.h"

namespace {

using pavo::test::Answer;
using pavo::test::json;
using pavo::test::wait_until;

// Every callback call, as text, in order.
std::mutex g_mutex;
std::vector<std::string> g_calls;

void record(const std::string& call) {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_calls.push_back(call);
}
std::vector<std::string> calls() {
  std::lock_guard<std::mutex> lock(g_mutex);
  return g_calls;
}
std::string ptr(const void* p) { return std::to_string(reinterpret_cast<uintptr_t>(p)); }
const char* str(const char* s) { return s != nullptr ? s : "(null)"; }

void player_cb(PavoMediaPluginEvent e, PavoMediaError err, const void* user, int d1, double d2) {
  record("player " + std::to_string(e) + " " + std::to_string(err) + " " + ptr(user) + " " +
         std::to_string(d1) + " " + std::to_string(d2));
}

void sync_cb(PavoMediaSyncMsgType type, const PavoMSEventInfo* info, const void* user) {
  std::string call = "sync " + std::to_string(type) + " " + ptr(user);
  if (type == 0) call += " " + std::to_string(info->available.timelineAvailable);
  if (type == 1) call += " " + std::to_string(info->speedChange.speed);
  if (type == 2) {
    const auto& c = info->infoChange;
    call += " " + std::to_string(c.bTimelineOptionsChange) + std::to_string(c.bContentIdChange) +
            std::to_string(c.bMrsUrlChange);
    if (c.bTimelineOptionsChange) call += std::string(" ") + c.timelineSelector + "/" + std::to_string(c.unitsPerTick);
    if (c.bContentIdChange) call += std::string(" ") + c.contentId + "/" + std::to_string(c.contentIdStatus);
    if (c.bMrsUrlChange) call += std::string(" ") + c.mrsUrl;
  }
  record(call);
}

void drm_cb(PavoDrmEvent e, const PavoDrmEventInfo* info, const void* user) {
  std::string call = "drm " + std::to_string(e) + " " + ptr(user);
  if (e == 0) {
    call += std::string(" ") + str(info->messageResult.msgId) + "|" + str(info->messageResult.resultMsg) +
            "|" + std::to_string(info->messageResult.resultCode);
  }
  if (e == 1) call += std::string(" ") + str(info->systemMessage.msg) + "|" + str(info->systemMessage.sysId);
  if (e == 2) call += std::string(" ") + str(info->statusChange.sysId);
  record(call);
}

class Events : public pavo::test::ClientTest {
 protected:
  void SetUp() override {
    ClientTest::SetUp();
    pavo::mediaplayer::clear_media_sync();  // slots outlive Finalize
    pavo::mediaplayer::set_drm_callback(nullptr);
    std::lock_guard<std::mutex> lock(g_mutex);
    g_calls.clear();
  }
  // Sends the events, then a marker event, and returns the calls that the
  // events caused (events are handled in arrival order). With `log`, stores
  // what was printed meanwhile.
  std::vector<std::string> deliver(const std::vector<std::string>& texts, std::string* log) {
    pavo::test::OutputCapture out(1);
    auto result = deliver(texts);
    *log = out.text();
    return result;
  }
  std::vector<std::string> deliver(const std::vector<std::string>& texts) {
    const size_t before = calls().size();
    // The marker goes to the player callback in place (one for all players).
    PavoMediaPlayerCallback current = __atomic_load_n(&g_mediaplayer_cb, __ATOMIC_ACQUIRE);
    Pavo_MediaPlayer_IPC_RegisterCallback(kMarker, current != nullptr ? current : player_cb, nullptr);
    for (const auto& t : texts) EXPECT_TRUE(service_.send_event_text(t)) << t;
    service_.send_event_text(R"({"event_type":0,"player_id":999,"event":42})");
    EXPECT_TRUE(wait_until([&] {
      auto c = calls();
      return c.size() > before && c.back() == "player 42 0 0 0 0.000000";
    }));
    auto c = calls();
    Pavo_MediaPlayer_IPC_UnregisterCallback(kMarker);
    return std::vector<std::string>(c.begin() + static_cast<long>(before), c.end() - 1);
  }
  static constexpr unsigned kMarker = 999;
  int a_ = 0, b_ = 0;  // user data
};

using Calls = std::vector<std::string>;

TEST_F(Events, PlayerEventsReachTheCallbackWithTheirPlayersUserData) {
  Pavo_MediaPlayer_IPC_RegisterCallback(3, player_cb, &a_);
  Pavo_MediaPlayer_IPC_RegisterCallback(4, player_cb, &b_);
  std::string log;
  EXPECT_EQ(deliver({R"({"event_type":0,"event":1,"sub_event":0,"player_id":3,"data1":5,"data2":0})",
                     R"({"event_type":0,"event":7,"player_id":4,"data2":12.5})",
                     R"({"event_type":0,"event":0,"sub_event":3,"player_id":3,"data1":-7})",
                     R"({"event_type":0,"event":12,"player_id":5})",  // no entry: error record
                     R"({"event_type":0,"event":12,"player_id":5})",  // and none was made
                     R"({"event_type":2,"event":1,"player_id":3})"},  // not a family
                    &log),
            (Calls{"player 1 0 " + ptr(&a_) + " 5 0.000000", "player 7 0 " + ptr(&b_) + " 0 12.500000",
                   "player 0 3 " + ptr(&a_) + " -7 0.000000"}));
  EXPECT_NE(log.find("Function: MediaPlayerIPCAsyncCallback(), line:"), std::string::npos);
}

TEST_F(Events, MediaSyncMessagesFillTheirVariant) {
  const std::string long_text(40, 'x');
  EXPECT_EQ(deliver({R"({"event_type":1,"event":1,"speed":2.0})"}), Calls{}) << "nothing registered";
  Pavo_MediaPlayer_IPC_RegisterMediaSyncCallback(1, sync_cb, nullptr);
  EXPECT_TRUE(deliver({R"({"event_type":1,"event":1,"speed":2.0})"}).empty()) << "null user data";
  Pavo_MediaPlayer_IPC_RegisterMediaSyncCallback(1, sync_cb, &a_);
  const std::string u = ptr(&a_);
  EXPECT_EQ(deliver({R"({"event_type":1,"event":0,"timelineAvailable":true})",
                     R"({"event_type":1,"event":1,"speed":2.0})",
                     R"({"event_type":1,"event":2,"timelineSelector":"ignored"})",
                     R"({"event_type":1,"event":2,"bTimelineOptionsChange":true,"timelineSelector":")" + long_text +
                         R"(","unitsPerTick":4294967295,"bContentIdChange":true,"contentId":")" + long_text +
                         R"(","contentIdStatus":3,"bMrsUrlChange":true,"mrsUrl":")" + long_text + R"("})",
                     R"({"event_type":1,"event":9})"}),
            (Calls{"sync 0 " + u + " 1", "sync 1 " + u + " 2.000000", "sync 2 " + u + " 000",
                   "sync 2 " + u + " 111 " + long_text + "/4294967295 " + long_text + "/3 " + long_text,
                   "sync 9 " + u}));
  Pavo_MediaPlayer_IPC_UnregisterMediaSyncCallback(1);
  EXPECT_TRUE(deliver({R"({"event_type":1,"event":1,"speed":2.0})"}).empty());
}

TEST_F(Events, DrmEventsCarryTheirAgentsUserDataBack) {
  EXPECT_EQ(Pavo_DrmAgent_RegisterCallback(reinterpret_cast<void*>(0x10), drm_cb, nullptr), -3);
  EXPECT_TRUE(deliver({R"({"event_type":3,"event":2,"context":"0x1","sys_id":"s"})"}).empty());
  EXPECT_EQ(Pavo_DrmAgent_RegisterCallback(reinterpret_cast<void*>(0x10), drm_cb, &a_), 0);
  std::string log;
  EXPECT_EQ(deliver({R"({"event_type":3,"event":0,"context":"0x1a2b3c","msg_id":"7","result_msg":"ok","result_code":2})",
                     R"j({"event_type":3,"event":1,"context":"(nil)","msg":"m","sys_id":"19188"})j",
                     R"({"event_type":3,"event":2,"sys_id":"19188"})",
                     R"({"event_type":3,"event":5,"context":"0x1"})"},  // error record, no call
                    &log),
            (Calls{"drm 0 " + std::to_string(0x1a2b3c) + " 7|ok|2", "drm 1 0 m|19188", "drm 2 0 19188"}));
  EXPECT_NE(log.find("MediaPlayerIPCAsyncCallback(), line:"), std::string::npos);
  // Unregistering through another agent drops the events of every agent.
  EXPECT_EQ(Pavo_DrmAgent_UnregisterCallback(reinterpret_cast<void*>(0x20)), 0);
  EXPECT_TRUE(deliver({R"({"event_type":3,"event":2,"context":"0x10","sys_id":"s"})"}).empty());
}

TEST_F(Events, HostileEventsAreDroppedWithAnErrorRecordAndTheThreadGoesOn) {
  Pavo_MediaPlayer_IPC_RegisterCallback(3, player_cb, &a_);
  Pavo_MediaPlayer_IPC_RegisterMediaSyncCallback(1, sync_cb, &a_);
  const std::vector<std::string> hostile = {
      "not json", "[1,2,3]", "42", "null", "", std::string(3000, '['), std::string(16384, '{'),
      R"({"event_type":0,"player_id":"3","event":1})",
      R"({"event_type":0,"player_id":4294967296,"event":1})",
      R"({"event_type":0,"player_id":3,"event":1,"data1":2147483648})",
      R"({"event_type":0,"player_id":3,"event":1,"data2":"fast"})",
      R"({"event_type":[0],"player_id":3})",
      R"({"event_type":1,"event":2,"bTimelineOptionsChange":true,"unitsPerTick":4294967296})",
      R"({"event_type":1,"event":2,"bContentIdChange":true,"contentId":[1]})",
      R"({"event_type":1,"event":0,"timelineAvailable":"yes"})",
      R"({"event_type":3,"event":0,"context":{}})",
  };
  for (const auto& text : hostile) {
    std::string log;
    EXPECT_TRUE(deliver({text}, &log).empty()) << text.substr(0, 60);
    EXPECT_NE(log.find("MediaPlayerIPCAsyncCallback(), line:"), std::string::npos) << text.substr(0, 60);
  }
  // And a message of 16 KiB, the longest there is, arrives whole.
  const std::string longest = R"({"event_type":0,"player_id":3,"event":6,"data1":2000,"junk":")";
  EXPECT_EQ(deliver({longest + std::string(16384 - longest.size() - 2, 'j') + "\"}"}),
            Calls{"player 6 0 " + ptr(&a_) + " 2000 0.000000"});
}

void throwing_cb(PavoMediaPluginEvent e, PavoMediaError err, const void* user, int d1, double d2) {
  if (e == 13) throw std::runtime_error("callback failed");
  if (e == 14) throw 14;
  player_cb(e, err, user, d1, d2);
}

TEST_F(Events, ACallbackThatThrowsCostsOnlyItsEvent) {
  Pavo_MediaPlayer_IPC_RegisterCallback(3, throwing_cb, &a_);
  std::string log;
  EXPECT_EQ(deliver({R"({"event_type":0,"player_id":3,"event":13})", R"({"event_type":0,"player_id":3,"event":14})",
                     R"({"event_type":0,"player_id":3,"event":6})"},
                    &log),
            Calls{"player 6 0 " + ptr(&a_) + " 0 0.000000"});
  EXPECT_NE(log.find("MediaPlayerIPCAsyncCallback(), line:"), std::string::npos);
}

TEST_F(Events, ServiceRequestsAreAnswered) {
  pavo::standin::hbbtv_reset();
  pavo::standin::hbbtv_set_display_source_result(-9);
  auto reply = service_.send_service_request(R"({"event_type":2,"source":1})");
  ASSERT_TRUE(reply.has_value());
  EXPECT_EQ(reply->kind, 3);
  EXPECT_EQ(reply->text, json(R"({"ret":-9})").toStyledString());
  const auto platform = pavo::standin::hbbtv_calls();
  ASSERT_EQ(platform.size(), 1u);
  EXPECT_EQ(platform[0].value, 1);
  reply = service_.send_service_request(R"({"event_type":7,"source":1})");
  ASSERT_TRUE(reply.has_value());
  EXPECT_EQ(reply->text, json(R"({"ret":0})").toStyledString());
  for (const char* hostile : {"not json", "[2]", R"({"event_type":2,"source":"1"})", R"({"event_type":"2"})"}) {
    reply = service_.send_service_request(hostile);
    ASSERT_TRUE(reply.has_value()) << hostile;
    EXPECT_EQ(reply->kind, 4) << hostile;
    EXPECT_EQ(reply->text, "a");
  }
  EXPECT_EQ(pavo::standin::hbbtv_calls().size(), 1u);
  pavo::standin::hbbtv_reset();
}

// A callback that unregisters its own player, and an unregistration from
// another thread that must wait for the running callback.
std::mutex g_gate_mutex;
std::condition_variable g_gate;
bool g_inside = false, g_release = false;
std::atomic<int> g_user_alive{0};

void blocking_cb(PavoMediaPluginEvent e, PavoMediaError err, const void* user, int d1, double d2) {
  if (e == 42) return player_cb(e, err, user, d1, d2);  // the marker
  if (e == 1) Pavo_MediaPlayer_IPC_UnregisterCallback(1);  // itself: must not wait for itself
  if (e != 2) return record("self");
  std::unique_lock<std::mutex> lock(g_gate_mutex);
  g_inside = true;
  g_gate.notify_all();
  g_gate.wait(lock, [] { return g_release; });
  g_user_alive = *static_cast<const int*>(user);  // the user data is still valid here
}

TEST_F(Events, UnregisteringWaitsForTheRunningCallbackButNotOnItsOwnThread) {
  g_inside = g_release = false;
  Pavo_MediaPlayer_IPC_RegisterCallback(1, blocking_cb, nullptr);
  EXPECT_EQ(deliver({R"({"event_type":0,"player_id":1,"event":1})", R"({"event_type":0,"player_id":1,"event":1})"}),
            Calls{"self"});
  auto alive = std::make_unique<int>(77);
  Pavo_MediaPlayer_IPC_RegisterCallback(2, blocking_cb, alive.get());
  service_.send_event_text(R"({"event_type":0,"player_id":2,"event":2})");
  {
    std::unique_lock<std::mutex> lock(g_gate_mutex);
    ASSERT_TRUE(g_gate.wait_for(lock, std::chrono::seconds(5), [] { return g_inside; }));
  }
  std::atomic<bool> returned{false};
  std::thread unregister([&] {
    Pavo_MediaPlayer_IPC_UnregisterCallback(2);
    alive.reset();  // as an owner does once its registration is gone
    returned = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_FALSE(returned.load()) << "returned while the callback still used the user data";
  {
    std::lock_guard<std::mutex> lock(g_gate_mutex);
    g_release = true;
  }
  g_gate.notify_all();
  unregister.join();
  EXPECT_EQ(g_user_alive.load(), 77);
}

TEST_F(Events, ConcurrentCommandsEachGetTheirOwnReplyWhileEventsArrive) {
  service_.script(10, [](const Json::Value& request) {
    Json::Value reply;
    reply["ret"] = 0;
    reply["current_time"] = request["player_id"].asDouble() * 1.5;
    return Answer::json(reply);
  });
  Pavo_MediaPlayer_IPC_RegisterCallback(3, player_cb, &a_);
  constexpr size_t kEvents = 300;
  std::thread events([&] {
    for (size_t n = 0; n < kEvents; ++n) {
      service_.send_event_text(R"({"event_type":0,"player_id":3,"event":6,"data1":1000})");
    }
  });
  std::vector<std::thread> callers;
  std::atomic<int> wrong{0};
  for (unsigned t = 0; t < 4; ++t) {
    callers.emplace_back([&, t] {
      for (unsigned n = 0; n < 50; ++n) {
        const unsigned id = t * 1000 + n;
        double time = -1;
        if (Pavo_MediaPlayer_IPC_GetCurrentTime(id, &time) != 0 || time != id * 1.5) ++wrong;
      }
    });
  }
  for (auto& c : callers) c.join();
  events.join();
  EXPECT_EQ(wrong.load(), 0);
  EXPECT_TRUE(wait_until([&] { return calls().size() == kEvents; })) << calls().size();
}

}  // namespace
