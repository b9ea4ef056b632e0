// Components: the list collected on track events with its language codes and
// cut texts, the type mapping, the active component, and the handle-less
// platform callbacks.
#include "av_control_adaptor/components.h"

#include <cstring>

#include "avctrl_harness.h"
#include "support/output_capture.h"

namespace pavo::test {
namespace {

using pavo::avctrl::GetComponents;
const auto kAudio = PAVO_AV_COMPONENT_TYPE_AUDIO;

// GetTrackNumber answers the number of `tracks`, GetTrackByIndex the track
// at "index" (a null entry: a refused request).
void script_tracks(FakeMediaService& service, const std::vector<Json::Value>& tracks) {
  service.script(23, Answer::json(reply_with(0, "num", static_cast<int>(tracks.size()))));
  service.script(24, [tracks](const Json::Value& request) {
    const Json::Value& track = tracks.at(request["index"].asUInt());
    return Answer::json(track.isNull() ? reply_with(-1) : track);
  });
}

Json::Value track(const char* language, const std::string& encoding, bool active = false) {
  Json::Value t = reply_with(0, "language", language);
  t["encoding"] = encoding;
  t["audioChannels"] = 6;
  t["audioDescription"] = 1;
  t["hearingImpaired"] = true;
  t["activated"] = active;
  t["index"] = active ? 5 : 0;  // the service's own index, not the position
  return t;
}

struct List {
  PavoRecordList list{};
  List() { Init(&list); }
  ~List() { list.destructor(&list); }
};

TEST_F(AvctrlTest, ComponentListNormalisesLanguagesAndCutsLongTextsAtACharacter) {
  const std::string utf8_at_the_cut = std::string(126, 'a') + "\xC3\xA9";  // é on bytes 127-128
  script_tracks(service_, {track("EN", "mp4a.40.2"), track("fra", "ac-3"), track("xx", "ec-3"),
                           track("deu", std::string(300, 'e')), Json::Value(),
                           track("portuguese", utf8_at_the_cut), track("lt", "opus"),
                           track("Zh", "aac")});
  List l;
  ASSERT_EQ(GetComponents(kAudio, &l.list), 0);
  ASSERT_EQ(l.list.count, 7u) << "the refused track is skipped";
  const char* languages[] = {"eng", "fre", "eng", "deu", "por", "lit", "chi"};
  for (unsigned i = 0; i < l.list.count; ++i) {
    const PavoAVComponentRecord& r = l.list.records[i];
    EXPECT_STREQ(r.language, languages[i]) << i;
    EXPECT_TRUE(r.type == kAudio && r.audioDescription && r.audioChannels == 6) << i;
    EXPECT_FALSE(r.hearingImpaired) << "an audio track carries no subtitle flag";
  }
  EXPECT_STREQ(l.list.records[0].encoding, "mp4a.40.2");
  EXPECT_EQ(std::string(l.list.records[3].encoding), std::string(127, 'e'));
  EXPECT_EQ(std::string(l.list.records[4].encoding), std::string(126, 'a')) << "no half character";
  EXPECT_TRUE(logged("GetComponents", "get component handle error."));

  script_tracks(service_, {track("de", "stpp")});
  List subtitles;
  ASSERT_EQ(GetComponents(PAVO_AV_COMPONENT_TYPE_SUBTITLE, &subtitles.list), 0);
  EXPECT_STREQ(subtitles.list.records[0].language, "ger");
  EXPECT_TRUE(subtitles.list.records[0].hearingImpaired);
  EXPECT_EQ(subtitles.list.records[0].audioChannels, 0) << "not filled for subtitles";

  script_tracks(service_, std::vector<Json::Value>(300, track("en", "avc1")));
  List video;
  ASSERT_EQ(GetComponents(PAVO_AV_COMPONENT_TYPE_VIDEO, &video.list), 0);
  PavoAVComponentRecord zero;
  std::memset(&zero, 0, sizeof zero);
  ASSERT_EQ(video.list.count, PAVO_AVCTRL_MAX_COMPONENTS) << "no more are asked for";
  EXPECT_EQ(std::memcmp(&video.list.records[1], &zero, sizeof zero), 0) << "only the type, 0";
}

TEST(ComponentText, CopiesStopAtTheFieldEndAndAtCharacterBoundaries) {
  const struct {
    std::string in;
    const char* out;
  } rows[] = {{"", ""},
              {"abcde", "abcd"},
              {"abc\xC3\xA9", "abc"},
              {"ab\xE2\x82\xAC", "ab"},
              {"a\xF0\x9F\x98\x80", "a"},
              {"a\xE2\x82\xAC", "a\xE2\x82\xAC"},
              {std::string("a\0bc", 4), "a"},
              {"a\x80\x80\x80\x80\x80", "a\x80\x80\x80"}};  // not UTF-8: cut where it is
  for (const auto& row : rows) {
    char field[8];
    std::memset(field, 0x7f, sizeof field);
    pavo::avctrl::copy_text(field, 5, row.in);
    EXPECT_STREQ(field, row.out);
    EXPECT_EQ(std::string(field + 5, 3), std::string(3, 0x7f)) << "written past the field";
  }
}

TEST_F(AvctrlTest, PlatformCallbacksReachTheOneObjectWithMappedTypes) {
  for (const auto& [component, track_type] :
       {std::pair{-1, 3}, {0, 0}, {1, 1}, {2, 2}, {3, 3}, {-2, 3}}) {
    clear();
    unsigned count = 0;
    EXPECT_EQ(Pavo_Platform_Get_Track_Number(static_cast<PavoAVComponentType>(component), &count),
              0);
    EXPECT_EQ(requests_of(23).at(0)["track_type"], track_type) << component;
  }
  script_tracks(service_, {track("en", "aac"), track("en", "aac", true), track("de", "aac")});
  answer(26, reply_with(-7));
  PavoAVCtrlTrackInfo info{};
  EXPECT_EQ(Pavo_Platform_Get_Track_By_Index(kAudio, 1, &info), 0);
  EXPECT_TRUE(info.activated);
  EXPECT_EQ(Pavo_Platform_Select_Track(PAVO_AV_COMPONENT_TYPE_SUBTITLE, 2), 0);
  EXPECT_EQ(requests_of(25).at(0)["index"], 2);
  EXPECT_EQ(Pavo_Platform_Unselect_Track(kAudio, 2), 0) << "a refusal is not reported";
  int index = -1;
  {
    OutputCapture out(1);
    EXPECT_EQ(Pavo_Platform_Get_Current_Track(kAudio, &index), 0);
    EXPECT_EQ(out.text(), "Pavo_AVCtrl_GetCurrentActiveComponent() trackNumber=3\n");
  }
  EXPECT_EQ(index, 5) << "the service's index of the active track";
  script_tracks(service_, std::vector<Json::Value>(300, track("de", "aac")));
  clear();
  EXPECT_EQ(Pavo_Platform_Get_Current_Track(kAudio, &index), 0);
  EXPECT_EQ(index, 0) << "none active";
  EXPECT_EQ(requests_of(24).size(), PAVO_AVCTRL_MAX_COMPONENTS);
  EXPECT_EQ(Pavo_Platform_SubtitleEnable(true), 0);
  ASSERT_TRUE(service_.wait_for_notices(1));
  EXPECT_EQ(service_.notices()[0].json["subtitleEnable"], true);
}

}  // namespace
}  // namespace pavo::test
