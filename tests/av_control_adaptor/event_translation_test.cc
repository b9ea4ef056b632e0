// The service's player events as the plug-in sees them: state filters, held
// back speeds, the rewind recovery, errors, seeks and track events.
#include "av_control_adaptor/event_translation.h"

#include <chrono>
#include <thread>

#include "avctrl_harness.h"

namespace pavo::test {
namespace {

using namespace std::chrono_literals;

constexpr int kState = PAVO_AVCTRL_EVENT_PLAYSTATECHANGE, kSpeed = PAVO_AVCTRL_EVENT_SPEEDCHANGE;
constexpr int kComponent = PAVO_AVCTRL_EVENT_COMPONENTCHANGE;
enum : int32_t { STOPPED, PLAYING, PAUSED, CONNECTING, BUFFERING, FINISHED, ERROR };
enum : int32_t { PLAY = AVCTRL_CMD_PLAY, PAUSE = AVCTRL_CMD_PAUSE, SEEK, NONE };
constexpr double kNone = PAVO_AVCTRL_PENDING_NONE;

TEST_F(AvctrlTest, StateReportsPassTheFiltersAsTheTableSays) {
  const struct {
    int32_t state, prev, command;
    double speed, pending;
    int data1;
    Posts posts;
    int32_t state_after, error_after;  // error before: 1
    std::vector<int> requests;
  } rows[] = {
      // clang-format off
      // state  prev  command speed pending report  posts  state after  error after  requests
      {STOPPED, STOPPED, NONE, 1, 0.0, 5, {{kSpeed, 0.0}, {kState, PLAYING}}, PLAYING, -1, {}},
      {PAUSED, PLAYING, PLAY, 2, 2.0, 5, {{kSpeed, 2.0}, {kState, PLAYING}}, PLAYING, -1, {}},
      {PLAYING, PAUSED, PLAY, 1, 1.5, 5, {{kSpeed, 1.5}}, PLAYING, 1, {}},
      {PLAYING, STOPPED, PLAY, 1, kNone, 3, {}, PLAYING, 1, {}},                // ignored states
      {PLAYING, STOPPED, PLAY, 1, kNone, 11, {}, PLAYING, 1, {}},
      {PLAYING, STOPPED, PLAY, 1, kNone, -1, {}, PLAYING, 1, {}},
      {PLAYING, STOPPED, PAUSE, 0, kNone, 4, {{kState, PAUSED}}, PAUSED, -1, {}},
      {PLAYING, STOPPED, PLAY, 1, kNone, 6, {{kState, BUFFERING}}, BUFFERING, -1, {}},
      {PLAYING, STOPPED, PLAY, 1, kNone, 7, {{kState, BUFFERING}}, BUFFERING, -1, {}},
      {STOPPED, STOPPED, NONE, 1, kNone, 2, {{kState, CONNECTING}}, CONNECTING, -1, {}},
      {PLAYING, STOPPED, PLAY, 1, kNone, 0, {{kState, STOPPED}}, STOPPED, -1, {}},
      {PAUSED, STOPPED, PLAY, 1, kNone, 1, {{kState, STOPPED}}, STOPPED, -1, {}},
      {BUFFERING, STOPPED, PLAY, 1, kNone, 9, {{kState, STOPPED}}, STOPPED, -1, {}},
      {CONNECTING, STOPPED, NONE, 1, kNone, 0, {}, CONNECTING, 1, {}},          // old stop
      {CONNECTING, STOPPED, NONE, 1, kNone, 1, {}, CONNECTING, 1, {}},
      {CONNECTING, STOPPED, NONE, 1, kNone, 9, {}, CONNECTING, 1, {}},
      {PLAYING, PAUSED, PLAY, 1, kNone, 8, {{kState, FINISHED}}, FINISHED, -1, {}},
      {PLAYING, PAUSED, PLAY, -2, kNone, 8, {}, PLAYING, 1, {4, 7, 3}},         // rewind at start
      {PLAYING, STOPPED, PLAY, 1, kNone, 10, {{kState, ERROR}}, ERROR, 1, {}},  // code kept
      {PAUSED, PLAYING, PAUSE, 0, kNone, 4, {}, PAUSED, 1, {}},                 // unchanged
      {PAUSED, PLAYING, SEEK, 0, kNone, 6, {}, PAUSED, 1, {}},                  // paused seek
      {PLAYING, PAUSED, SEEK, 1, kNone, 6, {{kState, BUFFERING}}, BUFFERING, -1, {}},
      {PAUSED, STOPPED, PAUSE, 1, kNone, 2, {}, PAUSED, -1, {}},                // early pause
      {PAUSED, CONNECTING, PAUSE, 1, kNone, 7, {}, PAUSED, -1, {}},
      {PAUSED, STOPPED, PAUSE, 1, kNone, 5, {{kState, PLAYING}}, PLAYING, -1, {}},
      {PAUSED, PLAYING, PAUSE, 1, kNone, 6, {{kState, BUFFERING}}, BUFFERING, -1, {}},
      // clang-format on
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::Message() << "state " << row.state << ", report " << row.data1);
    clear();
    ctx()->play_state = row.state;
    ctx()->prev_state = row.prev;
    ctx()->last_command = row.command;
    ctx()->speed = row.speed;
    ctx()->pending_speed = row.pending;
    ctx()->error = 1;
    event(PAVO_MEDIA_PLUGIN_EVENT_STATECHANGE, row.data1);
    EXPECT_EQ(posted(), row.posts);
    EXPECT_EQ(ctx()->play_state, row.state_after);
    EXPECT_EQ(ctx()->prev_state, row.state_after != row.state ? row.state : row.prev);
    EXPECT_EQ(ctx()->error, row.error_after);
    EXPECT_EQ(request_types(), row.requests);
    if (!row.requests.empty()) {
      EXPECT_EQ(requests_of(7)[0]["play_rate"].asDouble(), 1000.0);
      EXPECT_TRUE(logged("mediaplayer_adaptor_callback",
                         "Resume at normal speed  during rewinding the playback reaches the point "
                         "that it cannot be rewound further"));
    }
  }
}

TEST_F(AvctrlTest, StateReportsAfterAnEarlyPauseAreLoggedAndIgnored) {
  Pavo_AVCtrl_Pause(handle_);  // stopped -> paused before playback started
  event(PAVO_MEDIA_PLUGIN_EVENT_STATECHANGE, 2);
  event(PAVO_MEDIA_PLUGIN_EVENT_STATECHANGE, 6);
  EXPECT_EQ(posted(), (Posts{{kState, PAUSED}}));
  const char* fn = "mediaplayer_adaptor_callback";
  EXPECT_TRUE(logged(fn, "receive msg PAVO_MEDIA_PLUGIN_EVENT_STATECHANGE state=3"));
  EXPECT_TRUE(logged(
      fn, "state map: 0:stopped,1:playing,2:paused,3:connecting,4:buffering,5:finished,6:error"));
  EXPECT_TRUE(logged(fn, "state from stopped to paused, igure connecting and buffering state"));
  event(PAVO_MEDIA_PLUGIN_EVENT_STATECHANGE, 5);
  EXPECT_TRUE(logged(fn, "invoke js callback"));
  EXPECT_EQ(ctx()->play_state, PLAYING);
}

TEST_F(AvctrlTest, SpeedReportsAreHeldBackUntilPlaying) {
  ctx()->play_state = PAUSED;
  event(PAVO_MEDIA_PLUGIN_EVENT_SPEEDCHANGE, 2000);
  double speed = 0;
  Pavo_AVCtrl_GetCurrentSpeed(handle_, &speed);
  EXPECT_EQ(speed, 2.0);
  EXPECT_TRUE(posted().empty());
  event(PAVO_MEDIA_PLUGIN_EVENT_STATECHANGE, 5);
  event(PAVO_MEDIA_PLUGIN_EVENT_SPEEDCHANGE, -8000);
  EXPECT_EQ(posted(), (Posts{{kSpeed, 2.0}, {kState, PLAYING}, {kSpeed, -8.0}}));
  EXPECT_EQ(ctx()->pending_speed, kNone);
  EXPECT_TRUE(logged("mediaplayer_adaptor_callback",
                     "receive msg PAVO_MEDIA_PLUGIN_EVENT_SPEEDCHANGE, speed=-8000"));
}

TEST_F(AvctrlTest, ErrorsAreRecordedAndPostedAsTheTableSays) {
  const int kDrm = PAVO_AVCTRL_EVENT_DRMERROR, kMedia = PAVO_AVCTRL_EVENT_MEDIAERROR;
  const struct {
    int error, data1, recorded;  // recorded -1: unchanged
    Posts posts;
  } rows[] = {{0, 0, 1, {}},
              {1, 0, 0, {}},
              {2, 0, 4, {}},
              {3, 42, -1, {{kDrm, 42}}},
              {4, 0, 4, {{kMedia, 0}}},
              {5, 9, -1, {{kMedia, 0}}},
              {6, 0, 5, {{kMedia, 0}}},
              {-3, 0, -1, {{kMedia, 0}}}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.error);
    clear();
    ctx()->error = -1;
    event(PAVO_MEDIA_PLUGIN_EVENT_ERROR, row.data1, 0.0, row.error);
    EXPECT_EQ(ctx()->error, row.recorded);
    EXPECT_EQ(posted(), row.posts);
    const char* fn = "mediaplayer_adaptor_callback";
    EXPECT_TRUE(logged(
        fn, "receive msg PAVO_MEDIA_PLUGIN_EVENT_ERROR, errorCode=" + std::to_string(row.error)));
    EXPECT_TRUE(logged(fn,
                       "error map: PAVO_MEDIA_ERR_NETWORK:0,PAVO_MEDIA_ERR_FORMAT:1,"
                       "PAVO_MEDIA_ERR_DECODER:2,PAVO_MEDIA_ERR_ENCRYPTED:3"));
    EXPECT_EQ(logged(fn, "receive DRM errorCode=42"), row.error == 3);
  }
  clear();  // a network error, then the service's error state
  event(PAVO_MEDIA_PLUGIN_EVENT_ERROR, 0, 0.0, PAVO_MEDIA_ERR_NETWORK);
  event(PAVO_MEDIA_PLUGIN_EVENT_STATECHANGE, 10);
  EXPECT_EQ(posted(), (Posts{{kState, ERROR}}));
  PavoAVCtrlPlayStateError error{};
  EXPECT_EQ(Pavo_AVCtrl_GetError(handle_, &error), 0);
  EXPECT_EQ(error, PAVO_AVCTRL_ERROR_CONNECTION);
}

TEST_F(AvctrlTest, TrackEventsCollectTheComponentsAndOnlyTrackChangesPost) {
  answer(23, reply_with(0, "num", 2));
  event(PAVO_MEDIA_PLUGIN_EVENT_TRACKCHANGE, 1);
  EXPECT_EQ(request_types(), (std::vector<int>{23, 24, 24}));
  EXPECT_EQ(requests_of(23)[0]["track_type"], 1);
  EXPECT_EQ(posted(), (Posts{{kComponent, 1}}));
  EXPECT_EQ(recorder_.posts()[0].requests_before, 3u) << "collected before the post";

  clear();
  event(PAVO_MEDIA_PLUGIN_EVENT_TRACKCHANGE, 7);
  EXPECT_EQ(requests_of(23)[0]["track_type"], 3);
  EXPECT_EQ(posted(), (Posts{{kComponent, -1}}));

  clear();
  event(PAVO_MEDIA_PLAYER_EVENT_COMPONENT_UPDATED, 2);
  EXPECT_EQ(request_types(), (std::vector<int>{23, 24, 24}));
  EXPECT_TRUE(logged("mediaplayer_adaptor_callback",
                     "PAVO_MEDIA_PLAYER_EVENT_COMPONENT_UPDATED, track type: 2"));

  for (int unknown : {2, 3, 8, -1}) event(static_cast<PavoMediaPluginEvent>(unknown), 5, 1.0);
  mediaplayer_adaptor_callback(PAVO_MEDIA_PLUGIN_EVENT_STATECHANGE, PAVO_MEDIA_ERR_NETWORK, nullptr,
                               5, 0);
  EXPECT_TRUE(posted().empty());
  EXPECT_EQ(service_.requests().size(), 3u);
}

TEST_F(AvctrlTest, ServiceEventsReachTheCallbackInOrderThroughTheEventQueue) {
  for (const Json::Value& e : {player_event(1, 5), player_event(6, 1500), player_event(7, 0, 61.5),
                               player_event(0, 77, 0.0, PAVO_MEDIA_ERR_ENCRYPTED)}) {
    ASSERT_TRUE(service_.send_event(e));
  }
  ASSERT_TRUE(recorder_.wait_for(5));
  EXPECT_EQ(posted(), (Posts{{kSpeed, 0.0},
                             {kState, PLAYING},
                             {kSpeed, 1.5},
                             {PAVO_AVCTRL_EVENT_POSITIONCHANGE, 61500.0},
                             {PAVO_AVCTRL_EVENT_DRMERROR, 77}}));
}

// A plug-in thread holds op_mutex while its request waits for a slow reply;
// meanwhile the event thread needs op_mutex and makes requests of its own.
TEST_F(AvctrlTest, EventThreadRequestsWhileAPlugInThreadWaitsForItsReplyDoNotDeadlock) {
  service_.script(10, Answer::json(reply_with(0, "current_time", 2.0), 300ms));
  answer(23, reply_with(0, "num", 1));
  double position = 0;
  std::thread plug_in([&] { EXPECT_EQ(Pavo_AVCtrl_GetPosition(handle_, &position), 0); });
  ASSERT_TRUE(service_.wait_for_requests(1));
  ASSERT_TRUE(service_.send_event(player_event(PAVO_MEDIA_PLUGIN_EVENT_TRACKCHANGE, 1)));
  ASSERT_TRUE(recorder_.wait_for(1));
  plug_in.join();
  EXPECT_EQ(position, 2000.0);
  EXPECT_EQ(request_types(), (std::vector<int>{10, 23, 24}));
  EXPECT_EQ(posted(), (Posts{{kComponent, 1}}));
}

}  // namespace
}  // namespace pavo::test
