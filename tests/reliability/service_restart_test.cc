// A restarted service has none of the players of the old one: each object
// whose player is gone is told once (play state error, GetError
// "connection") and its next Load creates a player in the new service. A
// service that only hangs and continues keeps its players: nobody is told.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "e2e_fixture.h"
#include "support/reply_timeout_override.h"
#include "support/test_queues.h"

namespace pavo::e2e {
namespace {

constexpr const char* kVod = "http://media.test/vod.mp4";

void record(PavoAVCtrlEvent event, const PavoAVCtrlEventInfo* info, const void* user_data) {
  auto* log = static_cast<PostLog*>(const_cast<void*>(user_data));
  log->add({event, info->value.intValue, info->value.doubleValue, std::this_thread::get_id()});
}

int count_states(PostLog& log, int state, std::size_t from) {
  const auto posts = log.posts();
  int n = 0;
  for (std::size_t i = from; i < posts.size(); ++i) {
    n += posts[i].event == PAVO_AVCTRL_EVENT_PLAYSTATECHANGE && posts[i].int_value == state;
  }
  return n;
}

class ServiceRestart : public EndToEnd {
 protected:
  // A second object, playing too (the service gives it the next id).
  void SetUp() override {
    EndToEnd::SetUp();
    ASSERT_EQ(Pavo_AVCtrl_Create(nullptr, &other_), 0);
    ASSERT_EQ(Pavo_AVCtrl_RegisterCallback(other_, record, &other_log_), 0);
  }
  void TearDown() override {
    // Destroy waits for no post in flight; unregistering does, so the log
    // outlives every post.
    if (other_ != nullptr) Pavo_AVCtrl_UnregisterCallback(other_);
    if (other_ != nullptr) Pavo_AVCtrl_Destroy(other_);
    EndToEnd::TearDown();
  }
  // The page's position poll, the only call it makes meanwhile.
  void poll() {
    double position = 0;
    Pavo_AVCtrl_GetPosition(av_, &position);
  }

  void* other_ = nullptr;
  PostLog other_log_;
};

TEST_F(ServiceRestart, LostPlayersAreToldOnceAndLoadMakesANewOne) {
  play_until_playing(kVod);
  ASSERT_EQ(Pavo_AVCtrl_Load(other_, kVod), 0);
  const std::size_t before = log_.posts().size();
  const std::size_t other_before = other_log_.posts().size();

  service_.kill_now();
  ASSERT_TRUE(service_.start(kTimeScale, wait_limit())) << service_.output();
  ASSERT_TRUE(pavo::test::wait_until(
      [&] {
        poll();
        return count_states(log_, PAVO_AVCTRL_PLAYSTATE_ERROR, before) > 0 &&
               count_states(other_log_, PAVO_AVCTRL_PLAYSTATE_ERROR, other_before) > 0;
      },
      wait_limit()))
      << log_.dump();
  for (int i = 0; i < 5; ++i) poll();
  EXPECT_EQ(count_states(log_, PAVO_AVCTRL_PLAYSTATE_ERROR, before), 1) << log_.dump();
  EXPECT_EQ(count_states(other_log_, PAVO_AVCTRL_PLAYSTATE_ERROR, other_before), 1) << other_log_.dump();
  for (void* av : {av_, other_}) {
    PavoAVCtrlPlayStateError error = PAVO_AVCTRL_ERROR_NONE;
    EXPECT_EQ(Pavo_AVCtrl_GetError(av, &error), 0);
    EXPECT_EQ(error, PAVO_AVCTRL_ERROR_CONNECTION);
  }

  // The other object loads first and gets the new service's first id, the
  // id that av_'s lost player had. Requests and the destruction of av_ must
  // leave that new player and its registration alone.
  // Requests of av_ are refused, not sent with that id.
  const std::size_t reload = other_log_.posts().size();
  ASSERT_EQ(Pavo_AVCtrl_Load(other_, kVod), 0);
  EXPECT_EQ(Pavo_AVCtrl_Stop(av_), -1);
  Pavo_AVCtrl_Destroy(av_);
  av_ = nullptr;
  ASSERT_EQ(Pavo_AVCtrl_Play(other_, 1.0), 0);
  const int connecting = other_log_.wait_for(PAVO_AVCTRL_EVENT_PLAYSTATECHANGE,
                                             int_is(PAVO_AVCTRL_PLAYSTATE_CONNECTING), reload);
  const int buffering = other_log_.wait_for(PAVO_AVCTRL_EVENT_PLAYSTATECHANGE,
                                            int_is(PAVO_AVCTRL_PLAYSTATE_BUFFERING), reload);
  const int playing = other_log_.wait_for(PAVO_AVCTRL_EVENT_PLAYSTATECHANGE,
                                          int_is(PAVO_AVCTRL_PLAYSTATE_PLAYING), reload);
  EXPECT_GE(connecting, 0) << other_log_.dump();
  EXPECT_GT(buffering, connecting) << other_log_.dump();
  EXPECT_GT(playing, buffering) << other_log_.dump();
  double duration = 0;
  EXPECT_EQ(Pavo_AVCtrl_GetPlayTime(other_, &duration), 0);
  EXPECT_EQ(duration, 60000.0);
}

// An object made while the service is down has no player; its first Load
// after the service is back makes one.
TEST_F(ServiceRestart, ObjectMadeWhileTheServiceIsDownLoadsLater) {
  service_.kill_now();
  void* late = nullptr;
  ASSERT_EQ(Pavo_AVCtrl_Create(nullptr, &late), 0);
  PostLog late_log;
  ASSERT_EQ(Pavo_AVCtrl_RegisterCallback(late, record, &late_log), 0);
  ASSERT_TRUE(service_.start(kTimeScale, wait_limit())) << service_.output();
  EXPECT_TRUE(pavo::test::wait_until([&] { return Pavo_AVCtrl_Load(late, kVod) == 0; }, wait_limit()));
  ASSERT_EQ(Pavo_AVCtrl_Play(late, 1.0), 0);
  EXPECT_GE(late_log.wait_for(PAVO_AVCTRL_EVENT_PLAYSTATECHANGE, int_is(PAVO_AVCTRL_PLAYSTATE_PLAYING)), 0)
      << late_log.dump();
  Pavo_AVCtrl_UnregisterCallback(late);  // late_log outlives every post
  Pavo_AVCtrl_Destroy(late);
}

// A hung service that continues still has its players: no object is told
// an error, and the old player answers.
TEST_F(ServiceRestart, HungServiceKeepsItsPlayers) {
  pavo::test::ReplyTimeoutOverride bound(std::chrono::milliseconds(500));
  play_until_playing(kVod);
  const std::size_t before = log_.posts().size();
  service_.suspend();
  double duration = 0;
  EXPECT_EQ(Pavo_AVCtrl_GetPlayTime(av_, &duration), -1);
  service_.resume();
  ASSERT_TRUE(pavo::test::wait_until([&] { return Pavo_AVCtrl_GetPlayTime(av_, &duration) == 0; },
                                     wait_limit()));
  EXPECT_EQ(duration, 60000.0);
  ASSERT_EQ(Pavo_AVCtrl_Pause(av_), 0);
  EXPECT_GE(wait_state(PAVO_AVCTRL_PLAYSTATE_PAUSED, before), 0) << log_.dump();
  EXPECT_EQ(count_states(log_, PAVO_AVCTRL_PLAYSTATE_ERROR, before), 0) << log_.dump();
}

}  // namespace
}  // namespace pavo::e2e
