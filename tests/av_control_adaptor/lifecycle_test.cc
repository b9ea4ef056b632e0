// Library start, objects and the handle lookup, an object's lifetime
// against its callback and the event thread, and the settings.
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <future>
#include <iterator>
#include <mutex>
#include <thread>

#include "av_control_adaptor/components.h"
#include "avctrl_harness.h"
#include "support/output_capture.h"

namespace pavo::test {
namespace {

using namespace std::chrono_literals;

int tv_callback(PavoPluginIPCAvContrl, PavoAVComponentType, int) { return 0; }

TEST_F(AvctrlTest, InitializeHandsThePlatformCallbacksToThePlugInInOrder) {
  int user = 0;
  EXPECT_EQ(Pavo_AVCtrl_RegisterCallbackForTV(nullptr, tv_callback, &user), 0);
  EXPECT_EQ(Pavo_AVCtrl_UnregisterCallbackForTV(handle_), 0);
  auto address = [](auto fn) { return reinterpret_cast<const void*>(fn); };
  // Functions of the plug-in library, less their "Pavo_HbbTV_PAC_" prefix.
  const std::pair<std::string, const void*> expected[] = {
      {"Platform_subtitle_enable_RegisterCallback", address(Pavo_Platform_SubtitleEnable)},
      {"Platform_Get_Track_Number_RegisterCallback", address(Pavo_Platform_Get_Track_Number)},
      {"Platform_Get_Track_By_Index_RegisterCallback", address(Pavo_Platform_Get_Track_By_Index)},
      {"Platform_Select_Track_RegisterCallback", address(Pavo_Platform_Select_Track)},
      {"Platform_Unselect_Track_RegisterCallback", address(Pavo_Platform_Unselect_Track)},
      {"Platform_Get_Current_Track_RegisterCallback", address(Pavo_Platform_Get_Current_Track)},
      {"AvControl_RegisterCallback", address(tv_callback)},
      {"AvControl_UnregisterCallback", handle_}};  // handed the A/V control handle
  const auto calls = standin::hbbtv_calls();
  ASSERT_EQ(calls.size(), std::size(expected));
  for (size_t i = 0; i < calls.size(); ++i) {
    EXPECT_EQ(calls[i].function, "Pavo_HbbTV_PAC_" + expected[i].first);
    EXPECT_EQ(calls[i].pointer, expected[i].second) << calls[i].function;
  }
  EXPECT_EQ(calls[6].user_data, &user);
}

// With other than one object the handle lookup and so the handle-less
// platform callbacks refuse.
TEST_F(AvctrlTest, CreateAndDestroyDriveThePlayerAndTheHandleLookup) {
  EXPECT_EQ(Pavo_AVCtrl_GetHandle(), handle_);
  EXPECT_EQ(Pavo_AVCtrl_Create(nullptr, nullptr), -3);
  answer(0, reply_with(0, "player_id", 8));
  void* second = nullptr;
  ASSERT_EQ(Pavo_AVCtrl_Create(nullptr, &second), 0);
  EXPECT_EQ(Pavo_AVCtrl_GetHandle(), nullptr);
  EXPECT_TRUE(logged("Pavo_AVCtrl_GetHandle", "Error: initialized the avc 2 times."));
  const auto A = PAVO_AV_COMPONENT_TYPE_AUDIO;
  unsigned count = 9;
  int index = 9;
  PavoAVCtrlTrackInfo info{};
  PavoRecordList list{};
  const int refused[] = {Pavo_Platform_Get_Track_Number(A, &count),
                         Pavo_Platform_Get_Track_By_Index(A, 0, &info),
                         Pavo_Platform_Select_Track(A, 0), Pavo_Platform_Unselect_Track(A, 0),
                         Pavo_Platform_Get_Current_Track(A, &index),
                         pavo::avctrl::GetComponents(A, &list)};
  for (size_t n = 0; n < std::size(refused); ++n) EXPECT_EQ(refused[n], -1) << "call " << n;
  EXPECT_TRUE(count == 9 && index == 9);
  EXPECT_TRUE(logged("Pavo_Platform_Select_Track", "avHandle is null."));

  EXPECT_EQ(Pavo_AVCtrl_Destroy(second), 0);
  EXPECT_EQ(Pavo_AVCtrl_Destroy(second), 0) << "a second destroy is a no-op";
  EXPECT_EQ(Pavo_AVCtrl_Destroy(nullptr), 0);
  EXPECT_EQ(requests_of(1).at(0)["player_id"], 8);
  EXPECT_EQ(g_avctrl_count, 1);
  EXPECT_EQ(Pavo_AVCtrl_GetHandle(), nullptr) << "cleared by any destruction";
  // The first object's routine is still registered for its player.
  Json::Value seek(Json::objectValue);
  seek["event_type"] = seek["sub_event"] = seek["data1"] = 0;
  seek["event"] = PAVO_MEDIA_PLUGIN_EVENT_SEEKCOMPLETED;
  seek["player_id"] = kPlayerId;
  seek["data2"] = 1.0;
  ASSERT_TRUE(service_.send_event(seek));
  ASSERT_TRUE(wait_until([&] { return seen().size() == 3; }));
  EXPECT_EQ(seen(), (Seen{{kAsk, 0}, {kAsk, 1}, {kPosition, 1000.0}})) << "callbacks asked nothing";
  Pavo_AVCtrl_Destroy(handle_);
  handle_ = nullptr;
  EXPECT_EQ(Pavo_AVCtrl_GetHandle(), nullptr);
  EXPECT_TRUE(logged("Pavo_AVCtrl_GetHandle", "Error: initialized the avc 0 times."));
}

// A report of playing posts the held-back speed, then would post the state;
// the callback blocks in the speed post (the plug-in may hold a lock of its
// own that it waits for). Unregistering from another thread waits for that
// post (from inside the callback it does not: SetPlayStatePostsChanges...);
// Destroy returns at once, nothing more is posted, and the object and its
// player go when the translation ends.
TEST_F(AvctrlTest, UnregisterWaitsForAPostInFlightAndDestroyDoesNot) {
  for (const bool destroy : {false, true}) {
    SCOPED_TRACE(destroy ? "Destroy" : "Unregister");
    clear();
    put(STOPPED, STOPPED, AVCTRL_CMD_NONE, 1.0, 0.0);
    ASSERT_EQ(Pavo_AVCtrl_RegisterCallback(handle_, record, this), 0);
    std::promise<void> in_callback, release;
    std::shared_future<void> released = release.get_future().share();
    on_post_ = [&](int) {
      in_callback.set_value();
      released.wait();
    };
    std::thread event_thread([this] { event(PAVO_MEDIA_PLUGIN_EVENT_STATECHANGE, 5); });
    in_callback.get_future().wait();
    auto call = std::async(std::launch::async, [this, destroy] {
      return destroy ? Pavo_AVCtrl_Destroy(handle_) : Pavo_AVCtrl_UnregisterCallback(handle_);
    });
    EXPECT_EQ(call.wait_for(destroy ? 5s : 100ms) == std::future_status::ready, destroy);
    release.set_value();
    EXPECT_EQ(call.get(), 0);
    event_thread.join();
    EXPECT_EQ(seen(), destroy ? (Seen{{kSpeed, 0.0}, {kAsk, 1}}) : (Seen{{kSpeed, 0.0}}));
  }
  handle_ = nullptr;
}

// The callback may destroy its object from any post: the object lives until
// the call that posted has finished with it.
TEST_F(AvctrlTest, ObjectsOwnCallbackMayDestroyIt) {
  answer(6, reply_with(-2));
  const struct {
    std::function<void(void*)> call;
    Seen seen;
  } rows[] = {
      {[this](void*) { event(PAVO_MEDIA_PLUGIN_EVENT_SEEKCOMPLETED, 0, 2.0); },
       {{kPosition, 2000.0}, {kAsk, 1}}},
      {[](void* h) { Pavo_AVCtrl_Load(h, "u"); }, {{kState, CONNECTING}, {kAsk, 2}, {kAsk, 1}}},
      {[](void* h) { Pavo_AVCtrl_Seek(h, 1.0); },
       {{kAsk, 6}, {kAsk, 10}, {kPosition, 0.0}, {kAsk, 1}}},
  };
  for (const auto& row : rows) {
    if (handle_ == nullptr) {
      ASSERT_EQ(Pavo_AVCtrl_Create(nullptr, &handle_), 0);
      ASSERT_EQ(Pavo_AVCtrl_RegisterCallback(handle_, record, this), 0);
    }
    clear();
    on_post_ = [this](int) { Pavo_AVCtrl_Destroy(handle_); };
    row.call(handle_);
    on_post_ = nullptr;
    handle_ = nullptr;
    EXPECT_EQ(g_avctrl_count, 0);
    EXPECT_EQ(seen(), row.seen);
  }
}

// A thread cancelled while the plug-in's callback runs inside an event
// translation unwinds through the library, ending its post and dropping its
// references on the way, and is not taken for an exception.
TEST_F(AvctrlTest, CancelledEventThreadUnwindsThroughTheLibrary) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  // AddressSanitizer's no-return hook misreads the stack of a thread that a
  // cancellation unwinds, and ThreadSanitizer loses the unlocks made on the way.
  GTEST_SKIP() << "the sanitizer runtimes cannot follow a cancelled thread's unwinding";
#endif
  std::atomic<bool> entered{false};
  on_post_ = [&entered](int) {
    entered = true;
    for (;;) std::this_thread::sleep_for(10ms);  // a cancellation point
  };
  pthread_t thread;
  auto translate = [](void* handle) -> void* {
    mediaplayer_adaptor_callback(PAVO_MEDIA_PLUGIN_EVENT_SEEKCOMPLETED, PAVO_MEDIA_ERR_NETWORK,
                                 handle, 0, 1.0);
    return nullptr;
  };
  ASSERT_EQ(pthread_create(&thread, nullptr, translate, handle_), 0);
  ASSERT_TRUE(wait_until([&] { return entered.load(); }));
  pthread_cancel(thread);
  void* result = nullptr;
  ASSERT_EQ(pthread_join(thread, &result), 0);
  EXPECT_EQ(result, PTHREAD_CANCELED);
  on_post_ = nullptr;
  EXPECT_EQ(Pavo_AVCtrl_SetPlayState(handle_, PAVO_AVCTRL_PLAYSTATE_PAUSED), 0);
  EXPECT_EQ(Pavo_AVCtrl_Destroy(handle_), 0);  // the last reference: the player goes at once
  handle_ = nullptr;
  EXPECT_EQ(seen(), (Seen{{kPosition, 1000.0}, {kState, PAUSED}, {kAsk, 1}}));
}

TEST_F(AvctrlTest, SettingsReachThePlayerWithTheirArguments) {
  PavoRect rect{0, 0, 1280, 720};
  PavoAVCtrlSubtitleInfo subtitle{"http://s/sub.ttml", nullptr, "Deutsch"};
  const struct {
    int result, event_type;
    const char* member;
    Json::Value value;
  } rows[] = {
      {Pavo_AVCtrl_SetLoop(handle_, -1), 21, "loop", -1},
      {Pavo_AVCtrl_SetFont(handle_, "/fonts/t.ttf"), 20, "fontfile", "/fonts/t.ttf"},
      {Pavo_AVCtrl_SetLAURL(handle_, "http://la"), 16, "url", "http://la"},
      {Pavo_AVCtrl_SetCustomData(handle_, "cd"), 17, "data", "cd"},
      {Pavo_AVCtrl_SetMimeType(handle_, "video/mp4"), 15, "mime_type", "video/mp4"},
      {Pavo_AVCtrl_UpdateWindow(handle_, &rect), 13, "rect_h", 720},
      {Pavo_AVCtrl_Component_EnableSubtitle(handle_, true), 18, "enable", true},
      {Pavo_AVCtrl_SetSubtitle(handle_, &subtitle), 19, "label", "Deutsch"},
      {Pavo_AVCtrl_SetFullScreen(handle_, true), 12, "is_fullscreen", 1},
  };
  for (const auto& row : rows) {
    const std::vector<Json::Value> sent = requests_of(row.event_type);
    EXPECT_TRUE(row.result == 0 && sent.size() == 1 && sent[0][row.member] == row.value &&
                sent[0]["player_id"].asUInt() == kPlayerId)
        << row.event_type;
  }
  EXPECT_EQ(requests_of(19)[0]["url"], "http://s/sub.ttml");
  EXPECT_EQ(requests_of(19)[0]["language"], "") << "a null language is sent empty";
  answer(21, reply_with(-6));
  EXPECT_EQ(Pavo_AVCtrl_SetLoop(handle_, 3), -6) << "the service's result";
}

// Lines carry the process and thread ids and the source file relative to the
// source tree; a forked child logs its own ids.
TEST(AvctrlLog, LinesNameTheirProcessThreadAndSourceFile) {
  OutputCapture err(2);
  Pavo_AVCtrl_GetHandle();  // no object: logs the count
  const pid_t child = fork();
  if (child == 0) {
    Pavo_AVCtrl_GetHandle();
    _exit(0);
  }
  ASSERT_GT(child, 0);
  waitpid(child, nullptr, 0);
  const std::string text = err.text();
  for (const pid_t pid : {getpid(), child}) {
    const std::string id = std::to_string(pid);
    EXPECT_NE(text.find("[media-log 3] pid=" + id + " tid=" + id +
                        " av_control_adaptor/handle_lookup.cc:Pavo_AVCtrl_GetHandle:"),
              std::string::npos)
        << text;
  }
}

}  // namespace
}  // namespace pavo::test
