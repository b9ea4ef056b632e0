// Many threads on one object while the service reports: 8 plug-in threads
// call play, pause, seek, the getters and the component functions for
// PAVO_STRESS_SECONDS while the service's state, speed, seek and track events
// pour in (ThreadSanitizer leg: no data race); no call hangs (a deadlock
// aborts the program); afterwards the object still reports every event and
// its state agrees with the last posts. And objects created and destroyed
// while events for them are in flight (AddressSanitizer leg: no use after
// free).
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <iterator>
#include <memory>
#include <mutex>
#include <random>
#include <thread>
#include <utility>
#include <vector>

#include "e2e_fixture.h"
#include "support/test_queues.h"

#ifndef PAVO_STRESS_SECONDS
#define PAVO_STRESS_SECONDS 5
#endif

namespace pavo::e2e {
namespace {

constexpr int kThreads = 8;
constexpr auto kStress = std::chrono::seconds(PAVO_STRESS_SECONDS);

// A deadlock cannot be joined: SIGALRM ends the program when the threads
// are not done within this limit.
constexpr unsigned kHangLimitSeconds = PAVO_STRESS_SECONDS + 120;

// What the plug-in's threads call: playback control, the getters and the
// component functions.
using Random = std::mt19937;
const std::function<void(void*, Random&)> kCalls[] = {
    [](void* av, Random& random) { Pavo_AVCtrl_Play(av, random() % 2 ? 1.0 : 2.0); },
    [](void* av, Random&) { Pavo_AVCtrl_Pause(av); },
    [](void* av, Random& random) { Pavo_AVCtrl_Seek(av, static_cast<double>(random() % 50000)); },
    [](void* av, Random&) { double v; Pavo_AVCtrl_GetPosition(av, &v); },
    [](void* av, Random&) { PavoAVCtrlPlayState s; Pavo_AVCtrl_GetPlayState(av, &s); },
    [](void* av, Random&) { double v; Pavo_AVCtrl_GetCurrentSpeed(av, &v); },
    [](void* av, Random&) { double v; Pavo_AVCtrl_GetPlayTime(av, &v); },
    [](void* av, Random&) { unsigned n; Pavo_AVCtrl_GetAVComponentNum(av, PAVO_AV_COMPONENT_TYPE_AUDIO, &n); },
    [](void* av, Random& random) {
      PavoAVCtrlTrackInfo info{};
      Pavo_AVCtrl_GetAVComponentByIndex(av, PAVO_AV_COMPONENT_TYPE_AUDIO, random() % 2, &info);
    },
    [](void* av, Random& random) {
      Pavo_AVCtrl_SelectComponent(av, PAVO_AV_COMPONENT_TYPE_AUDIO, static_cast<int>(random() % 2));
    },
    [](void* av, Random&) { int i; Pavo_AVCtrl_GetCurrentActiveComponent(av, PAVO_AV_COMPONENT_TYPE_AUDIO, &i); },
};

TEST_F(EndToEnd, EightThreadsOnOneObjectWhileEventsPourIn) {
  play_until_playing(kVod);
  const std::size_t before = log_.posts().size();
  alarm(kHangLimitSeconds);
  const auto end = std::chrono::steady_clock::now() + kStress;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      Random random(static_cast<unsigned>(t) * 7919u + 1u);
      while (std::chrono::steady_clock::now() < end) kCalls[random() % std::size(kCalls)](av_, random);
    });
  }
  for (std::thread& t : threads) t.join();
  alarm(0);
  // The service's reports kept coming throughout.
  EXPECT_GT(log_.posts().size(), before);

  // The reports of the storm that are still on their way arrive first:
  // settled once no post came for 300 ms.
  const auto settle = [&] {
    return pavo::test::wait_until(
        [&, seen = std::size_t{0}]() mutable {
          std::this_thread::sleep_for(std::chrono::milliseconds(300));
          const std::size_t before = std::exchange(seen, log_.posts().size());
          return before == seen;
        },
        wait_limit());
  };
  ASSERT_TRUE(settle());
  // Nothing is wedged: a new load plays and pauses with every report
  // reaching the page, and the object's state and speed are those of the
  // last posts.
  const std::size_t mark = log_.posts().size();
  ASSERT_EQ(Pavo_AVCtrl_Load(av_, "http://media.test/vod.mp4?again"), 0);
  ASSERT_EQ(Pavo_AVCtrl_Play(av_, 1.0), 0);
  ASSERT_GE(wait_state(PAVO_AVCTRL_PLAYSTATE_PLAYING, mark), 0) << log_.dump();
  ASSERT_EQ(Pavo_AVCtrl_Pause(av_), 0);
  ASSERT_GE(wait_state(PAVO_AVCTRL_PLAYSTATE_PAUSED, mark), 0) << log_.dump();
  settle();
  int last_state = -1;
  double last_speed = -1;
  for (const Post& p : log_.posts()) {
    if (p.event == PAVO_AVCTRL_EVENT_PLAYSTATECHANGE) last_state = p.int_value;
    if (p.event == PAVO_AVCTRL_EVENT_SPEEDCHANGE) last_speed = p.double_value;
  }
  PavoAVCtrlPlayState state = PAVO_AVCTRL_PLAYSTATE_STOPPED;
  double speed = -1;
  EXPECT_EQ(Pavo_AVCtrl_GetPlayState(av_, &state), 0);
  EXPECT_EQ(Pavo_AVCtrl_GetCurrentSpeed(av_, &speed), 0);
  EXPECT_EQ(state, last_state) << log_.dump();
  EXPECT_EQ(speed, last_speed) << log_.dump();
}

// Objects made, loaded, played and destroyed at once, on two threads, while
// the service's reports for them are on their way. The library frees each
// object in Destroy (AddressSanitizer leg: no use after free). Destroy does
// not wait for a post already running on another thread, so a page that
// frees its user data unregisters first: every other object does, and its
// user data is marked dead when UnregisterCallback returns (and kept, so
// that the check itself reads valid memory): no post may come after that.
TEST_F(EndToEnd, ObjectsDestroyedWhileTheirEventsAreInFlight) {
  static std::atomic<long> late_posts{0};
  std::mutex graveyard_mu;
  std::vector<std::unique_ptr<std::atomic<bool>>> graveyard;  // each page's "live" flag
  const auto end = std::chrono::steady_clock::now() + kStress;
  std::atomic<long> objects{0};
  auto churn = [&] {
    for (bool unregister_first = true; std::chrono::steady_clock::now() < end;
         unregister_first = !unregister_first) {
      void* av = nullptr;
      if (Pavo_AVCtrl_Create(nullptr, &av) != 0) continue;
      auto live = std::make_unique<std::atomic<bool>>(true);
      Pavo_AVCtrl_RegisterCallback(
          av,
          [](PavoAVCtrlEvent, const PavoAVCtrlEventInfo*, const void* user) {
            if (!static_cast<const std::atomic<bool>*>(user)->load()) ++late_posts;
          },
          live.get());
      Pavo_AVCtrl_Load(av, kVod);
      Pavo_AVCtrl_Play(av, 2.0);
      Pavo_AVCtrl_Seek(av, 5000.0);
      Pavo_AVCtrl_SelectComponent(av, PAVO_AV_COMPONENT_TYPE_AUDIO, 1);
      if (unregister_first) {
        Pavo_AVCtrl_UnregisterCallback(av);
        live->store(false);
      }
      Pavo_AVCtrl_Destroy(av);
      std::lock_guard<std::mutex> lock(graveyard_mu);
      graveyard.push_back(std::move(live));
      ++objects;
    }
  };
  alarm(kHangLimitSeconds);
  std::thread other(churn);
  churn();
  other.join();
  alarm(0);
  EXPECT_GT(objects.load(), 0);
  EXPECT_EQ(late_posts.load(), 0);
  // The fixture's own object is still served.
  play_until_playing(kVod);
}

}  // namespace
}  // namespace pavo::e2e
