// Plug-in threads drive one object while the service floods it with state,
// speed and seek events: nothing deadlocks, no post is lost, and the object
// ends in the state that the last events describe.
#include <thread>

#include "avctrl_harness.h"
#include "support/test_queues.h"

namespace pavo::test {
namespace {

TEST_F(AvctrlTest, PlugInThreadsAndAnEventFloodStayConsistent) {
  constexpr int kThreads = 4, kRounds = 60, kSeekEvents = 150;
  recorder_.request_count = nullptr;  // keeps the callback cheap
  std::vector<std::thread> plug_in;
  for (int t = 0; t < kThreads; ++t) {
    plug_in.emplace_back([this, t] {
      for (int i = 0; i < kRounds; ++i) {
        double d = 0;
        PavoAVCtrlPlayState state{};
        switch ((i + t) % 6) {
          case 0:
            Pavo_AVCtrl_Play(handle_, i % 3 + 1.0);
            break;
          case 1:
            Pavo_AVCtrl_Pause(handle_);
            break;
          case 2:
            Pavo_AVCtrl_Seek(handle_, i * 10.0);
            break;
          case 3:
            Pavo_AVCtrl_GetPosition(handle_, &d);
            break;
          case 4:
            Pavo_AVCtrl_GetPlayState(handle_, &state);
            break;
          default:
            Pavo_AVCtrl_GetCurrentSpeed(handle_, &d);
            break;
        }
      }
    });
  }
  // Seek completions carry distinct positions: each must be posted once, in
  // order, among whatever else the events and the threads post.
  const int states[] = {5, 4, 6, 5, 2, 7, 0, 5};
  for (int i = 0; i < kSeekEvents; ++i) {
    ASSERT_TRUE(
        service_.send_event(player_event(PAVO_MEDIA_PLUGIN_EVENT_STATECHANGE, states[i % 8])));
    ASSERT_TRUE(
        service_.send_event(player_event(PAVO_MEDIA_PLUGIN_EVENT_SPEEDCHANGE, 1000 * (i % 4 - 1))));
    ASSERT_TRUE(
        service_.send_event(player_event(PAVO_MEDIA_PLUGIN_EVENT_SEEKCOMPLETED, 0, 1000.0 + i)));
  }
  for (auto& thread : plug_in) thread.join();
  // The last word: playing at 1.5; the first completion may start a seek
  // that waited, the second ends it.
  for (const Json::Value& e : {player_event(PAVO_MEDIA_PLUGIN_EVENT_STATECHANGE, 5),
                               player_event(PAVO_MEDIA_PLUGIN_EVENT_SPEEDCHANGE, 1500),
                               player_event(PAVO_MEDIA_PLUGIN_EVENT_SEEKCOMPLETED, 0, 5000.0),
                               player_event(PAVO_MEDIA_PLUGIN_EVENT_SEEKCOMPLETED, 0, 5001.0)}) {
    ASSERT_TRUE(service_.send_event(e));
  }
  ASSERT_TRUE(wait_until(
      [&] {
        const auto posts = recorder_.posts();
        return !posts.empty() && posts.back().value == 5001000.0;
      },
      std::chrono::seconds(60)))
      << "deadlock or lost post";

  std::vector<double> positions;
  for (const Post& p : recorder_.posts()) {
    if (p.event == PAVO_AVCTRL_EVENT_POSITIONCHANGE && p.value >= 1000000.0)
      positions.push_back(p.value);
  }
  ASSERT_EQ(positions.size(), static_cast<size_t>(kSeekEvents + 2));
  for (int i = 0; i < kSeekEvents; ++i) EXPECT_EQ(positions[i], (1000.0 + i) * 1000.0);
  PavoAVCtrlPlayState state{};
  double speed = 0;
  Pavo_AVCtrl_GetPlayState(handle_, &state);
  Pavo_AVCtrl_GetCurrentSpeed(handle_, &speed);
  EXPECT_EQ(state, PAVO_AVCTRL_PLAYSTATE_PLAYING);
  EXPECT_EQ(speed, 1.5);
  EXPECT_FALSE(ctx()->seeking) << "the last completion ended every seek";
}

}  // namespace
}  // namespace pavo::test
