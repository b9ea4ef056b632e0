// Every request/reply command against the fake service, from one table: the
// exact request, the outputs of a full reply, of a reply without output
// members, of unreadable replies and of failed exchanges. Then the rules of
// single commands that a row cannot show: argument checks, the registry
// after a destroy, the irregular log records. (The one-way notice:
// lifecycle_test.cc.)
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <iterator>
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

// Every out-parameter, starting from values that neither a full reply nor a
// missing member gives.
struct Outs {
  unsigned u = 0xdeadbeef;
  int i = -12345;
  double d = -99.5;
  bool b = false;  // (set true by the replies)
  PavoTimeline timeline{1, 2, 3, 4};
  char buf[16];
  unsigned len = sizeof buf;  // in: the capacity
  PavoContentIdStatus status = static_cast<PavoContentIdStatus>(-7);
  void* handle = reinterpret_cast<void*>(0x5);
  PavoAVCtrlTrackInfo track{-1, -1, false, false, -1, 1, 1, "zz", {-1, -1}, {-1, -1, -1, "zz"}, {false, "zz", "zz", "zz"}};
  Outs() { std::memset(buf, 'Z', sizeof buf); }
};

// All out-parameters as one styled text (1 and 1.0 differ in it).
std::string dump(const Outs& o) {
  char handle[32];
  std::snprintf(handle, sizeof handle, "%p", o.handle);
  const PavoTimeline& tl = o.timeline;
  const PavoAVCtrlTrackInfo& t = o.track;
  Json::Value v;
  for (const auto& [name, value] : std::initializer_list<std::pair<const char*, Json::Value>>{
           {"u", o.u}, {"i", o.i}, {"d", o.d}, {"b", o.b}, {"buf", std::string(o.buf, sizeof o.buf)}, {"len", o.len},
           {"status", static_cast<int>(o.status)}, {"handle", handle}}) {
    v[name] = value;
  }
  for (uint64_t x : {tl.unitsPerTick, tl.unitsPerSecond, tl.contentTime, tl.wallclockTime})
    v["timeline"].append(Json::UInt64{x});
  for (const Json::Value& x : std::initializer_list<Json::Value>{
           t.index, t.trackId, t.activated, t.encrypted, t.type, t.pid, t.componentTag, t.encoding, t.video.width,
           t.video.height, t.audio.priority, t.audio.audioDescription, t.audio.audioChannels, t.audio.language,
           t.subtitle.hearingImpaired, t.subtitle.url, t.subtitle.language, t.subtitle.label}) {
    v["track"].append(x);
  }
  return v.toStyledString();
}

void media_sync_cb(PavoMediaSyncMsgType, const PavoMSEventInfo*, const void*) {}
void drm_cb(PavoDrmEvent, const PavoDrmEventInfo*, const void*) {}
void* const kAgent = reinterpret_cast<void*>(0x1f00);
const PavoRect kRect{0, 0, 1280, 720};
const char* const kTrack = R"({"index":2,"trackId":11,"activated":true,"encrypted":true,"type":1,"pid":256,
    "componentTag":3,"encoding":"avc","width":1920,"height":1080,"priority":5,"audioDescription":1,
    "audioChannels":6,"language":"fra","hearingImpaired":true,"url":"u","label":"l"})";

struct Row {
  const char* request;  // the whole request, compact
  std::function<int(Outs&)> call;
  const char* reply = "{}";    // a full reply's output members
  const char* written = "{}";  // what the full reply changes
  const char* zeros = "{}";    // what a reply without output members changes
  bool ignores_ret = false;    // a readable reply gives 0
};

const std::vector<Row> kRows = {
      {R"({"event_type":0})", [](Outs& o) { return Pavo_MediaPlayer_IPC_Create(&o.u); }, R"({"player_id":42})", R"({"u":42})", R"({"u":0})"},
      {R"({"event_type":1,"player_id":7})", [](Outs&) { return Pavo_MediaPlayer_IPC_Destory(7); }},
      {R"({"event_type":2,"player_id":7,"url":"http://a/b.mp4"})", [](Outs&) { return Pavo_MediaPlayer_IPC_Load(7, "http://a/b.mp4"); }},
      {R"({"event_type":3,"player_id":7})", [](Outs&) { return Pavo_MediaPlayer_IPC_Play(7); }},
      {R"({"event_type":4,"player_id":7})", [](Outs&) { return Pavo_MediaPlayer_IPC_Pause(7); }},
      {R"({"event_type":5,"player_id":7})", [](Outs&) { return Pavo_MediaPlayer_IPC_Stop(7); }},
      {R"({"event_type":6,"player_id":7,"pos":12.5})", [](Outs&) { return Pavo_MediaPlayer_IPC_Seek(7, 12.5); }},
      {R"({"event_type":7,"player_id":7,"play_rate":2000.0})", [](Outs&) { return Pavo_MediaPlayer_IPC_SetPlayRate(7, 2000.0); }},
      {R"({"event_type":8,"player_id":7})", [](Outs& o) { return Pavo_MediaPlayer_IPC_GetDuration(7, &o.d); }, R"({"duration":93.25})", R"({"d":93.25})", R"({"d":0.0})"},
      {R"({"event_type":9,"player_id":7})", [](Outs& o) { return Pavo_MediaPlayer_IPC_GetPlayRate(7, &o.d); }, R"({"play_rate":1000})", R"({"d":1000.0})", R"({"d":0.0})"},
      {R"({"event_type":10,"player_id":7})", [](Outs& o) { return Pavo_MediaPlayer_IPC_GetCurrentTime(7, &o.d); }, R"({"current_time":3.5})", R"({"d":3.5})", R"({"d":0.0})"},
      {R"({"event_type":11,"player_id":7})", [](Outs& o) { return Pavo_MediaPlayer_IPC_GetFullScreen(7, &o.i); }, R"({"is_fullScreen":1,"is_fullscreen":5})", R"({"i":1})", R"({"i":0})"},
      {R"({"event_type":12,"player_id":7,"is_fullscreen":1})", [](Outs&) { return Pavo_MediaPlayer_IPC_SetFullScreen(7, 1); }},
      {R"({"event_type":13,"player_id":7,"rect_x":0,"rect_y":0,"rect_w":1280,"rect_h":720})", [](Outs&) { return Pavo_MediaPlayer_IPC_SetVideoWindowRect(7, &kRect); }},
      {R"({"event_type":14,"player_id":7})", [](Outs& o) { return Pavo_MediaPlayer_IPC_GetPlayState(7, &o.i); }, R"({"play_state":5})", R"({"i":5})", R"({"i":0})"},
      {R"({"event_type":15,"player_id":7,"mime_type":"video/mp4"})", [](Outs&) { return Pavo_MediaPlayer_IPC_SetMimetype(7, "video/mp4"); }},
      {R"({"event_type":16,"player_id":7,"url":"https://lic/x"})", [](Outs&) { return Pavo_MediaPlayer_IPC_SetLicenseServerUrl(7, "https://lic/x"); }},
      {R"({"event_type":17,"player_id":7,"data":"c\"d\u00e9"})", [](Outs&) { return Pavo_MediaPlayer_IPC_SetCustomData(7, "c\"d\xc3\xa9"); }},
      {R"({"event_type":18,"player_id":7,"enable":true})", [](Outs&) { return Pavo_MediaPlayer_IPC_EnableSubtitle(7, true); }},
      {R"({"event_type":19,"player_id":7,"url":"http://s.vtt","language":"deu","label":""})", [](Outs&) {
         _PavoSubtitleTrackInfo info;
         info.url = "http://s.vtt";
         info.language = "deu";
         info.text_a = "not sent";
         return Pavo_MediaPlayer_IPC_SetSubtitle(7, &info, sizeof info); }},
      {R"({"event_type":20,"player_id":7,"fontfile":"/f.ttf"})", [](Outs&) { return Pavo_MediaPlayer_IPC_SetFontFile(7, "/f.ttf", 99); }},
      {R"({"event_type":21,"player_id":7,"loop":3})", [](Outs&) { return Pavo_MediaPlayer_IPC_SetLoopCount(7, 3); }},
      {R"({"event_type":22,"player_id":7,"cookie":"a=b"})", [](Outs&) { return Pavo_MediaPlayer_IPC_SetCookie(7, "a=b"); }},
      {R"({"event_type":23,"player_id":7,"track_type":1})", [](Outs& o) { return Pavo_MediaPlayer_IPC_GetTrackNumber(7, PAVO_TRACK_TYPE_AUDIO, &o.u); }, R"({"num":-1})", R"({"u":4294967295})", R"({"u":0})"},
      // The common members and only the group of the requested kind.
      {R"({"event_type":24,"player_id":7,"track_type":0,"index":2})", [](Outs& o) { return Pavo_MediaPlayer_IPC_GetTrackByIndex(7, PAVO_TRACK_TYPE_VIDEO, 2, &o.track); }, kTrack,
       R"({"track":[2,11,true,true,1,256,3,"avc",1920,1080,-1,-1,-1,"zz",false,"zz","zz","zz"]})",
       R"({"track":[0,0,false,false,0,0,0,"",0,0,-1,-1,-1,"zz",false,"zz","zz","zz"]})"},
      {R"({"event_type":24,"player_id":7,"track_type":1,"index":2})", [](Outs& o) { return Pavo_MediaPlayer_IPC_GetTrackByIndex(7, PAVO_TRACK_TYPE_AUDIO, 2, &o.track); }, kTrack,
       R"({"track":[2,11,true,true,1,256,3,"avc",-1,-1,5,1,6,"fra",false,"zz","zz","zz"]})",
       R"({"track":[0,0,false,false,0,0,0,"",-1,-1,0,0,0,"",false,"zz","zz","zz"]})"},
      {R"({"event_type":24,"player_id":7,"track_type":2,"index":2})", [](Outs& o) { return Pavo_MediaPlayer_IPC_GetTrackByIndex(7, PAVO_TRACK_TYPE_SUBTITLE, 2, &o.track); }, kTrack,
       R"({"track":[2,11,true,true,1,256,3,"avc",-1,-1,-1,-1,-1,"zz",true,"u","fra","l"]})",
       R"({"track":[0,0,false,false,0,0,0,"",-1,-1,-1,-1,-1,"zz",false,"","",""]})"},
      {R"({"event_type":24,"player_id":7,"track_type":3,"index":2})", [](Outs& o) { return Pavo_MediaPlayer_IPC_GetTrackByIndex(7, PAVO_TRACK_TYPE_OTHER, 2, &o.track); }, kTrack},
      {R"({"event_type":25,"player_id":7,"track_type":2,"index":1})", [](Outs&) { return Pavo_MediaPlayer_IPC_SelectTrack(7, PAVO_TRACK_TYPE_SUBTITLE, 1); }},
      {R"({"event_type":26,"player_id":7,"track_type":2,"index":1})", [](Outs&) { return Pavo_MediaPlayer_IPC_UnselectTrack(7, PAVO_TRACK_TYPE_SUBTITLE, 1); }},
      {R"({"event_type":28})", [](Outs&) { return Pavo_MediaPlayer_IPC_StopAllPlayers(); }},
      {R"({"event_type":29})", [](Outs&) { return Pavo_MediaPlayer_IPC_ChangeDisPlaySourceToDTV(); }},
      {R"({"event_type":30})", [](Outs& o) { return Pavo_MediaPlayer_IPC_GetCurrentSource(o.i); }, R"({"source_type":3})", R"({"i":3})", R"({"i":0})", true},
      {R"({"event_type":100,"player_id":7})", [](Outs& o) { return Pavo_MediaPlayer_IPC_RegisterMediaSyncCallback(7, media_sync_cb, &o); }},
      {R"({"event_type":101,"player_id":7})", [](Outs&) { return Pavo_MediaPlayer_IPC_UnregisterMediaSyncCallback(7); }},
      {R"({"event_type":102,"player_id":7})", [](Outs&) { return Pavo_MediaPlayer_IPC_StartMediaSync(7); }},
      {R"({"event_type":103,"player_id":7})", [](Outs&) { return Pavo_MediaPlayer_IPC_StopMediaSync(7); }},
      {R"({"event_type":104,"player_id":7,"timeline_selector":"urn:dvb:css:timeline:pts"})", [](Outs&) { return Pavo_MediaPlayer_IPC_SetTimelineSelector(7, "urn:dvb:css:timeline:pts"); }},
      // "len" bytes of the text, but at most the capacity sent and the text with its terminator.
      {R"({"event_type":105,"player_id":7,"len":16})", [](Outs& o) { return Pavo_MediaPlayer_IPC_GetMRSUrl(7, o.buf, &o.len); }, R"({"len":4,"mrs_url":"abcd"})",
       R"({"len":4,"buf":"abcdZZZZZZZZZZZZ"})", R"({"len":0})"},
      {R"({"event_type":105,"player_id":7,"len":16})", [](Outs& o) { return Pavo_MediaPlayer_IPC_GetMRSUrl(7, o.buf, &o.len); }, R"({"len":30,"mrs_url":"ab"})",
       R"({"len":30,"buf":"ab\u0000ZZZZZZZZZZZZZ"})", R"({"len":0})"},
      {R"({"event_type":105,"player_id":7,"len":16})", [](Outs& o) { return Pavo_MediaPlayer_IPC_GetMRSUrl(7, o.buf, &o.len); }, R"({"len":-1,"mrs_url":"abcdefghijklmnopqrst"})",
       R"({"len":4294967295,"buf":"abcdefghijklmnop"})", R"({"len":0})"},
      {R"({"event_type":106,"player_id":7})", [](Outs& o) { return Pavo_MediaPlayer_IPC_GetCurrentTimeline(7, &o.timeline); },
       R"({"unitsPerTick":5,"unitsPerSecond":90000,"contentTime":8589934593,"wallclockTime":18446744073709551615})",
       R"({"timeline":[5,90000,8589934593,18446744073709551615]})", R"({"timeline":[0,0,0,0]})"},
      {R"({"event_type":107,"player_id":7,"len":16})", [](Outs& o) { return Pavo_MediaPlayer_IPC_GetContentId(7, o.buf, &o.len, &o.status); }, R"({"len":4,"content_id":"abc","status":2})",
       R"({"len":4,"buf":"abc\u0000ZZZZZZZZZZZZ","status":2})", R"({"len":0,"status":0})", true},
      {R"({"event_type":107,"player_id":7,"len":16})", [](Outs& o) { return Pavo_MediaPlayer_IPC_GetContentId(7, nullptr, &o.len, &o.status); },
       R"({"len":24,"content_id":[],"status":3})", R"({"len":24,"status":3})", R"({"len":0,"status":0})", true},  // the length only
      {R"({"event_type":108,"player_id":7,"enable":false})", [](Outs&) { return Pavo_MediaPlayer_IPC_EnableMutilStreamSync(7, false); }},
      {R"({"event_type":109,"source":"hdmi1"})", [](Outs& o) { return Pavo_MediaPlayer_IPC_GetPlayerIdBySource("hdmi1", o.u); }, R"({"player_id":9})", R"({"u":9})", R"({"u":0})"},
      // The DRM agent through its checked functions; a handle is its "%p" text.
      {R"({"event_type":200})", [](Outs& o) { return Pavo_DrmAgent_Create(&o.handle); }, R"({"out_handle":"0x1f00"})", R"({"handle":"0x1f00"})", R"j({"handle":"(nil)"})j"},
      {R"({"event_type":201,"in_handle":"0x1f00"})", [](Outs&) { return Pavo_DrmAgent_Destroy(kAgent); }},
      {R"({"event_type":202,"in_handle":"0x1f00","context":"0xbeef"})", [](Outs&) { return Pavo_DrmAgent_RegisterCallback(kAgent, drm_cb, reinterpret_cast<void*>(0xbeef)); }},
      {R"({"event_type":203,"in_handle":"0x1f00"})", [](Outs&) { return Pavo_DrmAgent_UnregisterCallback(kAgent); }},
      {R"({"event_type":204,"in_handle":"0x1f00","msg_type":"t","msg":"m","system_id":"","msg_id_len":8})", [](Outs& o) { return Pavo_DrmAgent_sendDRMMessage(kAgent, "t", "m", nullptr, o.buf, 8); },
       R"({"msg_id":"42"})", R"({"buf":"42\u0000\u0000\u0000\u0000\u0000\u0000ZZZZZZZZ"})", R"({"buf":"\u0000\u0000\u0000\u0000\u0000\u0000\u0000\u0000ZZZZZZZZ"})"},
      // The id is copied as strncpy does, over exactly the capacity.
      {R"({"event_type":204,"in_handle":"0x1f00","msg_type":"t","msg":"m","system_id":"s","msg_id_len":4})", [](Outs& o) { return Pavo_DrmAgent_sendDRMMessage(kAgent, "t", "m", "s", o.buf, 4); },
       R"({"msg_id":"123456789"})", R"({"buf":"1234ZZZZZZZZZZZZ"})", R"({"buf":"\u0000\u0000\u0000\u0000ZZZZZZZZZZZZ"})"},
      {R"({"event_type":205,"in_handle":"0x1f00","system_id":"19188"})", [](Outs& o) { return Pavo_DrmAgent_DRMSystemStatus(kAgent, "19188", &o.i); }, R"({"status":2})", R"({"i":2})", R"({"i":0})"},
      {R"({"event_type":206,"in_handle":"0x1f00","private_data":"pd","system_id":"19188"})", [](Outs& o) { return Pavo_DrmAgent_canPlayContent(kAgent, "pd", "19188", &o.b); }, R"({"support":true})", R"({"b":true})"},
      {R"({"event_type":207,"in_handle":"0x1f00","private_data":"pd","system_id":"19188"})", [](Outs& o) { return Pavo_DrmAgent_canRecordContent(kAgent, "pd", "19188", &o.b); }, R"({"support":true})", R"({"b":true})"},
      {R"({"event_type":208,"in_handle":"0x1f00"})", [](Outs&) { return Pavo_DrmAgent_clearLicense(kAgent); }},
};

class Commands : public pavo::test::ClientTest {
 protected:
  // Runs the row against `answer`; checks that exactly the row's request went out.
  int run(const Row& row, const Answer& answer, Outs* outs) {
    service_.clear_records();
    service_.script(json(row.request)["event_type"].asInt(), answer);
    const int result = row.call(*outs);
    const auto sent = service_.requests();
    EXPECT_EQ(sent.size() == 1 ? sent[0].text : "(not one request)", json(row.request).toStyledString());
    return result;
  }
};

// A readable reply writes every output, whatever its "ret" says; an unreadable
// one (or the no-reply answer) leaves every output untouched.
TEST_F(Commands, EveryRowAgainstReadableAndUnreadableReplies) {
  const std::vector<Answer> unreadable = {
      Answer::no_reply(),  // the transport's placeholder "a"
      Answer::text_reply(""), Answer::text_reply("not json"), Answer::text_reply("[1,2]"), Answer::text_reply("null"),  // not an object
      Answer::text_reply("{\"ret\":"), Answer::text_reply(std::string(5000, '[')),  // nested beyond the reader's limit
      Answer::text_reply(std::string(16384, '{')),                                  // the longest message
      Answer::text_reply(std::string("{\"ret\":0,\"x\":\"a\0b\"}", 19)),  // the text ends at its NUL
  };
  const std::string untouched = dump(Outs{});
  for (const Row& row : kRows) {
    for (const bool full : {true, false}) {
      Json::Value reply = full ? json(row.reply) : Json::Value(Json::objectValue), expected = json(untouched);
      reply["ret"] = full ? 3 : -2;
      reply["padding"] = std::string(2000, 'p');  // a reply of several frames
      const Json::Value changes = json(full ? row.written : row.zeros);
      for (const auto& name : changes.getMemberNames()) expected[name] = changes[name];
      Outs outs;
      EXPECT_EQ(run(row, Answer::json(reply), &outs), row.ignores_ret ? 0 : reply["ret"].asInt()) << row.request;
      EXPECT_EQ(dump(outs), expected.toStyledString()) << row.request;
    }
    std::vector<Answer> answers = unreadable;
    // Readable outputs with a "ret" beyond 32 bits; outputs that jsoncpp cannot convert.
    Json::Value bad_ret = json(row.reply), bad_outputs = json(row.reply);
    bad_ret["ret"] = Json::UInt64{1} << 32;
    for (const auto& name : bad_outputs.getMemberNames()) bad_outputs[name] = Json::Value(Json::arrayValue);
    if (!row.ignores_ret) answers.push_back(Answer::json(bad_ret));
    if (std::string(row.written) != "{}") answers.push_back(Answer::json(bad_outputs));
    for (const Answer& answer : answers) {
      Outs outs;
      EXPECT_EQ(run(row, answer, &outs), -1) << row.request << " <- " << answer.text.substr(0, 40);
      EXPECT_EQ(dump(outs), untouched) << row.request << " <- " << answer.text.substr(0, 40);
    }
  }
  ASSERT_EQ(Pavo_MediaPlayer_IPC_Finalize(), 0);
  service_.clear_records();
  for (const Row& row : kRows) {
    Outs closed;
    EXPECT_EQ(row.call(closed), -3) << row.request;
    EXPECT_EQ(dump(closed), untouched) << row.request;
  }
  EXPECT_TRUE(service_.requests().empty());
}

TEST_F(Commands, NullArgumentsAreRefusedBeforeAnythingIsSent) {
  char buf[8] = {};
  unsigned len = sizeof buf;
  int status = 0;
  bool flag = false;
  const int refused[] = {  // -1 from the commands
      Pavo_MediaPlayer_IPC_Load(1, nullptr), Pavo_MediaPlayer_IPC_SetMimetype(1, nullptr),
      Pavo_MediaPlayer_IPC_SetLicenseServerUrl(1, nullptr), Pavo_MediaPlayer_IPC_SetCustomData(1, nullptr),
      Pavo_MediaPlayer_IPC_SetFontFile(1, nullptr, 0), Pavo_MediaPlayer_IPC_SetCookie(1, nullptr),
      Pavo_MediaPlayer_IPC_SetTimelineSelector(1, nullptr), Pavo_MediaPlayer_IPC_SetVideoWindowRect(1, nullptr),
      Pavo_MediaPlayer_IPC_SetSubtitle(1, nullptr, 0), Pavo_MediaPlayer_IPC_Create(nullptr),
      Pavo_MediaPlayer_IPC_GetDuration(1, nullptr), Pavo_MediaPlayer_IPC_GetFullScreen(1, nullptr),
      Pavo_MediaPlayer_IPC_GetTrackNumber(1, PAVO_TRACK_TYPE_AUDIO, nullptr),
      Pavo_MediaPlayer_IPC_GetTrackByIndex(1, PAVO_TRACK_TYPE_AUDIO, 0, nullptr),
      Pavo_MediaPlayer_IPC_GetMRSUrl(1, buf, nullptr), Pavo_MediaPlayer_IPC_GetContentId(1, buf, &len, nullptr),
      Pavo_MediaPlayer_IPC_GetCurrentTimeline(1, nullptr), Pavo_MediaPlayer_IPC_DrmAgent_Create(nullptr)};
  const int bad_argument[] = {  // -3 from the DRM agent's checks
      Pavo_DrmAgent_Create(nullptr), Pavo_DrmAgent_Destroy(nullptr), Pavo_DrmAgent_RegisterCallback(nullptr, drm_cb, &len),
      Pavo_DrmAgent_RegisterCallback(kAgent, drm_cb, nullptr), Pavo_DrmAgent_UnregisterCallback(nullptr),
      Pavo_DrmAgent_sendDRMMessage(kAgent, nullptr, "m", "s", buf, 8), Pavo_DrmAgent_sendDRMMessage(kAgent, "t", nullptr, "s", buf, 8),
      Pavo_DrmAgent_sendDRMMessage(kAgent, "t", "m", "s", nullptr, 8), Pavo_DrmAgent_DRMSystemStatus(kAgent, nullptr, &status),
      Pavo_DrmAgent_DRMSystemStatus(kAgent, "s", nullptr), Pavo_DrmAgent_canPlayContent(kAgent, nullptr, "s", &flag),
      Pavo_DrmAgent_canRecordContent(kAgent, "p", nullptr, &flag), Pavo_DrmAgent_canRecordContent(kAgent, "p", "s", nullptr),
      Pavo_DrmAgent_clearLicense(nullptr)};
  for (size_t n = 0; n < std::size(refused); ++n) EXPECT_EQ(refused[n], -1) << "call " << n;
  for (size_t n = 0; n < std::size(bad_argument); ++n) EXPECT_EQ(bad_argument[n], -3) << "call " << n;
  EXPECT_TRUE(service_.requests().empty());
}

TEST_F(Commands, DestoryDropsTheRegistryEntryOnlyWhenAReplyWasRead) {
  Pavo_MediaPlayer_IPC_RegisterCallback(5, [](PavoMediaPluginEvent, PavoMediaError, const void*, int, double) {}, this);
  service_.script(1, Answer::no_reply());
  EXPECT_EQ(Pavo_MediaPlayer_IPC_Destory(5), -1);
  EXPECT_TRUE(pavo::mediaplayer::player_user_data(5).has_value());
  service_.script(1, Answer::json(json(R"({"ret":-5})")));
  EXPECT_EQ(Pavo_MediaPlayer_IPC_Destory(5), -5);
  EXPECT_FALSE(pavo::mediaplayer::player_user_data(5).has_value());
}

// Every record of these calls, in order: the irregular ones lack a record.
TEST_F(Commands, LogRecordsFollowTheIrregularities) {
  insert_modules_list("PAC_PLUGIN", 1);  // every record
  int source = 0;
  std::string log, records;
  {
    pavo::test::OutputCapture out(1);
    Pavo_MediaPlayer_IPC_GetCurrentSource(source);
    Pavo_MediaPlayer_IPC_UnregisterMediaSyncCallback(1);
    EXPECT_EQ(Pavo_MediaPlayer_IPC_UnregisterCallback(1), 0);
    Pavo_MediaPlayer_IPC_PlatformSubtitleEnable(true);
    Pavo_MediaPlayer_IPC_Play(1);
    Pavo_MediaPlayer_IPC_SetCustomData(1, nullptr);
    log = out.text();
  }
  clear_modules_list();
  const std::string function = "Function: Pavo_MediaPlayer_IPC_";
  for (size_t at = 0; (at = log.find(function, at)) != std::string::npos;) {
    at += function.size();
    records += log.substr(at, log.find_first_of(":\n", at) - at) + "\n";  // (an error record's line number cut)
  }
  EXPECT_EQ(records,
            "GetCurrentSource() Enter!\nUnregisterMediaSyncCallback() Leave!\nPlatformSubtitleEnable() Enter!\n"
            "Play() Enter!\nPlay() Leave!\nSetCustomData() Enter!\nSetCustomData(), line\n");
}

}  // namespace
