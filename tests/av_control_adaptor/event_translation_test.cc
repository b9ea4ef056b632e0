// The service's player events as the plug-in sees them: state filters, held
// back speeds, the rewind recovery, errors, seeks and track events.
#include "avctrl_harness.h"

namespace pavo::test {
namespace {

enum : int32_t { PLAY = AVCTRL_CMD_PLAY, PAUSE = AVCTRL_CMD_PAUSE, SEEK, NONE };
constexpr double kNone = PAVO_AVCTRL_PENDING_NONE;
constexpr const char* kFn = "mediaplayer_adaptor_callback";

TEST_F(AvctrlTest, StateReportsPassTheFiltersAsTheTableSays) {
  const struct {
    int32_t state, prev, command;
    double speed, pending;
    int report;
    Seen seen;
    int32_t state_after, error_after;  // error before: 1
  } rows[] = {
      // clang-format off
      // state  prev  command speed pending report  seen  state after  error after
      {PLAYING, PAUSED, PLAY, 1, 1.5, 5, {{kSpeed, 1.5}}, PLAYING, 1},
      {PLAYING, STOPPED, PLAY, 1, kNone, 3, {}, PLAYING, 1},                 // ignored states
      {PLAYING, STOPPED, PLAY, 1, kNone, 11, {}, PLAYING, 1},
      {PLAYING, STOPPED, PLAY, 1, kNone, -1, {}, PLAYING, 1},
      {PLAYING, STOPPED, PLAY, 1, kNone, 7, {{kState, BUFFERING}}, BUFFERING, -1},
      {STOPPED, STOPPED, NONE, 1, kNone, 2, {{kState, CONNECTING}}, CONNECTING, -1},
      {PLAYING, STOPPED, PLAY, 1, kNone, 0, {{kState, STOPPED}}, STOPPED, -1},
      {PAUSED, STOPPED, PLAY, 1, kNone, 1, {{kState, STOPPED}}, STOPPED, -1},
      {BUFFERING, STOPPED, PLAY, 1, kNone, 9, {{kState, STOPPED}}, STOPPED, -1},
      {CONNECTING, STOPPED, NONE, 1, kNone, 0, {}, CONNECTING, 1},           // old stop
      {PLAYING, PAUSED, PLAY, 1, kNone, 8, {{kState, FINISHED}}, FINISHED, -1},
      // a rewind reaches the start: pause, normal rate, play
      {PLAYING, PAUSED, PLAY, -2, kNone, 8, {{kAsk, 4}, {kAsk, 7}, {kAsk, 3}}, PLAYING, 1},
      {PLAYING, STOPPED, PLAY, 1, kNone, 10, {{kState, ERROR}}, ERROR, 1},  // code kept
      {PAUSED, PLAYING, PAUSE, 0, kNone, 4, {}, PAUSED, 1},                 // unchanged
      {PAUSED, PLAYING, SEEK, 0, kNone, 6, {}, PAUSED, 1},                  // paused seek
      {PLAYING, PAUSED, SEEK, 1, kNone, 6, {{kState, BUFFERING}}, BUFFERING, -1},
      {PAUSED, CONNECTING, PAUSE, 1, kNone, 7, {}, PAUSED, -1},             // early pause
      {PAUSED, PLAYING, PAUSE, 1, kNone, 6, {{kState, BUFFERING}}, BUFFERING, -1},
      // clang-format on
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::Message() << "state " << row.state << ", report " << row.report);
    clear();
    put(row.state, row.prev, row.command, row.speed, row.pending);
    event(PAVO_MEDIA_PLUGIN_EVENT_STATECHANGE, row.report);
    EXPECT_EQ(seen(), row.seen);
    EXPECT_EQ(ctx()->play_state, row.state_after);
    EXPECT_EQ(ctx()->prev_state, row.state_after != row.state ? row.state : row.prev);
    EXPECT_EQ(ctx()->error, row.error_after);
    for (const Json::Value& rate : requests_of(7)) EXPECT_EQ(rate["play_rate"], 1000.0);
    EXPECT_EQ(logged(kFn,
                     "Resume at normal speed  during rewinding the playback reaches the point "
                     "that it cannot be rewound further"),
              !requests_of(7).empty());
  }
}

// From a fresh object: a pause made before playback started holds against
// connecting and buffering reports; a speed reported while not playing is
// posted once, just before playing (a fresh object holds back 0).
TEST_F(AvctrlTest, EarlyPauseHoldsAndSpeedsWaitForPlaying) {
  Pavo_AVCtrl_Pause(handle_);
  for (int s : {2, 6, 5}) event(PAVO_MEDIA_PLUGIN_EVENT_STATECHANGE, s);
  EXPECT_TRUE(logged(kFn, "receive msg PAVO_MEDIA_PLUGIN_EVENT_STATECHANGE state=3"));
  EXPECT_TRUE(logged(kFn, "state from stopped to paused, igure connecting and buffering state"));
  EXPECT_TRUE(logged(kFn, "invoke js callback"));
  event(PAVO_MEDIA_PLUGIN_EVENT_SPEEDCHANGE, -8000);
  event(PAVO_MEDIA_PLUGIN_EVENT_STATECHANGE, 4);
  event(PAVO_MEDIA_PLUGIN_EVENT_SPEEDCHANGE, 2000);  // held back
  EXPECT_EQ(
      seen(),
      (Seen{{kState, PAUSED}, {kSpeed, 0.0}, {kState, PLAYING}, {kSpeed, -8.0}, {kState, PAUSED}}));
  EXPECT_EQ(ctx()->speed, 2.0);
  clear();
  for (int s : {5, 4, 5}) event(PAVO_MEDIA_PLUGIN_EVENT_STATECHANGE, s);
  EXPECT_EQ(seen(), (Seen{{kSpeed, 2.0}, {kState, PLAYING}, {kState, PAUSED}, {kState, PLAYING}}));
}

TEST_F(AvctrlTest, ErrorsAreRecordedAndPostedAsTheTableSays) {
  const int kDrm = PAVO_AVCTRL_EVENT_DRMERROR, kMedia = PAVO_AVCTRL_EVENT_MEDIAERROR;
  const struct {
    int error, data1, recorded;  // recorded -1: unchanged
    Seen seen;
  } rows[] = {{0, 0, 1, {}},           {1, 0, 0, {}},           {2, 0, 4, {}},
              {3, 42, -1, {{kDrm, 42}}}, {4, 0, 4, {{kMedia, 0}}}, {5, 9, -1, {{kMedia, 0}}},
              {6, 0, 5, {{kMedia, 0}}},  {-3, 0, -1, {{kMedia, 0}}}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.error);
    clear();
    ctx()->error = -1;
    event(PAVO_MEDIA_PLUGIN_EVENT_ERROR, row.data1, 0.0, row.error);
    EXPECT_EQ(ctx()->error, row.recorded);
    EXPECT_EQ(seen(), row.seen);
    EXPECT_EQ(logged(kFn, "receive DRM errorCode=42"), row.error == 3);
  }
}

TEST_F(AvctrlTest, TrackEventsCollectTheComponentsAndOnlyTrackChangesPost) {
  answer(23, reply_with(0, "num", 2));
  for (const auto& [data1, component, track_type] : {std::tuple{1, 1, 1}, {7, -1, 3}}) {
    clear();
    event(PAVO_MEDIA_PLUGIN_EVENT_TRACKCHANGE, data1);
    EXPECT_EQ(seen(), (Seen{{kAsk, 23}, {kAsk, 24}, {kAsk, 24}, {kComponent, component}}));
    EXPECT_EQ(requests_of(23).at(0)["track_type"], track_type);
  }
  clear();
  event(PAVO_MEDIA_PLAYER_EVENT_COMPONENT_UPDATED, 2);
  for (int unknown : {2, 3, 8, -1}) event(static_cast<PavoMediaPluginEvent>(unknown), 5, 1.0);
  mediaplayer_adaptor_callback(PAVO_MEDIA_PLUGIN_EVENT_STATECHANGE, PAVO_MEDIA_ERR_NETWORK, nullptr,
                               5, 0);
  EXPECT_EQ(seen(), (Seen{{kAsk, 23}, {kAsk, 24}, {kAsk, 24}})) << "collected, nothing posted";
  EXPECT_EQ(requests_of(23).at(0)["track_type"], 2);
}

}  // namespace
}  // namespace pavo::test
