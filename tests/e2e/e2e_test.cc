// End to end: the plug-in's calls in this process, the library, the
// transport, and pavo-media-service as a child process answering and
// reporting like a real player: playback, track switching and failing
// items; DRM agents, media synchronisation, the service's display-source
// request, the platform subtitle notice, and the service's handling of bad
// input and stale frames.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/msg.h>

#include <cstring>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "e2e_fixture.h"
#include "hbbtv_plugin_impl_standin.h"
#include "ipc/frame.h"
#include "pavo_drm_agent.h"
#include "pavo_ipc.h"
#include "pavo_mediaplayer_ipc.h"
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
  // The media clock runs: the position grows before the item's end (60 s,
  // where a stopped clock would jump to).
  const double first = position_ms();
  EXPECT_TRUE(pavo::test::wait_until(
      [&] {
        const double now = position_ms();
        return now > first && now < 60000.0;
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

PostLog g_drm, g_sync;  // deliveries to the DRM and media-sync callbacks

const char* text(const char* s) { return s == nullptr ? "(null)" : s; }

void on_drm(PavoDrmEvent event, const PavoDrmEventInfo* info, const void* user_data) {
  std::ostringstream t;
  if (event == PAVO_DRM_EVENT_MESSAGE_RESULT) {
    t << text(info->messageResult.msgId) << ' ' << info->messageResult.resultCode;  // the id and the code
  }
  if (event == PAVO_DRM_EVENT_SYSTEM_STATUS_CHANGE) t << text(info->statusChange.sysId);
  g_drm.add({event, 0, 0, std::this_thread::get_id(), user_data, t.str()});
}

void on_sync(PavoMediaSyncMsgType type, const PavoMSEventInfo* info, const void* user_data) {
  std::ostringstream t;  // info changes: the members that changed, with a space after each
  if (type == PAVO_MEDIA_SYNC_MSG_TIMELINE_AVAILABLE) t << info->available.timelineAvailable;
  if (type == PAVO_MEDIA_SYNC_MSG_SPEED_CHANGE) t << info->speedChange.speed;
  if (type == PAVO_MEDIA_SYNC_MSG_INFO_CHANGE) {
    const auto& c = info->infoChange;
    if (c.bTimelineOptionsChange) t << text(c.timelineSelector) << ' ';
    if (c.bContentIdChange) t << text(c.contentId) << ' ' << c.contentIdStatus << ' ';
    if (c.bMrsUrlChange) t << text(c.mrsUrl) << ' ';
  }
  g_sync.add({type, 0, 0, std::this_thread::get_id(), user_data, t.str()});
}

TEST_F(EndToEnd, DrmEventsReachTheCallbackWithEachAgentsContext) {
  void* agents[2] = {nullptr, nullptr};
  int contexts[2] = {0, 0};
  for (int i = 0; i < 2; ++i) {
    ASSERT_EQ(Pavo_DrmAgent_Create(&agents[i]), 0);
    ASSERT_EQ(Pavo_DrmAgent_RegisterCallback(agents[i], on_drm, &contexts[i]), 0);
  }
  char id[8];
  ASSERT_EQ(Pavo_DrmAgent_sendDRMMessage(agents[0], "application/vnd.test", "<m/>", "19188", id, sizeof id), 0);
  EXPECT_STREQ(id, "1");
  const Post known = g_drm.wait_post(PAVO_DRM_EVENT_MESSAGE_RESULT);
  EXPECT_EQ(known.user_data, &contexts[0]);
  EXPECT_EQ(known.text, "1 0");

  ASSERT_EQ(Pavo_DrmAgent_sendDRMMessage(agents[1], "application/vnd.test", "<m/>", "4242", id, sizeof id), 0);
  const Post unknown = g_drm.wait_post(PAVO_DRM_EVENT_MESSAGE_RESULT, 1);
  EXPECT_EQ(unknown.user_data, &contexts[1]);
  EXPECT_EQ(unknown.text, "1 5");  // unknown DRM system

  bool play = false, record = true;
  EXPECT_EQ(Pavo_DrmAgent_canPlayContent(agents[0], "<private/>", "19188", &play), 0);
  EXPECT_EQ(Pavo_DrmAgent_canRecordContent(agents[0], "<private/>", "19188", &record), 0);
  EXPECT_TRUE(play);
  EXPECT_FALSE(record);

  ASSERT_EQ(Pavo_DrmAgent_clearLicense(agents[1]), 0);
  const Post cleared = g_drm.wait_post(PAVO_DRM_EVENT_SYSTEM_STATUS_CHANGE);
  EXPECT_EQ(cleared.user_data, &contexts[1]);
  EXPECT_EQ(cleared.text, "19188");

  for (void* agent : agents) {
    EXPECT_EQ(Pavo_DrmAgent_UnregisterCallback(agent), 0);
    EXPECT_EQ(Pavo_DrmAgent_Destroy(agent), 0);
    EXPECT_EQ(Pavo_DrmAgent_Destroy(agent), -1);  // the service no longer knows it
  }
}

// The A/V control layer keeps media synchronisation to itself; the
// client's commands reach the service's synchroniser directly.
TEST_F(EndToEnd, MediaSyncAnnouncesContentTimelineAndSpeed) {
  unsigned player = 0;
  ASSERT_EQ(Pavo_MediaPlayer_IPC_Create(&player), 0);
  int context = 0;
  ASSERT_EQ(Pavo_MediaPlayer_IPC_RegisterMediaSyncCallback(player, on_sync, &context), 0);
  ASSERT_EQ(Pavo_MediaPlayer_IPC_Load(player, kVod), 0);
  ASSERT_EQ(Pavo_MediaPlayer_IPC_SetTimelineSelector(player, "urn:dvb:css:timeline:pts"), 0);
  ASSERT_EQ(Pavo_MediaPlayer_IPC_StartMediaSync(player), 0);

  const Post info = g_sync.wait_post(PAVO_MEDIA_SYNC_MSG_INFO_CHANGE);
  EXPECT_EQ(info.user_data, &context);
  EXPECT_EQ(info.text, "dvb://233a.1004.1044;363a 1 http://mrs.media.test/vod ");
  EXPECT_EQ(g_sync.wait_post(PAVO_MEDIA_SYNC_MSG_TIMELINE_AVAILABLE).text, "1");

  ASSERT_EQ(Pavo_MediaPlayer_IPC_SetPlayRate(player, 2000.0), 0);
  EXPECT_EQ(g_sync.wait_post(PAVO_MEDIA_SYNC_MSG_SPEED_CHANGE).text, "2");

  char content[64] = {};
  unsigned len = sizeof content;
  PavoContentIdStatus status{};
  ASSERT_EQ(Pavo_MediaPlayer_IPC_GetContentId(player, content, &len, &status), 0);
  EXPECT_STREQ(content, "dvb://233a.1004.1044;363a");
  EXPECT_EQ(static_cast<int>(status), 1);
  PavoTimeline timeline{};
  ASSERT_EQ(Pavo_MediaPlayer_IPC_GetCurrentTimeline(player, &timeline), 0);
  EXPECT_EQ(timeline.unitsPerSecond, 90000u);

  ASSERT_EQ(Pavo_MediaPlayer_IPC_StopMediaSync(player), 0);
  EXPECT_EQ(g_sync.wait_post(PAVO_MEDIA_SYNC_MSG_TIMELINE_AVAILABLE, 2).text, "0");  // after the speed
  EXPECT_EQ(Pavo_MediaPlayer_IPC_UnregisterMediaSyncCallback(player), 0);
  EXPECT_EQ(Pavo_MediaPlayer_IPC_Destory(player), 0);
}

// Switching to the broadcast: the service asks the library, which answers
// with the plug-in library's result; broadband playback stops.
TEST_F(EndToEnd, DisplaySourceRequestIsAnsweredThroughThePlugInLibrary) {
  play_until_playing(kVod);
  pavo::standin::hbbtv_reset();
  pavo::standin::hbbtv_set_display_source_result(7);
  const std::size_t mark = log_.posts().size();
  EXPECT_EQ(Pavo_MediaPlayer_IPC_ChangeDisPlaySourceToDTV(), 7);
  EXPECT_GE(wait_state(PAVO_AVCTRL_PLAYSTATE_STOPPED, mark), 0) << log_.dump();
  std::vector<int> sources;
  for (const auto& call : pavo::standin::hbbtv_calls()) {
    if (call.function == "Pavo_Hbbtv_PAC_VB_ChangeDisplaySource") sources.push_back(call.value);
  }
  EXPECT_EQ(sources, std::vector<int>{0});
  int source = -1;
  EXPECT_EQ(Pavo_MediaPlayer_IPC_GetCurrentSource(source), 0);
  EXPECT_EQ(source, 1);  // refused by the platform: still broadband
  pavo::standin::hbbtv_set_display_source_result(0);
  EXPECT_EQ(Pavo_MediaPlayer_IPC_ChangeDisPlaySourceToDTV(), 0);
  EXPECT_EQ(Pavo_MediaPlayer_IPC_GetCurrentSource(source), 0);
  EXPECT_EQ(source, 0);
}

TEST_F(EndToEnd, PlatformSubtitleNoticeHidesAndShowsTheSelectedSubtitles) {
  play_until_playing(kVod);
  const std::size_t before = log_.posts().size();
  ASSERT_EQ(Pavo_AVCtrl_SelectComponent(av_, PAVO_AV_COMPONENT_TYPE_SUBTITLE, 0), 0);
  // The selection's own track change first, so that it is not taken for the notice's.
  ASSERT_GE(log_.wait_for(kComponent, int_is(PAVO_AV_COMPONENT_TYPE_SUBTITLE), before), 0) << log_.dump();
  for (bool shown : {false, true}) {
    SCOPED_TRACE(shown);
    const std::size_t mark = log_.posts().size();
    ASSERT_EQ(Pavo_Platform_SubtitleEnable(shown), 0);
    ASSERT_GE(log_.wait_for(kComponent, int_is(PAVO_AV_COMPONENT_TYPE_SUBTITLE), mark), 0) << log_.dump();
    PavoAVCtrlTrackInfo track{};
    ASSERT_EQ(Pavo_AVCtrl_GetAVComponentByIndex(av_, PAVO_AV_COMPONENT_TYPE_SUBTITLE, 0, &track), 0);
    EXPECT_EQ(track.activated, shown);
  }
}

// Bad requests get an answer with "ret" -1 and the service goes on.
TEST_F(EndToEnd, MalformedRequestsAreAnsweredAndTheServiceGoesOn) {
  pavo_ipc_client* client = nullptr;
  ASSERT_EQ(pavo_ipc_client_create(0x95000100, 1, 1, 1024, &client), 0);
  const char* requests[] = {
      "not json", "[1,2]", "{\"player_id\":1}", "{\"event_type\":\"3\"}", "{\"event_type\":77}",
      "{\"event_type\":6,\"player_id\":1,\"pos\":\"x\"}", "{\"event_type\":3,\"player_id\":99}",
  };
  for (const char* request : requests) {
    SCOPED_TRACE(request);
    std::string copy = request;
    pavo_ipc_msg message{static_cast<uint32_t>(copy.size()), copy.data()};
    pavo_ipc_msg reply{0, nullptr};
    ASSERT_EQ(pavo_ipc_client_send_sync_with_params(client, &message, &reply), 0);
    ASSERT_NE(reply.data, nullptr);
    EXPECT_NE(std::strstr(reply.data, "\"ret\":-1"), nullptr) << reply.data;
    std::free(reply.data);
  }
  pavo_ipc_client_destroy(client);
  play_until_playing(kVod);
}

// A reply frame that an earlier run left behind would be taken for the
// answer to the next request: the service clears its queues at start.
TEST_F(EndToEnd, StaleFramesFromAnEarlierRunAreRemovedAtStart) {
  ASSERT_EQ(Pavo_AVCtrl_Destroy(av_), 0);
  av_ = nullptr;
  ASSERT_EQ(service_.stop(), 0);
  const int replies = msgget(0x95000101, 0);
  ASSERT_GE(replies, 0);
  std::string stale = "{\"ret\":0,\"player_id\":42,\"duration\":1.0}";
  pavo_ipc_msg message{static_cast<uint32_t>(stale.size()), stale.data()};
  ASSERT_EQ(ipc_snd_internal(replies, 1, 1024, &message, pavo::ipc::IPC_MSG_SYNC_REPLY), 0);
  ASSERT_TRUE(service_.start(kTimeScale, wait_limit()));
  ASSERT_EQ(Pavo_AVCtrl_Create(nullptr, &av_), 0);
  ASSERT_EQ(Pavo_AVCtrl_Load(av_, kVod), 0);
  double duration = 0;
  ASSERT_EQ(Pavo_AVCtrl_GetPlayTime(av_, &duration), 0);
  EXPECT_EQ(duration, 60000.0);
}

}  // namespace
}  // namespace pavo::e2e
