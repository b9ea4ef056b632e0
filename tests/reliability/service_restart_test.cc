// A restarted service has none of the players of the old one: each object
// whose player is gone is told once (play state error, GetError
// "connection") and its next Load creates a player in the new service. A
// service that only hangs and continues keeps its players: nobody is told.
#include <gtest/gtest.h>

#include <chrono>

#include "e2e_fixture.h"
#include "support/reply_timeout_override.h"
#include "support/test_queues.h"

namespace pavo::e2e {
namespace {

int count_states(PostLog& log, int state, std::size_t from) {
  const auto posts = log.posts();
  int n = 0;
  for (std::size_t i = from; i < posts.size(); ++i) {
    n += posts[i].event == PAVO_AVCTRL_EVENT_PLAYSTATECHANGE && posts[i].int_value == state;
  }
  return n;
}

TEST_F(EndToEnd, LostPlayersAreToldOnceAndLoadMakesANewOne) {
  // A second object, with a player too (the service gives it the next id).
  void* other = nullptr;
  static PostLog other_log;  // outlives every post
  ASSERT_EQ(Pavo_AVCtrl_Create(nullptr, &other), 0);
  ASSERT_EQ(Pavo_AVCtrl_RegisterCallback(other, record, &other_log), 0);
  play_until_playing(kVod);
  ASSERT_EQ(Pavo_AVCtrl_Load(other, kVod), 0);
  const std::size_t before = log_.posts().size();
  const std::size_t other_before = other_log.posts().size();

  service_.kill_now();
  ASSERT_TRUE(service_.start(kTimeScale, wait_limit())) << service_.output();
  // The page's position poll, the only call it makes meanwhile.
  const auto poll = [&] { position_ms(); };
  ASSERT_TRUE(pavo::test::wait_until(
      [&] {
        poll();
        return count_states(log_, PAVO_AVCTRL_PLAYSTATE_ERROR, before) > 0 &&
               count_states(other_log, PAVO_AVCTRL_PLAYSTATE_ERROR, other_before) > 0;
      },
      wait_limit()))
      << log_.dump();
  for (int i = 0; i < 5; ++i) poll();
  EXPECT_EQ(count_states(log_, PAVO_AVCTRL_PLAYSTATE_ERROR, before), 1) << log_.dump();
  EXPECT_EQ(count_states(other_log, PAVO_AVCTRL_PLAYSTATE_ERROR, other_before), 1) << other_log.dump();
  for (void* av : {av_, other}) {
    PavoAVCtrlPlayStateError error = PAVO_AVCTRL_ERROR_NONE;
    EXPECT_EQ(Pavo_AVCtrl_GetError(av, &error), 0);
    EXPECT_EQ(error, PAVO_AVCTRL_ERROR_CONNECTION);
  }

  // The other object loads first and gets the new service's first id, the
  // id that av_'s lost player had. Requests of av_ are refused, not sent
  // with that id, and its destruction leaves that new player and its
  // registration alone.
  const std::size_t reload = other_log.posts().size();
  ASSERT_EQ(Pavo_AVCtrl_Load(other, kVod), 0);
  EXPECT_EQ(Pavo_AVCtrl_Stop(av_), -1);
  Pavo_AVCtrl_Destroy(av_);
  av_ = nullptr;
  ASSERT_EQ(Pavo_AVCtrl_Play(other, 1.0), 0);
  EXPECT_GE(other_log.wait_for(PAVO_AVCTRL_EVENT_PLAYSTATECHANGE, int_is(PAVO_AVCTRL_PLAYSTATE_PLAYING), reload),
            0)
      << other_log.dump();
  Pavo_AVCtrl_Destroy(other);
}

// An object made while the service is down has no player; its first Load
// after the service is back makes one.
TEST_F(EndToEnd, ObjectMadeWhileTheServiceIsDownLoadsLater) {
  service_.kill_now();
  void* late = nullptr;
  ASSERT_EQ(Pavo_AVCtrl_Create(nullptr, &late), 0);
  static PostLog late_log;  // outlives every post
  ASSERT_EQ(Pavo_AVCtrl_RegisterCallback(late, record, &late_log), 0);
  ASSERT_TRUE(service_.start(kTimeScale, wait_limit())) << service_.output();
  EXPECT_TRUE(pavo::test::wait_until([&] { return Pavo_AVCtrl_Load(late, kVod) == 0; }, wait_limit()));
  ASSERT_EQ(Pavo_AVCtrl_Play(late, 1.0), 0);
  EXPECT_GE(late_log.wait_for(PAVO_AVCTRL_EVENT_PLAYSTATECHANGE, int_is(PAVO_AVCTRL_PLAYSTATE_PLAYING)), 0)
      << late_log.dump();
  Pavo_AVCtrl_Destroy(late);
}

// A hung service that continues still has its players: the call that timed
// out is refused, later calls fail fast while it is silent, the late reply
// to the timed-out request ends the fast failing, no object is told an
// error, and the old player answers.
TEST_F(EndToEnd, HungServiceThatContinuesKeepsItsPlayers) {
  pavo::test::ReplyTimeoutOverride bound(std::chrono::milliseconds(500));
  play_until_playing(kVod);
  const std::size_t before = log_.posts().size();
  service_.suspend();
  double duration = 0;
  EXPECT_EQ(Pavo_AVCtrl_GetPlayTime(av_, &duration), -1);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(Pavo_AVCtrl_GetPlayTime(av_, &duration), -1);
  EXPECT_LE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(100)) << "no fast failure";
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
