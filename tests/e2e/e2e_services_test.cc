// End to end beside playback: DRM agents, media synchronisation, the
// service's display-source request, the platform subtitle notice, and the
// service's handling of bad input and stale frames.
#include <gtest/gtest.h>
#include <sys/msg.h>

#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "e2e_fixture.h"
#include "hbbtv_plugin_impl_standin.h"
#include "ipc/frame.h"
#include "pavo_drm_agent.h"
#include "pavo_ipc.h"
#include "pavo_mediaplayer_ipc.h"

namespace pavo::e2e {
namespace {

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

  int status = -1;
  EXPECT_EQ(Pavo_DrmAgent_DRMSystemStatus(agents[0], "urn:dvb:casystemid:19188", &status), 0);
  EXPECT_EQ(status, 0);
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
  ASSERT_GE(log_.wait_for(PAVO_AVCTRL_EVENT_COMPONENTCHANGE, int_is(PAVO_AV_COMPONENT_TYPE_SUBTITLE), before), 0)
      << log_.dump();
  for (bool shown : {false, true}) {
    SCOPED_TRACE(shown);
    const std::size_t mark = log_.posts().size();
    ASSERT_EQ(Pavo_Platform_SubtitleEnable(shown), 0);
    ASSERT_GE(log_.wait_for(PAVO_AVCTRL_EVENT_COMPONENTCHANGE, int_is(PAVO_AV_COMPONENT_TYPE_SUBTITLE), mark), 0)
        << log_.dump();
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
