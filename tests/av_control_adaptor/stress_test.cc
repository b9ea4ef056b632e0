// Plug-in threads drive one object while the service floods it with state,
// speed and seek events: nothing deadlocks, no post is lost, and the object
// ends in the state that the last events describe.
#include <thread>

#include "avctrl_harness.h"

namespace pavo::test {
namespace {

TEST_F(AvctrlTest, PlugInThreadsAndAnEventFloodStayConsistent) {
  constexpr int kThreads = 4, kRounds = 10, kSeekEvents = 150;
  with_requests_ = false;  // posts only: keeps the callback cheap
  std::vector<std::thread> plug_in;
  for (int t = 0; t < kThreads; ++t) {
    plug_in.emplace_back([this, t] {
      for (int i = 0; i < kRounds; ++i) {
        double d = 0;
        PavoAVCtrlPlayState state{};
        Pavo_AVCtrl_Play(handle_, (i + t) % 3 + 1.0);
        Pavo_AVCtrl_Pause(handle_);
        Pavo_AVCtrl_Seek(handle_, (i + t) * 10.0);
        Pavo_AVCtrl_GetPosition(handle_, &d);
        Pavo_AVCtrl_GetPlayState(handle_, &state);
        Pavo_AVCtrl_GetCurrentSpeed(handle_, &d);
      }
    });
  }
  // Seek completions carry distinct positions: each must be posted once, in
  // order, among whatever else the events and the threads post. The last
  // word: playing at 1.5; the first of the two last completions may start a
  // seek that waited, the second ends it.
  int sent = 0;
  auto send = [&](PavoMediaPluginEvent event, int data1, double data2 = 0.0) {
    sent += service_.send_event(player_event(event, data1, data2));
  };
  const int states[] = {5, 4, 6, 5, 2, 7, 0, 5};
  for (int i = 0; i < kSeekEvents; ++i) {
    send(PAVO_MEDIA_PLUGIN_EVENT_STATECHANGE, states[i % 8]);
    send(PAVO_MEDIA_PLUGIN_EVENT_SPEEDCHANGE, 1000 * (i % 4 - 1));
    send(PAVO_MEDIA_PLUGIN_EVENT_SEEKCOMPLETED, 0, 1000.0 + i);
  }
  for (auto& thread : plug_in) thread.join();
  send(PAVO_MEDIA_PLUGIN_EVENT_STATECHANGE, 5);
  send(PAVO_MEDIA_PLUGIN_EVENT_SPEEDCHANGE, 1500);
  send(PAVO_MEDIA_PLUGIN_EVENT_SEEKCOMPLETED, 0, 5000.0);
  send(PAVO_MEDIA_PLUGIN_EVENT_SEEKCOMPLETED, 0, 5001.0);
  ASSERT_EQ(sent, 3 * kSeekEvents + 4);
  ASSERT_TRUE(wait_until([&] { return !seen().empty() && seen().back().second == 5001000.0; },
                         std::chrono::seconds(60)))
      << "deadlock or lost post";

  std::vector<double> positions;
  for (const auto& [event, value] : seen()) {
    if (event == kPosition && value >= 1000000.0) positions.push_back(value);
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
