// Rules of single commands that the command table cannot show: argument
// checks, track groups, bounded text copies, the registry after a destroy,
// the one-way notice and the irregular log records.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "client_fixture.h"
#include "mediaplayer_ipc/registry.h"
#include "pavo_drm_agent.h"
#include "pavo_log.h"
#include "support/output_capture.h"

namespace {

using pavo::test::Answer;
using pavo::test::json;

class CommandRules : public pavo::test::ClientTest {
 protected:
  void answer(int event_type, const std::string& reply) { service_.script(event_type, Answer::json(json(reply))); }
};

TEST_F(CommandRules, NullArgumentsAreRefusedBeforeAnythingIsSent) {
  char buf[8];
  unsigned len = sizeof buf;
  int status = 0;
  bool flag = false;
  void* agent = reinterpret_cast<void*>(0x10);
  const std::vector<std::pair<int, std::function<int()>>> calls = {
      {-1, [] { return Pavo_MediaPlayer_IPC_Load(1, nullptr); }},
      {-1, [] { return Pavo_MediaPlayer_IPC_SetMimetype(1, nullptr); }},
      {-1, [] { return Pavo_MediaPlayer_IPC_SetLicenseServerUrl(1, nullptr); }},
      {-1, [] { return Pavo_MediaPlayer_IPC_SetCustomData(1, nullptr); }},
      {-1, [] { return Pavo_MediaPlayer_IPC_SetFontFile(1, nullptr, 0); }},
      {-1, [] { return Pavo_MediaPlayer_IPC_SetCookie(1, nullptr); }},
      {-1, [] { return Pavo_MediaPlayer_IPC_SetTimelineSelector(1, nullptr); }},
      {-1, [] { return Pavo_MediaPlayer_IPC_SetVideoWindowRect(1, nullptr); }},
      {-1, [] { return Pavo_MediaPlayer_IPC_SetSubtitle(1, nullptr, 0); }},
      {-1, [] { return Pavo_MediaPlayer_IPC_Create(nullptr); }},
      {-1, [] { return Pavo_MediaPlayer_IPC_GetDuration(1, nullptr); }},
      {-1, [] { return Pavo_MediaPlayer_IPC_GetFullScreen(1, nullptr); }},
      {-1, [] { return Pavo_MediaPlayer_IPC_GetTrackNumber(1, PAVO_TRACK_TYPE_AUDIO, nullptr); }},
      {-1, [] { return Pavo_MediaPlayer_IPC_GetTrackByIndex(1, PAVO_TRACK_TYPE_AUDIO, 0, nullptr); }},
      {-1, [&] { return Pavo_MediaPlayer_IPC_GetMRSUrl(1, buf, nullptr); }},
      {-1, [&] { return Pavo_MediaPlayer_IPC_GetContentId(1, buf, &len, nullptr); }},
      {-1, [] { return Pavo_MediaPlayer_IPC_GetCurrentTimeline(1, nullptr); }},
      {-1, [] { return Pavo_MediaPlayer_IPC_DrmAgent_Create(nullptr); }},
      {-3, [] { return Pavo_DrmAgent_Create(nullptr); }},
      {-3, [] { return Pavo_DrmAgent_Destroy(nullptr); }},
      {-3, [&] { return Pavo_DrmAgent_RegisterCallback(nullptr, nullptr, &len); }},
      {-3, [&] { return Pavo_DrmAgent_RegisterCallback(agent, nullptr, nullptr); }},
      {-3, [] { return Pavo_DrmAgent_UnregisterCallback(nullptr); }},
      {-3, [&] { return Pavo_DrmAgent_sendDRMMessage(agent, nullptr, "m", "s", buf, 8); }},
      {-3, [&] { return Pavo_DrmAgent_sendDRMMessage(agent, "t", nullptr, "s", buf, 8); }},
      {-3, [&] { return Pavo_DrmAgent_sendDRMMessage(agent, "t", "m", "s", nullptr, 8); }},
      {-3, [&] { return Pavo_DrmAgent_DRMSystemStatus(agent, nullptr, &status); }},
      {-3, [&] { return Pavo_DrmAgent_DRMSystemStatus(agent, "s", nullptr); }},
      {-3, [&] { return Pavo_DrmAgent_canPlayContent(agent, nullptr, "s", &flag); }},
      {-3, [&] { return Pavo_DrmAgent_canRecordContent(agent, "p", nullptr, &flag); }},
      {-3, [&] { return Pavo_DrmAgent_canRecordContent(agent, "p", "s", nullptr); }},
      {-3, [] { return Pavo_DrmAgent_clearLicense(nullptr); }},
  };
  for (size_t n = 0; n < calls.size(); ++n) EXPECT_EQ(calls[n].second(), calls[n].first) << "call " << n;
  EXPECT_TRUE(service_.requests().empty());
}

TEST_F(CommandRules, TrackByIndexWritesTheCommonMembersAndOnlyTheRequestedGroup) {
  answer(24, R"({"index":1,"trackId":2,"activated":true,"encrypted":true,"type":1,"pid":3,"componentTag":4,
                 "encoding":"aac","width":9,"height":9,"priority":5,"audioDescription":1,"audioChannels":6,
                 "hearingImpaired":true,"url":"u","label":"l","language":"fra","ret":0})");
  const PavoAVCtrlTrackInfo start{-1, -1, false, false, -1, 0, 0, "", {-7, -7}, {-7, -7, -7, "old"}, {false, "old", "old", "old"}};
  PavoAVCtrlTrackInfo audio = start;
  ASSERT_EQ(Pavo_MediaPlayer_IPC_GetTrackByIndex(1, PAVO_TRACK_TYPE_AUDIO, 1, &audio), 0);
  EXPECT_EQ(audio.encoding, "aac");
  EXPECT_EQ(audio.pid, 3u);
  EXPECT_EQ(audio.audio.audioChannels, 6);
  EXPECT_EQ(audio.audio.language, "fra");
  EXPECT_EQ(audio.video.width, -7);
  EXPECT_EQ(audio.subtitle.language, "old");
  EXPECT_FALSE(audio.subtitle.hearingImpaired);

  PavoAVCtrlTrackInfo subtitle = start;
  ASSERT_EQ(Pavo_MediaPlayer_IPC_GetTrackByIndex(1, PAVO_TRACK_TYPE_SUBTITLE, 1, &subtitle), 0);
  EXPECT_EQ(subtitle.subtitle.language, "fra");
  EXPECT_EQ(subtitle.subtitle.label, "l");
  EXPECT_TRUE(subtitle.subtitle.hearingImpaired);
  EXPECT_EQ(subtitle.audio.language, "old");
  EXPECT_EQ(subtitle.audio.priority, -7);

  PavoAVCtrlTrackInfo other = start;
  answer(24, R"({"index":1,"encoding":"x","ret":4})");
  EXPECT_EQ(Pavo_MediaPlayer_IPC_GetTrackByIndex(1, PAVO_TRACK_TYPE_OTHER, 1, &other), 4);
  EXPECT_EQ(other.index, -1);
  EXPECT_EQ(other.encoding, "");
  EXPECT_EQ(service_.requests().size(), 3u);
}

TEST_F(CommandRules, TextCopiesAreBoundedByTheCapacitySentAndTheTextReceived) {
  const struct {
    unsigned capacity;
    const char* reply;
    unsigned len_after;
    std::string buffer;  // the 12-byte buffer afterwards
  } cases[] = {
      {8, R"({"len":5,"mrs_url":"abcd"})", 5, std::string("abcd\0ZZZZZZZ", 12)},
      {8, R"({"len":4,"mrs_url":"abcd"})", 4, "abcdZZZZZZZZ"},          // no terminator counted
      {8, R"({"len":30,"mrs_url":"abcdefghijkl"})", 30, "abcdefghZZZZ"},  // capacity bounds
      {8, R"({"len":30,"mrs_url":"ab"})", 30, std::string("ab\0ZZZZZZZZZ", 12)},  // text bounds
      {8, R"({"len":-1,"mrs_url":"abcdefghijkl"})", 4294967295u, "abcdefghZZZZ"},
      {0, R"({"len":3,"mrs_url":"ab"})", 3, "ZZZZZZZZZZZZ"},
  };
  for (const auto& c : cases) {
    char buf[12];
    std::memset(buf, 'Z', sizeof buf);
    unsigned len = c.capacity;
    answer(105, c.reply);
    EXPECT_EQ(Pavo_MediaPlayer_IPC_GetMRSUrl(1, buf, &len), 0) << c.reply;
    EXPECT_EQ(len, c.len_after) << c.reply;
    EXPECT_EQ(std::string(buf, sizeof buf), c.buffer) << c.reply;
    EXPECT_EQ(service_.requests().back().json["len"].asUInt(), c.capacity);
  }
  // A null buffer asks for the length only (a bad text member is not read).
  unsigned len = 8;
  PavoContentIdStatus status{};
  answer(107, R"({"len":24,"content_id":[],"status":3,"ret":-1})");
  EXPECT_EQ(Pavo_MediaPlayer_IPC_GetContentId(1, nullptr, &len, &status), 0);
  EXPECT_EQ(len, 24u);
  EXPECT_EQ(static_cast<int>(status), 3);
}

TEST_F(CommandRules, DrmMessageIdsAreCopiedOverExactlyTheCapacity) {
  const struct {
    const char* id;
    unsigned capacity;
    std::string buffer;  // the 10-byte buffer afterwards
  } cases[] = {
      {"42", 8, std::string("42\0\0\0\0\0\0YY", 10)},
      {"12345678", 8, "12345678YY"},
      {"123456789", 4, "1234YYYYYY"},
      {"42", 0, "YYYYYYYYYY"},
  };
  for (const auto& c : cases) {
    char buf[10];
    std::memset(buf, 'Y', sizeof buf);
    answer(204, std::string(R"({"ret":0,"msg_id":")") + c.id + "\"}");
    EXPECT_EQ(Pavo_DrmAgent_sendDRMMessage(reinterpret_cast<void*>(1), "t", "m", nullptr, buf, c.capacity), 0);
    EXPECT_EQ(std::string(buf, sizeof buf), c.buffer) << c.id;
  }
  EXPECT_EQ(service_.requests().back().json["system_id"], "");
}

TEST_F(CommandRules, DrmHandleTextThatIsNoPointerGivesNull) {
  for (const char* reply : {R"j({"out_handle":"(nil)","ret":0})j", R"({"out_handle":"zz","ret":0})"}) {
    void* agent = reinterpret_cast<void*>(0x77);
    answer(200, reply);
    EXPECT_EQ(Pavo_DrmAgent_Create(&agent), 0);
    EXPECT_EQ(agent, nullptr) << reply;
  }
}

TEST_F(CommandRules, DestoryDropsTheRegistryEntryOnlyWhenAReplyWasRead) {
  int user = 0;
  auto cb = [](PavoMediaPluginEvent, PavoMediaError, const void*, int, double) {};
  Pavo_MediaPlayer_IPC_RegisterCallback(5, cb, &user);
  service_.script(1, Answer::no_reply());
  EXPECT_EQ(Pavo_MediaPlayer_IPC_Destory(5), -1);
  EXPECT_TRUE(pavo::mediaplayer::player_user_data(5).has_value());
  answer(1, R"({"ret":-5})");
  EXPECT_EQ(Pavo_MediaPlayer_IPC_Destory(5), -5);
  EXPECT_FALSE(pavo::mediaplayer::player_user_data(5).has_value());
  EXPECT_EQ(Pavo_MediaPlayer_IPC_Destory(6), -5) << "an unknown id is still sent";
  EXPECT_EQ(Pavo_MediaPlayer_IPC_UnregisterCallback(6), 0);
}

TEST_F(CommandRules, PlatformSubtitleEnableIsAOneWayNotice) {
  EXPECT_EQ(Pavo_MediaPlayer_IPC_PlatformSubtitleEnable(true), 0);
  ASSERT_TRUE(service_.wait_for_notices(1));
  EXPECT_EQ(service_.notices()[0].text, json(R"({"event_type":31,"subtitleEnable":true})").toStyledString());
  EXPECT_TRUE(service_.requests().empty());
  ASSERT_EQ(Pavo_MediaPlayer_IPC_Finalize(), 0);
  EXPECT_EQ(Pavo_MediaPlayer_IPC_PlatformSubtitleEnable(false), -3);
}

TEST_F(CommandRules, LogRecordsFollowTheIrregularities) {
  insert_modules_list("PAC_PLUGIN", 1);  // every record
  int source = 0;
  std::string log;
  {
    pavo::test::OutputCapture out(1);
    Pavo_MediaPlayer_IPC_GetCurrentSource(source);
    Pavo_MediaPlayer_IPC_UnregisterMediaSyncCallback(1);
    Pavo_MediaPlayer_IPC_UnregisterCallback(1);
    Pavo_MediaPlayer_IPC_PlatformSubtitleEnable(true);
    Pavo_MediaPlayer_IPC_Play(1);
    Pavo_MediaPlayer_IPC_SetCustomData(1, nullptr);
    log = out.text();
  }
  clear_modules_list();
  auto has = [&](const std::string& what) { return log.find("Function: " + what) != std::string::npos; };
  EXPECT_TRUE(has("Pavo_MediaPlayer_IPC_GetCurrentSource() Enter!"));
  EXPECT_FALSE(has("Pavo_MediaPlayer_IPC_GetCurrentSource() Leave!"));
  EXPECT_FALSE(has("Pavo_MediaPlayer_IPC_UnregisterMediaSyncCallback() Enter!"));
  EXPECT_TRUE(has("Pavo_MediaPlayer_IPC_UnregisterMediaSyncCallback() Leave!"));
  EXPECT_FALSE(has("Pavo_MediaPlayer_IPC_UnregisterCallback()"));
  EXPECT_TRUE(has("Pavo_MediaPlayer_IPC_PlatformSubtitleEnable() Enter!"));
  EXPECT_FALSE(has("Pavo_MediaPlayer_IPC_PlatformSubtitleEnable() Leave!"));
  EXPECT_TRUE(has("Pavo_MediaPlayer_IPC_Play() Enter!") && has("Pavo_MediaPlayer_IPC_Play() Leave!"));
  EXPECT_TRUE(has("Pavo_MediaPlayer_IPC_SetCustomData(), line:"));
}

}  // namespace
