// The service's events and requests as they arrive on the library's queues:
// each family to its callback, hostile texts, callbacks that throw or
// unregister, registrations that end, and commands from several threads
// while events arrive.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <memory>
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
using Calls = std::vector<std::string>;

// Every callback call, as text, in order.
std::mutex g_mutex;
Calls g_calls;

void record(const std::string& call) {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_calls.push_back(call);
}
Calls calls() {
  std::lock_guard<std::mutex> lock(g_mutex);
  return g_calls;
}
std::string ptr(const void* p) { return std::to_string(reinterpret_cast<uintptr_t>(p)); }
// A pointer as the service carries it: its "%p" text.
std::string p_text(const void* p) {
  char text[32];
  std::snprintf(text, sizeof text, "%p", p);
  return text;
}

void player_cb(PavoMediaPluginEvent e, PavoMediaError err, const void* user, int d1, double d2) {
  if (e == 13) throw std::runtime_error("callback failed");
  if (e == 14) throw 14;
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
  std::string call = "drm " + std::to_string(e) + " " + ptr(user) + " ";
  const auto& result = info->messageResult;
  if (e == 0) call += std::string(result.msgId) + "|" + result.resultMsg + "|" + std::to_string(result.resultCode);
  if (e == 1) call += std::string(info->systemMessage.msg) + "|" + info->systemMessage.sysId;
  if (e == 2) call += info->statusChange.sysId;
  record(call);
}

constexpr char kErrorRecord[] = "Function: MediaPlayerIPCAsyncCallback(), line:";

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
  Calls deliver(const std::vector<std::string>& texts, std::string* log = nullptr) {
    pavo::test::OutputCapture out(1);
    const size_t before = calls().size();
    // The marker goes to the player callback in place (one for all players).
    PavoMediaPlayerCallback current = __atomic_load_n(&g_mediaplayer_cb, __ATOMIC_ACQUIRE);
    Pavo_MediaPlayer_IPC_RegisterCallback(999, current != nullptr ? current : player_cb, nullptr);
    for (const auto& t : texts) service_.send_event_text(t);
    service_.send_event_text(R"({"event_type":0,"player_id":999,"event":42})");
    const bool marked = wait_until([&] { return calls().size() > before && calls().back() == "player 42 0 0 0 0.000000"; });
    Pavo_MediaPlayer_IPC_UnregisterCallback(999);
    if (log != nullptr) *log = out.text();
    const Calls c = calls();
    return marked ? Calls(c.begin() + static_cast<long>(before), c.end() - 1) : Calls{"(no marker)"};
  }
  int a_ = 0, b_ = 0;  // user data
};

TEST_F(Events, EachFamilyReachesItsCallbackAndHostileTextsAreDropped) {
  Pavo_MediaPlayer_IPC_RegisterCallback(3, player_cb, &a_);
  Pavo_MediaPlayer_IPC_RegisterCallback(4, player_cb, &b_);
  Pavo_MediaPlayer_IPC_RegisterMediaSyncCallback(1, sync_cb, &a_);
  ASSERT_EQ(Pavo_DrmAgent_RegisterCallback(reinterpret_cast<void*>(0x10), drm_cb, &b_), 0);
  const std::string a = ptr(&a_), b = ptr(&b_), x(40, 'x');
  struct Case {
    std::string event, call;  // call: empty for none
    bool error;               // an error record of the event callback
  };
  std::vector<Case> cases = {
      {R"({"event_type":0,"event":1,"sub_event":3,"player_id":3,"data1":-7})", "player 1 3 " + a + " -7 0.000000", false},
      {R"({"event_type":0,"event":7,"player_id":4,"data2":12.5})", "player 7 0 " + b + " 0 12.500000", false},
      {R"({"event_type":0,"event":12,"player_id":5})", "", true},  // no entry: the event is lost
      {R"({"event_type":0,"event":13,"player_id":3})", "", true},  // the callback throws
      {R"({"event_type":0,"event":14,"player_id":3})", "", true},  // ... no std::exception
      {R"({"event_type":2,"event":1,"player_id":3})", "", false},  // not a family of ours
      {R"({"event_type":1,"event":0,"timelineAvailable":true})", "sync 0 " + a + " 1", false},
      {R"({"event_type":1,"event":1,"speed":2.0})", "sync 1 " + a + " 2.000000", false},
      {R"({"event_type":1,"event":2,"timelineSelector":"ignored"})", "sync 2 " + a + " 000", false},
      {R"({"event_type":1,"event":2,"bTimelineOptionsChange":true,"timelineSelector":")" + x +
           R"(","unitsPerTick":4294967295,"bContentIdChange":true,"contentId":")" + x +
           R"(","contentIdStatus":3,"bMrsUrlChange":true,"mrsUrl":")" + x + R"("})",
       "sync 2 " + a + " 111 " + x + "/4294967295 " + x + "/3 " + x, false},
      {R"({"event_type":1,"event":9})", "sync 9 " + a, false},
      // DRM events carry their agent's user data back as the "%p" text of
      // "context"; a context that no agent of this process registered is no
      // pointer of ours: null, with an error record.
      {R"({"event_type":3,"event":0,"context":")" + p_text(&b_) + R"(","msg_id":"7","result_msg":"ok","result_code":2})",
       "drm 0 " + b + " 7|ok|2", false},
      {R"({"event_type":3,"event":0,"context":"0x1a2b3c","msg_id":"7","result_msg":"ok","result_code":2})",
       "drm 0 0 7|ok|2", true},
      {R"({"event_type":3,"event":2,"context":"0x4141414141","sys_id":"1"})", "drm 2 0 1", true},
      {R"j({"event_type":3,"event":1,"context":"(nil)","msg":"m","sys_id":"19188"})j", "drm 1 0 m|19188", false},
      {R"({"event_type":3,"event":2,"sys_id":"19188"})", "drm 2 0 19188", false},
      {R"({"event_type":3,"event":5,"context":"0x1"})", "", true},  // not a DRM event
  };
  for (const std::string& hostile : std::initializer_list<std::string>{
           "not json", "[1,2,3]", "", std::string(3000, '['), R"({"event_type":0,"player_id":4294967296,"event":1})",
           R"({"event_type":0,"player_id":3,"event":1,"data1":2147483648})",
           R"({"event_type":0,"player_id":3,"event":1,"data2":"fast"})", R"({"event_type":[0],"player_id":3})",
           R"({"event_type":1,"event":2,"bTimelineOptionsChange":true,"unitsPerTick":4294967296})",
           R"({"event_type":1,"event":2,"bContentIdChange":true,"contentId":[1]})",
           R"({"event_type":1,"event":0,"timelineAvailable":"yes"})", R"({"event_type":3,"event":0,"context":{}})",
           R"({"event_type":0,"player_id":3,"event":8,"x":"a)" + std::string(1, '\0') + R"(b"})"}) {  // ends at its NUL
    cases.push_back({hostile, "", true});
  }
  for (const auto& c : cases) {
    std::string log;
    EXPECT_EQ(deliver({c.event}, &log), c.call.empty() ? Calls{} : Calls{c.call}) << c.event.substr(0, 60);
    EXPECT_EQ(log.find(kErrorRecord) != std::string::npos, c.error) << c.event.substr(0, 60);
  }
  // The longest message there is (16 KiB) arrives whole.
  const std::string longest = R"({"event_type":0,"player_id":3,"event":6,"data1":2000,"junk":")";
  EXPECT_EQ(deliver({longest + std::string(16384 - longest.size() - 2, 'j') + "\"}"}),
            Calls{"player 6 0 " + a + " 2000 0.000000"});
}

TEST_F(Events, EndedRegistrationsDropTheirEvents) {
  const std::string speed = R"({"event_type":1,"event":1,"speed":2.0})";
  const std::string drm = R"({"event_type":3,"event":2,"context":"0x10","sys_id":"s"})";
  Pavo_MediaPlayer_IPC_RegisterMediaSyncCallback(1, sync_cb, nullptr);
  EXPECT_EQ(deliver({speed}), Calls{}) << "a media-sync callback without user data";
  Pavo_MediaPlayer_IPC_RegisterMediaSyncCallback(1, sync_cb, &a_);
  ASSERT_EQ(Pavo_DrmAgent_RegisterCallback(reinterpret_cast<void*>(0x10), drm_cb, &a_), 0);
  EXPECT_EQ(deliver({speed, drm}).size(), 2u);
  Pavo_MediaPlayer_IPC_UnregisterMediaSyncCallback(1);
  // Unregistering through another agent drops the events of every agent; a
  // refused registration leaves the slot empty.
  EXPECT_EQ(Pavo_DrmAgent_UnregisterCallback(reinterpret_cast<void*>(0x20)), 0);
  EXPECT_EQ(Pavo_DrmAgent_RegisterCallback(reinterpret_cast<void*>(0x10), drm_cb, nullptr), -3);
  EXPECT_EQ(deliver({speed, drm}), Calls{});
}

void lost_handler(void* user) { record("lost " + ptr(user)); }

// Lost players travel inside the process only. What arrives on the event
// queue is the service's: a player event 100 is passed through as such, and
// a "restart notice" of another process is a family of nobody's, ignored.
// A newer service generation kills the older registrations at once (a player
// registered after it, which may reuse an id, is left alone) and the monitor
// tells their owners through the handler, once, soon after.
TEST_F(Events, OnlyTheProcessItselfTellsPlayersLost) {
  pavo::mediaplayer::set_player_lost_handler(lost_handler);
  Pavo_MediaPlayer_IPC_RegisterCallback(1, player_cb, &a_);
  const std::string forged = R"({"event":0,"event_type":100,"generation":4000000000,"player_id":0,"sub_event":0})";
  EXPECT_EQ(deliver({forged, R"({"event_type":0,"event":100,"player_id":1})"}),
            Calls{"player 100 0 " + ptr(&a_) + " 0 0.000000"});
  EXPECT_TRUE(pavo::mediaplayer::player_registered(1, &a_));
  EXPECT_TRUE(pavo::mediaplayer::advance_generation(1));
  EXPECT_FALSE(pavo::mediaplayer::advance_generation(1));
  EXPECT_FALSE(pavo::mediaplayer::player_registered(1, &a_)) << "dead at once, before anyone is told";
  Pavo_MediaPlayer_IPC_RegisterCallback(1, player_cb, &b_);  // the new service's player 1
  ASSERT_TRUE(wait_until([] { return !calls().empty() && calls().back().rfind("lost ", 0) == 0; }));
  pavo::mediaplayer::unregister_player_of(1, &a_);  // the old owner lets go: the new entry stays
  EXPECT_EQ(deliver({R"({"event_type":0,"event":5,"player_id":1})"}), Calls{"player 5 0 " + ptr(&b_) + " 0 0.000000"});
  const Calls all = calls();
  EXPECT_EQ(std::count_if(all.begin(), all.end(), [](const std::string& c) { return c[0] == 'l'; }), 1);
  EXPECT_EQ(std::count(all.begin(), all.end(), "lost " + ptr(&a_)), 1);
  Pavo_MediaPlayer_IPC_UnregisterCallback(1);
  pavo::mediaplayer::set_player_lost_handler(nullptr);
}

// One "exit" message ends a receive thread in the transport; the client
// makes that server anew within a second, on either queue.
TEST_F(Events, AServerStoppedByAnExitMessageIsBackWithinASecond) {
  Pavo_MediaPlayer_IPC_RegisterCallback(3, player_cb, &a_);
  for (const int key : {pavo::test::FakeMediaService::kEventKey, pavo::test::FakeMediaService::kServiceRequestKey}) {
    pavo_ipc_client* client = nullptr;
    ASSERT_EQ(pavo_ipc_client_create(key, 1, 0, 1024, &client), 0);
    char text[] = "exit";
    pavo_ipc_msg message{4, text};
    EXPECT_EQ(pavo_ipc_client_send(client, &message), 0);
    pavo_ipc_client_destroy(client);
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(1000));
  EXPECT_EQ(deliver({R"({"event_type":0,"event":6,"player_id":3})"}), Calls{"player 6 0 " + ptr(&a_) + " 0 0.000000"});
  const auto answer = service_.send_service_request(R"({"event_type":7})", std::chrono::milliseconds(500));
  EXPECT_TRUE(answer.has_value() && answer->kind == 3);
  Pavo_MediaPlayer_IPC_UnregisterCallback(3);
}

TEST_F(Events, ServiceRequestsAreAnswered) {
  pavo::standin::hbbtv_reset();
  pavo::standin::hbbtv_set_display_source_result(-9);
  // The display source goes through the platform; other requests get 0,
  // unreadable ones the no-reply answer (empty here).
  for (const auto& [request, reply] : std::vector<std::pair<std::string, std::string>>{
           {R"({"event_type":2,"source":1})", R"({"ret":-9})"}, {R"({"event_type":7,"source":1})", R"({"ret":0})"},
           {"not json", ""}, {"[2]", ""}, {R"({"event_type":2,"source":"1"})", ""}, {R"({"event_type":"2"})", ""}}) {
    const auto answer = service_.send_service_request(request);
    ASSERT_TRUE(answer.has_value()) << request;
    EXPECT_EQ(answer->kind, reply.empty() ? 4 : 3) << request;
    EXPECT_EQ(answer->text, reply.empty() ? "a" : json(reply).toStyledString()) << request;
  }
  const auto platform = pavo::standin::hbbtv_calls();  // one switch, to the source asked for
  EXPECT_EQ(platform.size() == 1 ? platform[0].value : -1, 1) << platform.size() << " switches";
  pavo::standin::hbbtv_reset();
}

// A callback that unregisters its own player (event 1), and one that blocks
// until released (event 2) while another thread unregisters it.
std::atomic<bool> g_inside{false}, g_release{false};
std::atomic<int> g_user_seen{0};

void blocking_cb(PavoMediaPluginEvent e, PavoMediaError err, const void* user, int d1, double d2) {
  if (e == 42) return player_cb(e, err, user, d1, d2);  // the marker
  if (e == 1) {
    Pavo_MediaPlayer_IPC_UnregisterCallback(1);  // must not wait for itself
    return record("self");
  }
  g_inside = true;
  while (!g_release) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  g_user_seen = *static_cast<const int*>(user);  // still valid here
}

TEST_F(Events, UnregisteringWaitsForTheRunningCallbackButNotOnItsOwnThread) {
  Pavo_MediaPlayer_IPC_RegisterCallback(1, blocking_cb, nullptr);
  EXPECT_EQ(deliver({R"({"event_type":0,"player_id":1,"event":1})", R"({"event_type":0,"player_id":1,"event":1})"}),
            Calls{"self"});
  auto user = std::make_unique<int>(77);
  Pavo_MediaPlayer_IPC_RegisterCallback(2, blocking_cb, user.get());
  service_.send_event_text(R"({"event_type":0,"player_id":2,"event":2})");
  ASSERT_TRUE(wait_until([] { return g_inside.load(); }));
  std::atomic<bool> returned{false};
  std::thread unregister([&] {
    Pavo_MediaPlayer_IPC_UnregisterCallback(2);
    user.reset();  // as an owner does once its registration is gone
    returned = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_FALSE(returned.load()) << "returned while the callback still used the user data";
  g_release = true;
  unregister.join();
  EXPECT_EQ(g_user_seen.load(), 77);
}

TEST_F(Events, ConcurrentCommandsEachGetTheirOwnReplyWhileEventsArrive) {
  service_.script(10, [](const Json::Value& request) {  // the time tells the player
    return Answer::json(json(R"({"ret":0,"current_time":)" + std::to_string(request["player_id"].asUInt() * 1.5) + "}"));
  });
  Pavo_MediaPlayer_IPC_RegisterCallback(3, player_cb, &a_);
  constexpr size_t kEvents = 300;
  std::thread events([&] {
    for (size_t n = 0; n < kEvents; ++n) service_.send_event_text(R"({"event_type":0,"player_id":3,"event":6})");
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
