// Every request/reply command against the fake service, from one table:
// the exact request text, the outputs of a full reply, of a reply without
// output members, of unreadable replies and of failed exchanges.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "client_fixture.h"
#include "pavo_mediaplayer_ipc.h"

namespace {

using pavo::test::Answer;
using pavo::test::json;

// Out-parameters, filled with values that no reply of the table gives.
struct Outs {
  unsigned u = 0xdeadbeef;
  int i = -12345;
  double d = -99.5;
  bool b = true;
  PavoTimeline timeline{1, 2, 3, 4};
  char buf[16];
  unsigned len = sizeof buf;  // in: capacity
  PavoContentIdStatus status = static_cast<PavoContentIdStatus>(-7);
  void* handle = reinterpret_cast<void*>(0x5);
  PavoAVCtrlTrackInfo track{-1, -1, true, true, -1, 1, 1, "zz", {-1, -1}, {-1, -1, -1, "zz"}, {true, "zz", "zz", "zz"}};
  Outs() { std::memset(buf, 'Z', sizeof buf); }
};

using View = std::function<Json::Value(const Outs&)>;
Json::Value none(const Outs&) { return Json::Value(); }
Json::Value u(const Outs& o) { return o.u; }
Json::Value i(const Outs& o) { return o.i; }
Json::Value d(const Outs& o) { return o.d; }
Json::Value b(const Outs& o) { return o.b; }
Json::Value text(const Outs& o) {
  Json::Value v;
  v["len"] = o.len;
  v["buf"] = std::string(o.buf, sizeof o.buf);
  v["status"] = static_cast<int>(o.status);
  return v;
}
Json::Value timeline(const Outs& o) {
  Json::Value v(Json::arrayValue);
  for (auto x : {o.timeline.unitsPerTick, o.timeline.unitsPerSecond, o.timeline.contentTime,
                 o.timeline.wallclockTime}) {
    v.append(Json::UInt64{x});
  }
  return v;
}
Json::Value handle(const Outs& o) {
  char t[32];
  std::snprintf(t, sizeof t, "%p", o.handle);
  return t;
}
Json::Value video_track(const Outs& o) {
  const auto& t = o.track;
  return json("[" + std::to_string(t.index) + "," + std::to_string(t.trackId) + "," +
              std::to_string(t.activated) + "," + std::to_string(t.encrypted) + "," +
              std::to_string(t.type) + "," + std::to_string(t.pid) + "," +
              std::to_string(t.componentTag) + ",\"" + t.encoding + "\"," +
              std::to_string(t.video.width) + "," + std::to_string(t.video.height) + "]");
}

void media_sync_cb(PavoMediaSyncMsgType, const PavoMSEventInfo*, const void*) {}
void drm_cb(PavoDrmEvent, const PavoDrmEventInfo*, const void*) {}
void* const kAgent = reinterpret_cast<void*>(0x1f00);

struct Row {
  const char* request;  // the whole request, compact
  const char* reply;    // a full reply's output members
  std::function<int(Outs&)> call;
  View view;
  const char* written;        // view after the full reply
  const char* zeros;          // view after a reply without output members
  bool ignores_ret = false;   // a readable reply gives 0
};

const PavoRect kRect{0, 0, 1280, 720};

const std::vector<Row>& rows() {
  static const std::vector<Row> table = {
      {R"({"event_type":0})", R"({"player_id":42})", [](Outs& o) { return Pavo_MediaPlayer_IPC_Create(&o.u); }, u, "42", "0"},
      {R"({"event_type":1,"player_id":7})", "{}", [](Outs&) { return Pavo_MediaPlayer_IPC_Destory(7); }, none, "null", "null"},
      {R"({"event_type":2,"player_id":7,"url":"http://a/b.mp4"})", "{}", [](Outs&) { return Pavo_MediaPlayer_IPC_Load(7, "http://a/b.mp4"); }, none, "null", "null"},
      {R"({"event_type":3,"player_id":7})", "{}", [](Outs&) { return Pavo_MediaPlayer_IPC_Play(7); }, none, "null", "null"},
      {R"({"event_type":4,"player_id":7})", "{}", [](Outs&) { return Pavo_MediaPlayer_IPC_Pause(7); }, none, "null", "null"},
      {R"({"event_type":5,"player_id":7})", "{}", [](Outs&) { return Pavo_MediaPlayer_IPC_Stop(7); }, none, "null", "null"},
      {R"({"event_type":6,"player_id":7,"pos":12.5})", "{}", [](Outs&) { return Pavo_MediaPlayer_IPC_Seek(7, 12.5); }, none, "null", "null"},
      {R"({"event_type":7,"player_id":7,"play_rate":2000.0})", "{}", [](Outs&) { return Pavo_MediaPlayer_IPC_SetPlayRate(7, 2000.0); }, none, "null", "null"},
      {R"({"event_type":8,"player_id":7})", R"({"duration":93.25})", [](Outs& o) { return Pavo_MediaPlayer_IPC_GetDuration(7, &o.d); }, d, "93.25", "0.0"},
      {R"({"event_type":9,"player_id":7})", R"({"play_rate":1000})", [](Outs& o) { return Pavo_MediaPlayer_IPC_GetPlayRate(7, &o.d); }, d, "1000.0", "0.0"},
      {R"({"event_type":10,"player_id":7})", R"({"current_time":3.5})", [](Outs& o) { return Pavo_MediaPlayer_IPC_GetCurrentTime(7, &o.d); }, d, "3.5", "0.0"},
      {R"({"event_type":11,"player_id":7})", R"({"is_fullScreen":1,"is_fullscreen":5})", [](Outs& o) { return Pavo_MediaPlayer_IPC_GetFullScreen(7, &o.i); }, i, "1", "0"},
      {R"({"event_type":12,"player_id":7,"is_fullscreen":1})", "{}", [](Outs&) { return Pavo_MediaPlayer_IPC_SetFullScreen(7, 1); }, none, "null", "null"},
      {R"({"event_type":13,"player_id":7,"rect_x":0,"rect_y":0,"rect_w":1280,"rect_h":720})", "{}", [](Outs&) { return Pavo_MediaPlayer_IPC_SetVideoWindowRect(7, &kRect); }, none, "null", "null"},
      {R"({"event_type":14,"player_id":7})", R"({"play_state":5})", [](Outs& o) { return Pavo_MediaPlayer_IPC_GetPlayState(7, &o.i); }, i, "5", "0"},
      {R"({"event_type":15,"player_id":7,"mime_type":"video/mp4"})", "{}", [](Outs&) { return Pavo_MediaPlayer_IPC_SetMimetype(7, "video/mp4"); }, none, "null", "null"},
      {R"({"event_type":16,"player_id":7,"url":"https://lic/x"})", "{}", [](Outs&) { return Pavo_MediaPlayer_IPC_SetLicenseServerUrl(7, "https://lic/x"); }, none, "null", "null"},
      {R"({"event_type":17,"player_id":7,"data":"c\"d\u00e9"})", "{}", [](Outs&) { return Pavo_MediaPlayer_IPC_SetCustomData(7, "c\"d\xc3\xa9"); }, none, "null", "null"},
      {R"({"event_type":18,"player_id":7,"enable":true})", "{}", [](Outs&) { return Pavo_MediaPlayer_IPC_EnableSubtitle(7, true); }, none, "null", "null"},
      {R"({"event_type":19,"player_id":7,"url":"http://s.vtt","language":"deu","label":""})", "{}", [](Outs&) {
         _PavoSubtitleTrackInfo info;
         info.url = "http://s.vtt";
         info.language = "deu";
         info.text_a = "not sent";
         return Pavo_MediaPlayer_IPC_SetSubtitle(7, &info, sizeof info); }, none, "null", "null"},
      {R"({"event_type":20,"player_id":7,"fontfile":"/f.ttf"})", "{}", [](Outs&) { return Pavo_MediaPlayer_IPC_SetFontFile(7, "/f.ttf", 99); }, none, "null", "null"},
      {R"({"event_type":21,"player_id":7,"loop":3})", "{}", [](Outs&) { return Pavo_MediaPlayer_IPC_SetLoopCount(7, 3); }, none, "null", "null"},
      {R"({"event_type":22,"player_id":7,"cookie":"a=b"})", "{}", [](Outs&) { return Pavo_MediaPlayer_IPC_SetCookie(7, "a=b"); }, none, "null", "null"},
      {R"({"event_type":23,"player_id":7,"track_type":1})", R"({"num":-1})", [](Outs& o) { return Pavo_MediaPlayer_IPC_GetTrackNumber(7, PAVO_TRACK_TYPE_AUDIO, &o.u); }, u, "4294967295", "0"},
      {R"({"event_type":24,"player_id":7,"track_type":0,"index":2})",
       R"({"index":2,"trackId":11,"activated":true,"encrypted":false,"type":0,"pid":256,"componentTag":3,"encoding":"avc","width":1920,"height":1080,"language":"eng"})",
       [](Outs& o) { return Pavo_MediaPlayer_IPC_GetTrackByIndex(7, PAVO_TRACK_TYPE_VIDEO, 2, &o.track); }, video_track,
       R"([2,11,1,0,0,256,3,"avc",1920,1080])", R"([0,0,0,0,0,0,0,"",0,0])"},
      {R"({"event_type":25,"player_id":7,"track_type":2,"index":1})", "{}", [](Outs&) { return Pavo_MediaPlayer_IPC_SelectTrack(7, PAVO_TRACK_TYPE_SUBTITLE, 1); }, none, "null", "null"},
      {R"({"event_type":26,"player_id":7,"track_type":2,"index":1})", "{}", [](Outs&) { return Pavo_MediaPlayer_IPC_UnselectTrack(7, PAVO_TRACK_TYPE_SUBTITLE, 1); }, none, "null", "null"},
      {R"({"event_type":28})", "{}", [](Outs&) { return Pavo_MediaPlayer_IPC_StopAllPlayers(); }, none, "null", "null"},
      {R"({"event_type":29})", "{}", [](Outs&) { return Pavo_MediaPlayer_IPC_ChangeDisPlaySourceToDTV(); }, none, "null", "null"},
      {R"({"event_type":30})", R"({"source_type":3})", [](Outs& o) { return Pavo_MediaPlayer_IPC_GetCurrentSource(o.i); }, i, "3", "0", true},
      {R"({"event_type":100,"player_id":7})", "{}", [](Outs& o) { return Pavo_MediaPlayer_IPC_RegisterMediaSyncCallback(7, media_sync_cb, &o); }, none, "null", "null"},
      {R"({"event_type":101,"player_id":7})", "{}", [](Outs&) { return Pavo_MediaPlayer_IPC_UnregisterMediaSyncCallback(7); }, none, "null", "null"},
      {R"({"event_type":102,"player_id":7})", "{}", [](Outs&) { return Pavo_MediaPlayer_IPC_StartMediaSync(7); }, none, "null", "null"},
      {R"({"event_type":103,"player_id":7})", "{}", [](Outs&) { return Pavo_MediaPlayer_IPC_StopMediaSync(7); }, none, "null", "null"},
      {R"({"event_type":104,"player_id":7,"timeline_selector":"urn:dvb:css:timeline:pts"})", "{}", [](Outs&) { return Pavo_MediaPlayer_IPC_SetTimelineSelector(7, "urn:dvb:css:timeline:pts"); }, none, "null", "null"},
      {R"({"event_type":105,"player_id":7,"len":16})", R"({"len":6,"mrs_url":"mrs:x"})", [](Outs& o) { return Pavo_MediaPlayer_IPC_GetMRSUrl(7, o.buf, &o.len); }, text,
       R"({"len":6,"buf":"mrs:x\u0000ZZZZZZZZZZ","status":-7})", R"({"len":0,"buf":"ZZZZZZZZZZZZZZZZ","status":-7})"},
      {R"({"event_type":106,"player_id":7})", R"({"unitsPerTick":1,"unitsPerSecond":90000,"contentTime":8589934593,"wallclockTime":18446744073709551615})",
       [](Outs& o) { return Pavo_MediaPlayer_IPC_GetCurrentTimeline(7, &o.timeline); }, timeline, "[1,90000,8589934593,18446744073709551615]", "[0,0,0,0]"},
      {R"({"event_type":107,"player_id":7,"len":16})", R"({"len":4,"content_id":"abc","status":2})", [](Outs& o) { return Pavo_MediaPlayer_IPC_GetContentId(7, o.buf, &o.len, &o.status); }, text,
       R"({"len":4,"buf":"abc\u0000ZZZZZZZZZZZZ","status":2})", R"({"len":0,"buf":"ZZZZZZZZZZZZZZZZ","status":0})", true},
      {R"({"event_type":108,"player_id":7,"enable":false})", "{}", [](Outs&) { return Pavo_MediaPlayer_IPC_EnableMutilStreamSync(7, false); }, none, "null", "null"},
      {R"({"event_type":109,"source":"hdmi1"})", R"({"player_id":9})", [](Outs& o) { return Pavo_MediaPlayer_IPC_GetPlayerIdBySource("hdmi1", o.u); }, u, "9", "0"},
      {R"({"event_type":200})", R"({"out_handle":"0x1f00"})", [](Outs& o) { return Pavo_MediaPlayer_IPC_DrmAgent_Create(&o.handle); }, handle, "\"0x1f00\"", "\"(nil)\""},
      {R"({"event_type":201,"in_handle":"0x1f00"})", "{}", [](Outs&) { return Pavo_MediaPlayer_IPC_DrmAgent_Destroy(kAgent); }, none, "null", "null"},
      {R"({"event_type":202,"in_handle":"0x1f00","context":"0xbeef"})", "{}", [](Outs&) { return Pavo_MediaPlayer_IPC_DrmAgent_RegisterCallback(kAgent, drm_cb, reinterpret_cast<void*>(0xbeef)); }, none, "null", "null"},
      {R"({"event_type":203,"in_handle":"0x1f00"})", "{}", [](Outs&) { return Pavo_MediaPlayer_IPC_DrmAgent_UnregisterCallback(kAgent); }, none, "null", "null"},
      {R"({"event_type":204,"in_handle":"0x1f00","msg_type":"t","msg":"m","system_id":"","msg_id_len":8})", R"({"msg_id":"42"})",
       [](Outs& o) { return Pavo_MediaPlayer_IPC_DrmAgent_sendDRMMessage(kAgent, "t", "m", nullptr, o.buf, 8); }, text,
       R"({"len":16,"buf":"42\u0000\u0000\u0000\u0000\u0000\u0000ZZZZZZZZ","status":-7})", R"({"len":16,"buf":"\u0000\u0000\u0000\u0000\u0000\u0000\u0000\u0000ZZZZZZZZ","status":-7})"},
      {R"({"event_type":205,"in_handle":"0x1f00","system_id":"19188"})", R"({"status":2})", [](Outs& o) { return Pavo_MediaPlayer_IPC_DrmAgent_DRMSystemStatus(kAgent, "19188", &o.i); }, i, "2", "0"},
      {R"({"event_type":206,"in_handle":"0x1f00","private_data":"pd","system_id":"19188"})", R"({"support":false})", [](Outs& o) { return Pavo_MediaPlayer_IPC_DrmAgent_canPlayContent(kAgent, "pd", "19188", &o.b); }, b, "false", "false"},
      {R"({"event_type":207,"in_handle":"0x1f00","private_data":"pd","system_id":"19188"})", R"({"support":false})", [](Outs& o) { return Pavo_MediaPlayer_IPC_DrmAgent_canRecordContent(kAgent, "pd", "19188", &o.b); }, b, "false", "false"},
      {R"({"event_type":208,"in_handle":"0x1f00"})", "{}", [](Outs&) { return Pavo_MediaPlayer_IPC_DrmAgent_clearLicense(kAgent); }, none, "null", "null"},
  };
  return table;
}

int event_type(const Row& row) { return json(row.request)["event_type"].asInt(); }

// Compared as text: 1 and 1u are equal, 1 and 1.0 are not.
std::string styled(const Json::Value& v) { return v.toStyledString(); }

class CommandTable : public pavo::test::ClientTest {
 protected:
  // Runs the row against `answer`; returns the result, checks the request.
  int run(const Row& row, const Answer& answer, Outs* outs) {
    service_.clear_records();
    service_.script(event_type(row), answer);
    const int result = row.call(*outs);
    const auto requests = service_.requests();
    EXPECT_EQ(requests.size(), 1u) << row.request;
    if (!requests.empty()) {
      EXPECT_EQ(requests[0].text, json(row.request).toStyledString());
    }
    return result;
  }
  static Answer reply_with(const char* members, int ret) {
    Json::Value reply = json(members);
    reply["ret"] = ret;
    return Answer::json(reply);
  }
};

TEST_F(CommandTable, FullReplyWritesEveryOutputAndReturnsRet) {
  for (const Row& row : rows()) {
    Outs outs;
    EXPECT_EQ(run(row, reply_with(row.reply, 3), &outs), row.ignores_ret ? 0 : 3) << row.request;
    EXPECT_EQ(styled(row.view(outs)), styled(json(row.written))) << row.request;
  }
}

TEST_F(CommandTable, ReplyWithoutOutputMembersWritesZeros) {
  for (const Row& row : rows()) {
    Outs outs;
    EXPECT_EQ(run(row, Answer::json(json(R"({"ret":-2})")), &outs), row.ignores_ret ? 0 : -2) << row.request;
    EXPECT_EQ(styled(row.view(outs)), styled(json(row.zeros))) << row.request;
  }
}

TEST_F(CommandTable, UnreadableRepliesLeaveOutputsUntouched) {
  const std::vector<Answer> unreadable = {
      Answer::no_reply(),  // the transport's placeholder "a"
      Answer::text_reply(""),         Answer::text_reply("not json"), Answer::text_reply("[1,2]"),
      Answer::text_reply("5"),        Answer::text_reply("null"),     Answer::text_reply("\"ret\""),
      Answer::text_reply("{\"ret\":"), Answer::text_reply(std::string(5000, '[')),
      Answer::text_reply(std::string(16384, '{')),
  };
  for (const Row& row : rows()) {
    const Json::Value untouched = row.view(Outs{});
    for (const Answer& answer : unreadable) {
      Outs outs;
      EXPECT_EQ(run(row, answer, &outs), -1) << row.request << " <- " << answer.text.substr(0, 20);
      EXPECT_EQ(row.view(outs), untouched) << row.request;
    }
    // Output members of a type that jsoncpp cannot convert, or a "ret"
    // beyond 32 bits: the whole reply is unreadable.
    Json::Value wrong = json(row.reply);
    for (const auto& name : wrong.getMemberNames()) wrong[name] = Json::Value(Json::arrayValue);
    wrong["ret"] = wrong.empty() ? Json::Value(Json::UInt64{1} << 32) : Json::Value(0);
    Outs outs;
    EXPECT_EQ(run(row, Answer::json(wrong), &outs), -1) << row.request;
    EXPECT_EQ(row.view(outs), untouched) << row.request;
  }
}

TEST_F(CommandTable, FailedExchangesLeaveOutputsUntouched) {
  Outs outs;
  const Row& duration = rows()[8];
  EXPECT_EQ(run(duration, Answer::none(), &outs), -1) << "no answer within the reply time-out";
  EXPECT_EQ(outs.d, -99.5);
  ASSERT_EQ(Pavo_MediaPlayer_IPC_Finalize(), 0);
  service_.clear_records();
  for (const Row& row : rows()) {
    Outs closed;
    EXPECT_EQ(row.call(closed), -3) << row.request;
    EXPECT_EQ(row.view(closed), row.view(Outs{})) << row.request;
  }
  EXPECT_TRUE(service_.requests().empty());
}

}  // namespace
