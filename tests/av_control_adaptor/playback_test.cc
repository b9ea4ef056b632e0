// The play-state machine against the fake service: what playback control
// sends, what the plug-in is told and in which order, the argument checks,
// and the service's player events as the plug-in sees them (state filters,
// held back speeds, the rewind recovery, errors, seeks and track events).
#include <iterator>
#include <stdexcept>

#include "avctrl_harness.h"

namespace pavo::test {
namespace {

enum : int32_t { PLAY = AVCTRL_CMD_PLAY, PAUSE = AVCTRL_CMD_PAUSE, SEEK, NONE };
constexpr double kNone = PAVO_AVCTRL_PENDING_NONE;
constexpr const char* kFn = "mediaplayer_adaptor_callback";

TEST_F(AvctrlTest, LoadAndPauseChangeTheStateOnlyWhereTheServiceWillNot) {
  const struct {
    int32_t from;
    Seen load, pause;  // by Load; by Pause from the same state
  } rows[] = {
      {STOPPED, {{kState, CONNECTING}, {kAsk, 2}}, {{kState, PAUSED}}},
      {FINISHED, {{kState, CONNECTING}, {kAsk, 2}}, {}},
      {ERROR, {{kState, CONNECTING}, {kAsk, 2}}, {}},
      {PLAYING, {{kAsk, 2}}, {{kAsk, 4}, {kSpeed, 0.0}}},
      {PAUSED, {{kAsk, 2}}, {}},
      {CONNECTING, {{kAsk, 2}}, {{kState, PAUSED}}},
      {BUFFERING, {{kAsk, 2}}, {{kState, PAUSED}}},
  };
  answer(4, reply_with(-1));
  for (const auto& row : rows) {
    SCOPED_TRACE(row.from);
    clear();
    put(row.from);
    EXPECT_EQ(Pavo_AVCtrl_Load(handle_, "http://media/a.mpd"), 0);
    EXPECT_EQ(seen(), row.load);
    EXPECT_EQ(requests_of(2).at(0)["url"], "http://media/a.mpd");
    clear();
    put(row.from);
    EXPECT_EQ(Pavo_AVCtrl_Pause(handle_), 0) << "a refused pause is not reported";
    EXPECT_EQ(seen(), row.pause);
    EXPECT_EQ(ctx()->prev_state, (row.pause == Seen{{kState, PAUSED}}) ? row.from : STOPPED);
    EXPECT_EQ(ctx()->last_command, row.pause.empty() ? AVCTRL_CMD_NONE : AVCTRL_CMD_PAUSE);
    EXPECT_EQ(ctx()->speed, row.from == PLAYING ? 0.0 : 1.0);
  }
  EXPECT_TRUE(logged("Pavo_AVCtrl_Pause", "set play state to pause"));
}

TEST_F(AvctrlTest, PlayPostsAnUnchangedSpeedAtOnceAndSendsAChangedOne) {
  EXPECT_EQ(Pavo_AVCtrl_Play(handle_, 1.0), 0);
  EXPECT_EQ(seen(), (Seen{{kAsk, 3}, {kSpeed, 1.0}}));
  clear();
  answer(3, reply_with(-5));
  EXPECT_EQ(Pavo_AVCtrl_Play(handle_, 2.0), -5) << "the play request's result";
  EXPECT_EQ(seen(), (Seen{{kAsk, 3}, {kAsk, 7}})) << "the service's speed report posts it";
  EXPECT_EQ(requests_of(7).at(0)["play_rate"], 2000.0);
  EXPECT_EQ(ctx()->speed, 2.0);
  EXPECT_EQ(ctx()->last_command, AVCTRL_CMD_PLAY);
}

TEST_F(AvctrlTest, SeeksWaitForTheOneInFlightAndARefusedOneRestoresThePosition) {
  answer(6, reply_with(-2));
  answer(10, reply_with(0, "current_time", 4.25));
  EXPECT_EQ(Pavo_AVCtrl_Seek(handle_, 9000.0), -2);
  EXPECT_EQ(seen(), (Seen{{kAsk, 6}, {kAsk, 10}, {kPosition, 4250.0}}));
  EXPECT_TRUE(logged("Pavo_AVCtrl_Seek", "seek failed, trigger playpostionchagne event!"));
  EXPECT_EQ(Pavo_AVCtrl_Seek(handle_, 1.0), -2) << "sent at once: the refused seek has ended";

  clear();
  answer(6, reply_with(0));
  for (double ms : {1000.0, 2000.0, 3000.0}) EXPECT_EQ(Pavo_AVCtrl_Seek(handle_, ms), 0);
  EXPECT_EQ(ctx()->last_command, AVCTRL_CMD_SEEK);
  event(PAVO_MEDIA_PLUGIN_EVENT_SEEKCOMPLETED, 0, 12.5);
  EXPECT_EQ(seen(), (Seen{{kAsk, 6}, {kAsk, 6}, {kPosition, 12500.0}})) << "waiting seek first";
  EXPECT_EQ(requests_of(6).at(0)["pos"], 1.0);
  EXPECT_EQ(requests_of(6).at(1)["pos"], 3.0) << "the second seek was replaced";

  clear();
  answer(5, reply_with(-1));
  EXPECT_EQ(Pavo_AVCtrl_Stop(handle_), -1);
  EXPECT_EQ(Pavo_AVCtrl_Seek(handle_, 4000.0), 0);  // waits: a refused stop ends no seek
  answer(5, reply_with(0));
  EXPECT_EQ(Pavo_AVCtrl_Stop(handle_), 0);
  EXPECT_EQ(Pavo_AVCtrl_Seek(handle_, 5000.0), 0);  // sent: a stop ends the seek
  EXPECT_EQ(seen(), (Seen{{kAsk, 5}, {kAsk, 5}, {kAsk, 6}})) << "the service reports the stop";
}

// Times come in seconds and go out in milliseconds; a failed request writes
// nothing, and only GetPosition hides the failure.
TEST_F(AvctrlTest, GettersConvertUnitsAndLeaveOutValuesAloneOnFailure) {
  double ms = -1;
  answer(8, reply_with(0, "duration", 93.25));
  EXPECT_EQ(Pavo_AVCtrl_GetPlayTime(handle_, &ms), 0);
  answer(8, reply_with(-2, "duration", 1.0));
  EXPECT_EQ(Pavo_AVCtrl_GetPlayTime(handle_, &ms), -2);
  answer(10, reply_with(-9, "current_time", 8.0));
  EXPECT_EQ(Pavo_AVCtrl_GetPosition(handle_, &ms), 0);
  EXPECT_EQ(ms, 93250.0);
  answer(10, reply_with(0, "current_time", 1.5));
  EXPECT_EQ(Pavo_AVCtrl_GetPosition(handle_, &ms), 0);
  EXPECT_EQ(ms, 1500.0);

  bool full = false;
  answer(11, reply_with(0, "is_fullScreen", 2));
  EXPECT_EQ(Pavo_AVCtrl_GetFullScreen(handle_, &full), 0);
  answer(11, reply_with(-4, "is_fullScreen", 0));
  EXPECT_EQ(Pavo_AVCtrl_GetFullScreen(handle_, &full), -4);
  EXPECT_TRUE(full);

  PavoAVCtrlPlayStateError error = PAVO_AVCTRL_ERROR_CORRUPT;
  EXPECT_EQ(Pavo_AVCtrl_GetError(handle_, &error), 0) << "a fresh object holds the format error";
  EXPECT_EQ(error, PAVO_AVCTRL_ERROR_FORMAT);
  event(PAVO_MEDIA_PLUGIN_EVENT_STATECHANGE, 5);
  EXPECT_EQ(Pavo_AVCtrl_GetError(handle_, &error), -1);
  EXPECT_EQ(error, PAVO_AVCTRL_ERROR_FORMAT);
}

TEST_F(AvctrlTest, NullHandlesAndPointersAreRefusedBeforeAnyRequest) {
  double d = 5;
  bool b = true;
  unsigned u = 5;
  int i = 5;
  PavoAVCtrlPlayState st{};
  PavoAVCtrlPlayStateError er{};
  PavoAVCtrlTrackInfo track{};
  PavoRect rect{};
  PavoAVCtrlSubtitleInfo sub{};
  void* h = handle_;
  const auto A = PAVO_AV_COMPONENT_TYPE_AUDIO;
  // clang-format off
  const int minus3[] = {
      Pavo_AVCtrl_Load(nullptr, "u"), Pavo_AVCtrl_Load(h, nullptr), Pavo_AVCtrl_Play(nullptr, 1.0),
      Pavo_AVCtrl_Pause(nullptr), Pavo_AVCtrl_Stop(nullptr), Pavo_AVCtrl_Seek(nullptr, 1.0),
      Pavo_AVCtrl_GetPlayState(h, nullptr), Pavo_AVCtrl_GetPlayState(nullptr, &st),
      Pavo_AVCtrl_GetPlayTime(nullptr, &d), Pavo_AVCtrl_GetPosition(h, nullptr),
      Pavo_AVCtrl_GetCurrentSpeed(nullptr, &d), Pavo_AVCtrl_GetError(h, nullptr),
      Pavo_AVCtrl_GetError(nullptr, &er), Pavo_AVCtrl_SetFullScreen(nullptr, true),
      Pavo_AVCtrl_GetFullScreen(h, nullptr), Pavo_AVCtrl_GetFullScreen(nullptr, &b),
      Pavo_AVCtrl_SetMimeType(h, nullptr), Pavo_AVCtrl_UnregisterCallback(nullptr),
      Pavo_AVCtrl_RegisterCallback(nullptr, record, nullptr),
      Pavo_AVCtrl_GetAVComponentNum(h, A, nullptr),
      Pavo_AVCtrl_GetAVComponentByIndex(nullptr, A, 0, &track),
      Pavo_AVCtrl_SelectComponent(nullptr, A, 0), Pavo_AVCtrl_UnselectComponent(nullptr, A, 0),
      Pavo_AVCtrl_Component_EnableSubtitle(nullptr, true),
      Pavo_AVCtrl_GetCurrentActiveComponent(h, A, nullptr),
      Pavo_AVCtrl_GetCurrentActiveComponent(nullptr, A, &i), Pavo_AVCtrl_SetSubtitle(h, nullptr),
      Pavo_AVCtrl_SetSubtitle(nullptr, &sub), Pavo_AVCtrl_SetFont(h, nullptr),
      Pavo_AVCtrl_SetLoop(h, -2), Pavo_AVCtrl_SetLoop(nullptr, 1), Pavo_AVCtrl_SetLAURL(h, nullptr),
      Pavo_AVCtrl_SetCustomData(h, nullptr), Pavo_AVCtrl_UpdateWindow(nullptr, &rect),
      Pavo_AVCtrl_UpdateWindow(h, nullptr)};
  // Accepted and empty: 0, nothing written.
  const int zero[] = {Pavo_AVCtrl_GetVolume(h, &d), Pavo_AVCtrl_GetTrackNum(h, &u),
                      Pavo_AVCtrl_GetCurTrackIndex(h, &u),
                      Pavo_AVCtrl_GetPlaybackSpeedByIndex(h, 0, &d),
                      Pavo_AVCtrl_UnregisterCallbackForTV(nullptr)};
  // clang-format on
  for (size_t n = 0; n < std::size(minus3); ++n) EXPECT_EQ(minus3[n], -3) << "call " << n;
  for (size_t n = 0; n < std::size(zero); ++n) EXPECT_EQ(zero[n], 0) << "call " << n;
  EXPECT_TRUE(seen().empty()) << "nothing asked, nothing posted";
  EXPECT_TRUE(d == 5.0 && u == 5u && b && i == 5) << "out-parameters untouched";
  EXPECT_TRUE(logged("Pavo_AVCtrl_Load", "in_source=(null)")) << "logged before the check";
}

// SetPlayState posts changes only and asks nobody; the callback may
// unregister itself (no wait for its own post), and may throw.
TEST_F(AvctrlTest, SetPlayStatePostsChangesAndTheCallbackMayUnregisterOrThrow) {
  on_post_ = [this](int event) {
    if (event == kState) Pavo_AVCtrl_UnregisterCallback(handle_);
    if (event == kSpeed) throw std::runtime_error("plug-in failure");
  };
  EXPECT_EQ(Pavo_AVCtrl_Play(handle_, 1.0), 0) << "the exception stays in the library";
  EXPECT_EQ(Pavo_AVCtrl_SetPlayState(handle_, PAVO_AVCTRL_PLAYSTATE_STOPPED), 0);
  EXPECT_EQ(Pavo_AVCtrl_SetPlayState(nullptr, PAVO_AVCTRL_PLAYSTATE_PLAYING), 0);
  EXPECT_EQ(Pavo_AVCtrl_SetPlayState(handle_, PAVO_AVCTRL_PLAYSTATE_FINISHED), 0);
  EXPECT_EQ(Pavo_AVCtrl_SetPlayState(handle_, PAVO_AVCTRL_PLAYSTATE_PLAYING), 0);
  event(PAVO_MEDIA_PLUGIN_EVENT_SEEKCOMPLETED, 0, 1.0);
  EXPECT_EQ(seen(), (Seen{{kAsk, 3}, {kSpeed, 1.0}, {kState, FINISHED}}));
  EXPECT_TRUE(logged("Pavo_AVCtrl_SetPlayState", "invoke state change callback, state is 5"));
  EXPECT_EQ(ctx()->play_state, PLAYING) << "bookkeeping goes on without a callback";
  EXPECT_EQ(ctx()->prev_state, FINISHED);
}

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
      {PAUSED, CONNECTING, PLAY, 1, kNone, 7, {{kState, BUFFERING}}, BUFFERING, -1},  // not one
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
  for (int unknown : {2, 3, 8, 100, -1}) event(static_cast<PavoMediaPluginEvent>(unknown), 5, 1.0);
  mediaplayer_adaptor_callback(PAVO_MEDIA_PLUGIN_EVENT_STATECHANGE, PAVO_MEDIA_ERR_NETWORK, nullptr,
                               5, 0);
  EXPECT_EQ(seen(), (Seen{{kAsk, 23}, {kAsk, 24}, {kAsk, 24}})) << "collected, nothing posted";
  EXPECT_EQ(requests_of(23).at(0)["track_type"], 2);
}

}  // namespace
}  // namespace pavo::test
