// The MediaPlayerAdaptor facade: the resolution it reads, its one instance,
// and every member against the fake service (which command, which argument,
// which result).
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <future>
#include <tuple>
#include <vector>

#include "pavo_mediaplayer_adaptor.h"
#include "pavo_mediaplayer_ipc.h"
#include "support/fake_media_service.h"
#include "support/test_queues.h"

namespace {

using pavo::test::Answer;
using pavo::test::FakeMediaService;

// Racing first GetInstance calls share one instance, which reads the
// resolution; a key that cannot be read takes its default.
TEST(MediaPlayerAdaptor, RacingFirstCallsShareOneInstanceThatReadsTheResolution) {
  char path[] = "/tmp/pavo_tov_XXXXXX";
  const int fd = mkstemp(path);
  ASSERT_GE(fd, 0);
  close(fd);
  setenv("PAVO_TOV_CONFIG", path, 1);
  std::ofstream(path) << "ResolutionWidth=1920\nResolutionHeight=1080\n";
  std::atomic<bool> go{false};
  std::vector<std::future<MediaPlayerAdaptor*>> calls;
  for (int i = 0; i < 8; ++i) {
    calls.push_back(std::async(std::launch::async, [&go] {
      while (!go) {
      }
      return MediaPlayerAdaptor::GetInstance();
    }));
  }
  go = true;
  for (auto& call : calls) EXPECT_EQ(call.get(), MediaPlayerAdaptor::m_instance);
  ASSERT_NE(MediaPlayerAdaptor::m_instance, nullptr);
  EXPECT_EQ(MediaPlayerAdaptor::m_instance->m_resolutionWidth, 1920);
  EXPECT_EQ(MediaPlayerAdaptor::m_instance->m_resolutionHeight, 1080);

  // A value that is no number, no key, no configuration (null).
  for (const auto& [config, width, height] : {std::tuple{"ResolutionWidth=wide\nResolutionHeight=0\n", 1280, 0},
                                              {"ResolutionHeight=2160\n", 1280, 2160}, {nullptr, 1280, 720}}) {
    if (config != nullptr) std::ofstream(path) << config;
    if (config == nullptr) unsetenv("PAVO_TOV_CONFIG");
    const MediaPlayerAdaptor adaptor;
    EXPECT_TRUE(adaptor.m_resolutionWidth == width && adaptor.m_resolutionHeight == height) << config;
  }
  unlink(path);
}

void on_player_event(PavoMediaPluginEvent, PavoMediaError, const void*, int, double) {}
void on_sync_event(PavoMediaSyncMsgType, const PavoMSEventInfo*, const void*) {}

TEST(MediaPlayerAdaptor, EveryMemberForwardsItsArgumentsAndResult) {
  MediaPlayerAdaptor& mp = *MediaPlayerAdaptor::GetInstance();
  pavo::test::ScopedQueues events(FakeMediaService::kEventKey);
  pavo::test::ScopedQueues requests(FakeMediaService::kServiceRequestKey);
  FakeMediaService service;
  // Each command answers a result of its own, so that a swapped forwarding
  // or a dropped result shows.
  Json::Value reply(Json::objectValue);
  reply["player_id"] = 41;
  reply["source_type"] = 3;
  for (int type = 0; type <= 109; ++type) {
    reply["ret"] = -(100 + type);
    service.script(type, Answer::json(reply));
  }
  ASSERT_EQ(mediaplayer_initialize(), 0);

  unsigned id = 0, by_source = 0, u = 0;
  double d = 0;
  int i = 0;
  PavoMediaPlayerPlayState state{};
  PavoRect rect{1, 2, 3, 4};
  _PavoSubtitleTrackInfo subtitle;
  subtitle.url = "http://sub";
  PavoAVCtrlTrackInfo track{};
  PavoTimeline timeline{};
  PavoContentIdStatus status{};
  char buffer[16] = {};
  pavoDisplayerSource source{};
  // Each row: the call, its command and one request member that carries an
  // argument (by default the player). Every result is the service's "ret",
  // except the two commands whose client reports 0 for every parsed reply.
  const struct {
    std::function<int()> call;
    int event_type;
    const char* member = "player_id";
    Json::Value value = 5;
  } rows[] = {
      // clang-format off
      {[&] { return mp.Create(id, 7); }, 0, "event_type", 0},
      {[&] { return mp.Destroy(5); }, 1}, {[&] { return mp.GetPlayState(5, &state); }, 14},
      {[&] { return mp.Load(5, "http://m"); }, 2, "url", "http://m"},
      {[&] { return mp.Play(6); }, 3, "player_id", 6},
      {[&] { return mp.Pause(5); }, 4},                {[&] { return mp.Stop(5); }, 5},
      {[&] { return mp.Seek(5, 12.5); }, 6, "pos", 12.5},
      {[&] { return mp.SetPlayRate(5, 2000.0); }, 7, "play_rate", 2000.0},
      {[&] { return mp.GetDuration(5, &d); }, 8},      {[&] { return mp.GetPlayRate(5, &d); }, 9},
      {[&] { return mp.GetCurrentTime(5, &d); }, 10}, {[&] { return mp.GetFullscreen(5, &i); }, 11},
      {[&] { return mp.SetFullscreen(5, 1); }, 12, "is_fullscreen", 1},
      {[&] { return mp.SetVideoWindowRect(5, &rect); }, 13, "rect_h", 4},
      {[&] { return mp.SetMimetype(5, "video/mp4"); }, 15, "mime_type", "video/mp4"},
      {[&] { return mp.SetLicenseServerUrl(5, "http://la"); }, 16, "url", "http://la"},
      {[&] { return mp.SetCustomData(5, "cd"); }, 17, "data", "cd"},
      {[&] { return mp.EnableSubtitle(5, true); }, 18, "enable", true},
      {[&] { return mp.SetSubtitle(5, &subtitle, 1); }, 19, "url", "http://sub"},
      {[&] { return mp.SetFont(5, "f.ttf", 5); }, 20, "fontfile", "f.ttf"},
      {[&] { return mp.SetLoopCount(5, -1); }, 21, "loop", -1},
      {[&] { return mp.SetCookie(5, "c=1"); }, 22, "cookie", "c=1"},
      {[&] { return mp.GetTrackNumber(5, PAVO_TRACK_TYPE_AUDIO, &u); }, 23, "track_type", 1},
      {[&] { return mp.GetTrackByIndex(5, PAVO_TRACK_TYPE_SUBTITLE, 3, &track); }, 24, "index", 3},
      {[&] { return mp.SelectTrack(5, PAVO_TRACK_TYPE_VIDEO, 4); }, 25, "index", 4},
      {[&] { return mp.UnselectTrack(5, PAVO_TRACK_TYPE_OTHER, 6); }, 26, "track_type", 3},
      {[&] { return mp.StopAllPlayers(); }, 28, "event_type", 28},
      {[&] { return mp.ChangeDisplaySourceToDTV(); }, 29, "event_type", 29},
      {[&] { return MediaPlayerAdaptor::GetCurrentSource(source); }, 30, "event_type", 30},
      {[&] { return mp.RegisterMediaSyncCallback(5, on_sync_event, &d); }, 100},
      {[&] { return mp.UnregisterMediaSyncCallback(5); }, 101},
      {[&] { return mp.GetCurrentTimeline(5, &timeline); }, 106},
      {[&] { return mp.StartMediaSync(5); }, 102},     {[&] { return mp.StopMediaSync(5); }, 103},
      {[&] { return mp.SetTimelineSelector(5, "urn:t"); }, 104, "timeline_selector", "urn:t"},
      {[&] { return u = 16, mp.GetMRSUrl(5, buffer, &u); }, 105, "len", 16},
      {[&] { return u = 16, mp.GetContentId(5, buffer, &u, &status); }, 107, "len", 16},
      {[&] { return mp.EnableMutilStreamSync(5, true); }, 108, "enable", true},
      {[&] { return mp.GetPlayerIdBySource("dvb://1", by_source); }, 109, "source", "dvb://1"},
      // clang-format on
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.event_type);
    service.clear_records();
    const bool reports_zero = row.event_type == 30 || row.event_type == 107;
    EXPECT_EQ(row.call(), reports_zero ? 0 : -(100 + row.event_type));
    const auto seen = service.requests();
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0].json["event_type"], row.event_type);
    EXPECT_EQ(seen[0].json[row.member], row.value);
  }
  EXPECT_TRUE(id == 41u && by_source == 41u) << "Create and GetPlayerIdBySource write the id";
  EXPECT_EQ(source, 3);

  EXPECT_EQ(mp.RegisterCallback(9, on_player_event, &d), 0);
  EXPECT_EQ(g_mediaplayer_cb, on_player_event);
  EXPECT_EQ(mp.UnregisterCallback(12345), 0);
  EXPECT_EQ(MediaPlayerAdaptor::platformSetSubtitleEnable(true), 0);
  ASSERT_TRUE(service.wait_for_notices(1));
  EXPECT_EQ(service.notices()[0].json["event_type"].asInt(), 31);

  EXPECT_EQ(mp.Finalize(), 0);
  EXPECT_EQ(MediaPlayerAdaptor::GetCurrentSource(source), -3) << "client closed";
  EXPECT_EQ(source, -1);
  EXPECT_EQ(mp.Initialize(), 0);
  EXPECT_EQ(mediaplayer_finalize(), 0);
}

}  // namespace
