// End to end: the plug-in's calls in this process, the library, the
// transport, and pavo-media-service as a child process answering and
// reporting like a real player.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>

#include "e2e_fixture.h"
#include "support/test_queues.h"

namespace pavo::e2e {
namespace {

using ::testing::ElementsAre;

constexpr int kState = PAVO_AVCTRL_EVENT_PLAYSTATECHANGE;
constexpr int kSpeed = PAVO_AVCTRL_EVENT_SPEEDCHANGE;
constexpr int kComponent = PAVO_AVCTRL_EVENT_COMPONENTCHANGE;

// The walkthroughs of a request (play at 1.0) and of an event (the player
// starts playing) from end to end: connecting and the unchanged speed are
// posted on the caller's thread during the calls; the service's reports
// reach the plug-in on the library's event thread as buffering, the
// held-back speed and playing, in this order.
TEST_F(EndToEnd, LoadAndPlayReachPlayingThroughTheServicesReports) {
  ASSERT_EQ(Pavo_AVCtrl_Load(av_, kVod), 0);
  ASSERT_EQ(Pavo_AVCtrl_Play(av_, 1.0), 0);
  ASSERT_GE(wait_state(PAVO_AVCTRL_PLAYSTATE_PLAYING), 0) << log_.dump();
  std::vector<std::pair<int, double>> seen;
  const std::vector<Post> posts = log_.posts();
  for (std::size_t i = 0; i < posts.size(); ++i) {
    seen.emplace_back(posts[i].event, posts[i].event == kSpeed ? posts[i].double_value : posts[i].int_value);
    EXPECT_EQ(posts[i].thread == std::this_thread::get_id(), i < 2) << "post " << i;
  }
  EXPECT_THAT(seen, ElementsAre(std::make_pair(kState, 3.0), std::make_pair(kSpeed, 1.0),
                                std::make_pair(kState, 4.0), std::make_pair(kSpeed, 1.0),
                                std::make_pair(kState, 1.0)))
      << log_.dump();
  double duration = 0;
  EXPECT_EQ(Pavo_AVCtrl_GetPlayTime(av_, &duration), 0);
  EXPECT_EQ(duration, 60000.0);
  // The media clock runs: the position grows before the item's end (where
  // a stopped clock would jump to).
  const double first = position_ms();
  EXPECT_TRUE(pavo::test::wait_until(
      [&] {
        const double now = position_ms();
        return now > first && now < duration;
      },
      wait_limit()));
}

// The item's URL is 3000 bytes long: a request of several frames.
TEST_F(EndToEnd, ShortItemPlaysToFinishedAndStopsAtItsEnd) {
  play_until_playing(("http://media.test/short.mp4?session=" + std::string(3000, '1')).c_str());
  ASSERT_GE(wait_state(PAVO_AVCTRL_PLAYSTATE_FINISHED), 0) << log_.dump();
  EXPECT_EQ(position_ms(), 3000.0);
  // Playing again starts a new pass from the beginning.
  const std::size_t mark = log_.posts().size();
  ASSERT_EQ(Pavo_AVCtrl_Play(av_, 1.0), 0);
  EXPECT_GE(wait_state(PAVO_AVCTRL_PLAYSTATE_PLAYING, mark), 0) << log_.dump();
  EXPECT_LT(position_ms(), 3000.0);
}

// Rewinding that reaches the start: the service reports the end of the
// rewind, and the library turns it back into playback at normal speed.
TEST_F(EndToEnd, RewindToTheStartResumesAtNormalSpeed) {
  play_until_playing(kVod);
  ASSERT_EQ(Pavo_AVCtrl_Play(av_, -8.0), 0);
  const int rewinding = log_.wait_for(kSpeed, double_near(-8.0));
  ASSERT_GE(rewinding, 0) << log_.dump();
  EXPECT_GE(log_.wait_for(kSpeed, double_near(1.0), static_cast<std::size_t>(rewinding)), 0) << log_.dump();
}

// Pause before play: the object is paused at once without the service;
// the service's connecting and buffering reports after the load are held
// off, and its "playing" once the media is there is applied.
TEST_F(EndToEnd, PauseBeforePlayHoldsOffConnectingAndBuffering) {
  ASSERT_EQ(Pavo_AVCtrl_Pause(av_), 0);
  ASSERT_EQ(Pavo_AVCtrl_Load(av_, kVod), 0);
  ASSERT_GE(wait_state(PAVO_AVCTRL_PLAYSTATE_PLAYING), 0) << log_.dump();
  std::vector<int> states;
  for (const Post& p : log_.posts()) {
    if (p.event == kState) states.push_back(p.int_value);
  }
  EXPECT_THAT(states, ElementsAre(PAVO_AVCTRL_PLAYSTATE_PAUSED, PAVO_AVCTRL_PLAYSTATE_PLAYING)) << log_.dump();
}

TEST_F(EndToEnd, SelectingTracksPostsComponentChangesAndMovesTheActiveTrack) {
  play_until_playing(kVod);
  PavoAVCtrlTrackInfo track{};
  ASSERT_EQ(Pavo_AVCtrl_GetAVComponentByIndex(av_, PAVO_AV_COMPONENT_TYPE_AUDIO, 1, &track), 0);
  EXPECT_EQ(track.audio.audioChannels, 6);

  const struct {
    PavoAVComponentType type;
    int index;
    bool select;
    int active_after;
  } switches[] = {
      {PAVO_AV_COMPONENT_TYPE_AUDIO, 1, true, 1},
      {PAVO_AV_COMPONENT_TYPE_SUBTITLE, 1, true, 1},
      {PAVO_AV_COMPONENT_TYPE_SUBTITLE, 1, false, 0},  // none active reads as 0
      {PAVO_AV_COMPONENT_TYPE_AUDIO, 0, true, 0},
  };
  for (const auto& s : switches) {
    SCOPED_TRACE(::testing::Message() << "type " << s.type << " index " << s.index << " select " << s.select);
    const std::size_t mark = log_.posts().size();
    ASSERT_EQ(s.select ? Pavo_AVCtrl_SelectComponent(av_, s.type, s.index)
                       : Pavo_AVCtrl_UnselectComponent(av_, s.type, s.index),
              0);
    ASSERT_GE(log_.wait_for(kComponent, int_is(s.type), mark), 0) << log_.dump();
    int active = -1;
    EXPECT_EQ(Pavo_AVCtrl_GetCurrentActiveComponent(av_, s.type, &active), 0);
    EXPECT_EQ(active, s.active_after);
  }
  PavoAVCtrlTrackInfo subtitle{};
  ASSERT_EQ(Pavo_AVCtrl_GetAVComponentByIndex(av_, PAVO_AV_COMPONENT_TYPE_SUBTITLE, 1, &subtitle), 0);
  EXPECT_EQ(subtitle.subtitle.language, "fra");
  EXPECT_TRUE(subtitle.subtitle.hearingImpaired);
}

// Items that fail while connecting: the error code the page reads and the
// events it gets.
TEST_F(EndToEnd, FailingItemsEndInTheErrorStateWithTheirCode) {
  const struct {
    const char* url;
    int error;  // PavoAVCtrlPlayStateError read afterwards
    bool drm_event;
  } cases[] = {
      {"http://media.test/error-network.mp4", PAVO_AVCTRL_ERROR_CONNECTION, false},
      {"http://media.test/error-format.mp4", PAVO_AVCTRL_ERROR_FORMAT, false},
      {"http://media.test/error-decoder.mp4", PAVO_AVCTRL_ERROR_CORRUPT, false},
      {"http://media.test/no-such-item.mp4", PAVO_AVCTRL_ERROR_CONNECTION, false},
      {"http://media.test/error-encrypted.mp4", -1, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.url);
    const std::size_t mark = log_.posts().size();
    ASSERT_EQ(Pavo_AVCtrl_Load(av_, c.url), 0);
    ASSERT_GE(wait_state(PAVO_AVCTRL_PLAYSTATE_ERROR, mark), 0) << log_.dump();
    PavoAVCtrlPlayStateError error = PAVO_AVCTRL_ERROR_NONE;
    if (c.error >= 0) {
      EXPECT_EQ(Pavo_AVCtrl_GetError(av_, &error), 0);
      EXPECT_EQ(error, c.error);
    }
    if (c.drm_event) {
      EXPECT_GE(log_.wait_for(PAVO_AVCTRL_EVENT_DRMERROR, int_is(2001), mark), 0) << log_.dump();
    }
  }
}

}  // namespace
}  // namespace pavo::e2e
