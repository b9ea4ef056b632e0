// End to end with broadband streams: pavo-media-service's GStreamer engine
// (fake sinks, real time) plays what scripts/media_server.py serves on
// 127.0.0.1 from the media that scripts/make_broadband_media.sh made (the
// broadband_test_media test, which ctest runs first: 20 s of H.264 video,
// AAC audio "eng" stereo and "deu" mono, a French WebVTT subtitle, as DASH,
// HLS, MP4 and Matroska, and faulty files), driven through the library as
// the plug-in drives it. Every check on time has a tolerance, every wait a
// deadline.
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "e2e_fixture.h"
#include "media_server_process.h"
#include "support/test_queues.h"

namespace pavo::e2e {
namespace {

using Clock = std::chrono::steady_clock;

constexpr double kMediaMs = 20000.0;  // length of the generated streams

// One fault: a URL and the error code that the page must see.
struct Fault {
  std::string name, url;
  PavoAVCtrlPlayStateError error;
};

class Broadband : public EndToEnd {
 protected:
  Broadband() {
    time_scale_ = 1.0;
    service_args_ = {"--engine", "gstreamer", "--sinks", "fake"};
  }
  void SetUp() override {
    EndToEnd::SetUp();
    ASSERT_TRUE(server_.start(PAVO_MEDIA_SERVER, PAVO_BROADBAND_MEDIA, wait_limit()));
  }

 public:
  std::string url(const std::string& path) const { return server_.base_url() + path; }

 protected:
  // Media ms per wall-clock ms over `ms` of playback.
  double pace(int ms) {
    const Clock::time_point t0 = Clock::now();
    const double p0 = position_ms();
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
    return (position_ms() - p0) / std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
  }

  // Posts of play state `state` from `from` on.
  int count_state(int state, std::size_t from = 0) {
    int n = 0;
    const auto posts = log_.posts();
    for (std::size_t i = from; i < posts.size(); ++i) {
      n += posts[i].event == PAVO_AVCTRL_EVENT_PLAYSTATECHANGE && posts[i].int_value == state;
    }
    return n;
  }

  void expect_one_error_each(const std::vector<Fault>& faults);

  MediaServerProcess server_;
};

// DASH as the HbbTV application hands it over: the manifest's components
// (two audio languages, the subtitle), an audio switch by language while
// playing, a seek, and on to finished at the media's pace.
TEST_F(Broadband, DashComponentsAudioSwitchSeekAndFinish) {
  play_until_playing(url("dash/manifest.mpd").c_str());
  for (const Post& p : log_.posts()) {  // playback that starts after buffering reports speed 1 too
    EXPECT_FALSE(p.event == PAVO_AVCTRL_EVENT_SPEEDCHANGE && p.double_value != 1.0) << log_.dump();
  }
  // The manifest says "eng", "deu" (mono: the manifest tells, the German
  // segments are not fetched yet) and "fr".
  EXPECT_EQ(components(PAVO_AV_COMPONENT_TYPE_AUDIO), "eng 2 audio/mpeg; ger 1 audio/mpeg; ");
  EXPECT_EQ(components(PAVO_AV_COMPONENT_TYPE_SUBTITLE), "fre 0 text/x-raw; ");

  // Subtitles on and off as the page switches them, right after the start
  // (where the pipeline's own first choice is still being corrected): each
  // a component change, the component's activation following.
  for (bool on : {true, false}) {
    SCOPED_TRACE(on);
    const std::size_t mark = log_.posts().size();
    ASSERT_EQ(Pavo_Platform_SubtitleEnable(on), 0);
    ASSERT_EQ(Pavo_AVCtrl_Component_EnableSubtitle(av_, on), 0);
    ASSERT_GE(log_.wait_for(PAVO_AVCTRL_EVENT_COMPONENTCHANGE, int_is(PAVO_AV_COMPONENT_TYPE_SUBTITLE), mark), 0)
        << log_.dump();
    PavoAVCtrlTrackInfo track{};
    ASSERT_EQ(Pavo_AVCtrl_GetAVComponentByIndex(av_, PAVO_AV_COMPONENT_TYPE_SUBTITLE, 0, &track), 0);
    EXPECT_EQ(track.activated, on);
  }

  std::size_t from = log_.posts().size();
  const Clock::time_point asked = Clock::now();
  ASSERT_EQ(Pavo_AVCtrl_SelectComponent(av_, PAVO_AV_COMPONENT_TYPE_AUDIO, 1), 0);
  ASSERT_GE(log_.wait_for(PAVO_AVCTRL_EVENT_COMPONENTCHANGE, int_is(PAVO_AV_COMPONENT_TYPE_AUDIO), from), 0)
      << log_.dump();
  const std::chrono::duration<double, std::milli> switched = Clock::now() - asked;
  std::printf("audio switch: %.0f ms to the component change\n", switched.count());
  int active = -1;
  ASSERT_EQ(Pavo_AVCtrl_GetCurrentActiveComponent(av_, PAVO_AV_COMPONENT_TYPE_AUDIO, &active), 0);
  EXPECT_EQ(active, 1) << "the pipeline switched to the German track";

  from = log_.posts().size();
  ASSERT_EQ(Pavo_AVCtrl_Seek(av_, 12000.0), 0);
  ASSERT_GE(log_.wait_for(PAVO_AVCTRL_EVENT_POSITIONCHANGE, double_near(12000.0, 100.0), from), 0) << log_.dump();
  ASSERT_GE(wait_state(PAVO_AVCTRL_PLAYSTATE_PLAYING, from), 0) << log_.dump();
  EXPECT_NEAR(pace(1000), 1.0, 0.25);

  const double p0 = position_ms();
  const Clock::time_point t0 = Clock::now();
  ASSERT_GE(wait_state(PAVO_AVCTRL_PLAYSTATE_FINISHED, from), 0) << log_.dump();
  const double took = std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
  EXPECT_NEAR(took, kMediaMs - p0, 700.0);
  double duration = 0;
  ASSERT_EQ(Pavo_AVCtrl_GetPlayTime(av_, &duration), 0);
  EXPECT_NEAR(duration, kMediaMs, 100.0);
}

// The other formats: a seek near the end (in the progressive files, a byte
// range request), the position reached reported, and finished at the pace
// of the clock; their audio and subtitle components with three-letter
// languages.
TEST_F(Broadband, HlsAndProgressiveFilesSeekAndFinish) {
  const struct {
    const char* path;
    const char* audio;
  } rows[] = {
      {"hls/master.m3u8", "eng 2 audio/mpeg; ger 1 audio/mpeg; "},  // the German rendition from the playlist
      {"progressive.mp4", "eng 2 audio/mpeg; ger 1 audio/mpeg; "},
      {"progressive.mkv", "eng 2 audio/mpeg; ger 1 audio/mpeg; "},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.path);
    std::size_t from = log_.posts().size();
    ASSERT_EQ(Pavo_AVCtrl_Load(av_, url(row.path).c_str()), 0);
    ASSERT_EQ(Pavo_AVCtrl_Play(av_, 1.0), 0);
    ASSERT_GE(wait_state(PAVO_AVCTRL_PLAYSTATE_PLAYING, from), 0) << log_.dump();
    EXPECT_EQ(components(PAVO_AV_COMPONENT_TYPE_AUDIO), row.audio);
    EXPECT_EQ(components(PAVO_AV_COMPONENT_TYPE_SUBTITLE), "fre 0 text/x-raw; ");
    from = log_.posts().size();
    ASSERT_EQ(Pavo_AVCtrl_Seek(av_, 16000.0), 0);
    ASSERT_GE(log_.wait_for(PAVO_AVCTRL_EVENT_POSITIONCHANGE, double_near(16000.0, 200.0), from), 0)
        << log_.dump();
    ASSERT_GE(wait_state(PAVO_AVCTRL_PLAYSTATE_PLAYING, from), 0) << log_.dump();
    const double p0 = position_ms();
    const Clock::time_point t0 = Clock::now();
    ASSERT_GE(wait_state(PAVO_AVCTRL_PLAYSTATE_FINISHED, from), 0) << log_.dump();
    const double took = std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
    EXPECT_NEAR(took, kMediaMs - p0, 700.0);
  }
}

// A link that stops for 6 s once the demuxer has started playback (two
// init segments, the subtitle file, three segments of each track): the 6 s
// in play out, then buffering, then playing again once segments arrive;
// never a stall that the page is not told about. Then a progressive MP4 on
// a link at about 60 % of its bitrate: buffering until the download keeps
// ahead, then playing at the media's pace (not a playing state over a
// pipeline that has run dry).
TEST_F(Broadband, StalledLinkBuffersThenPlaysAgain) {
  play_until_playing(url("stall/9/6/dash/manifest.mpd").c_str());
  std::size_t from = log_.posts().size();
  const int buffering = wait_state(PAVO_AVCTRL_PLAYSTATE_BUFFERING, from);
  ASSERT_GE(buffering, 0) << log_.dump();
  const double stalled_at = position_ms();
  ASSERT_GE(wait_state(PAVO_AVCTRL_PLAYSTATE_PLAYING, static_cast<std::size_t>(buffering)), 0) << log_.dump();
  EXPECT_GT(stalled_at, 3000.0) << "buffering came only when the buffer ran out";
  EXPECT_NEAR(pace(1000), 1.0, 0.25);

  from = log_.posts().size();
  ASSERT_EQ(Pavo_AVCtrl_Load(av_, url("slow/59000/progressive.mp4").c_str()), 0);
  ASSERT_EQ(Pavo_AVCtrl_Play(av_, 1.0), 0);
  ASSERT_GE(wait_state(PAVO_AVCTRL_PLAYSTATE_PLAYING, from), 0) << log_.dump();
  EXPECT_GE(count_state(PAVO_AVCTRL_PLAYSTATE_BUFFERING, from), 1) << log_.dump();
  EXPECT_NEAR(pace(2000), 1.0, 0.25) << log_.dump();
}

// Live: HLS without an end tag and a dynamic DASH manifest, both extended
// by the server as time passes.
TEST_F(Broadband, LiveStreamsHaveNoDurationRefuseFastForwardAndDoNotFinish) {
  for (const char* path : {"live/hls/master.m3u8", "live/dash/manifest.mpd"}) {
    SCOPED_TRACE(path);
    std::size_t from = log_.posts().size();
    ASSERT_EQ(Pavo_AVCtrl_Load(av_, url(path).c_str()), 0);
    ASSERT_EQ(Pavo_AVCtrl_Play(av_, 1.0), 0);
    ASSERT_GE(wait_state(PAVO_AVCTRL_PLAYSTATE_PLAYING, from), 0) << log_.dump();
    double duration = 0;
    ASSERT_EQ(Pavo_AVCtrl_GetPlayTime(av_, &duration), 0);
    EXPECT_FALSE(std::isfinite(duration) && duration > 0) << duration;
    from = log_.posts().size();
    ASSERT_EQ(Pavo_AVCtrl_Play(av_, 2.0), 0);  // the service refuses the speed: no speed change follows
    EXPECT_NEAR(pace(5000), 1.0, 0.25) << log_.dump();
    for (const Post& p : log_.posts()) EXPECT_FALSE(p.event == PAVO_AVCTRL_EVENT_SPEEDCHANGE && p.double_value > 1.0);
    EXPECT_EQ(count_state(PAVO_AVCTRL_PLAYSTATE_FINISHED, from) + count_state(PAVO_AVCTRL_PLAYSTATE_ERROR, from), 0)
        << log_.dump();
  }
}

// Each fault ends in exactly one error state with its code and nothing
// finishes; afterwards the object plays the DASH stream normally.
void Broadband::expect_one_error_each(const std::vector<Fault>& faults) {
  for (const Fault& row : faults) {
    SCOPED_TRACE(row.name);
    const std::size_t from = log_.posts().size();
    ASSERT_EQ(Pavo_AVCtrl_Load(av_, row.url.c_str()), 0);
    Pavo_AVCtrl_Play(av_, 1.0);  // may come after the error
    ASSERT_GE(wait_state(PAVO_AVCTRL_PLAYSTATE_ERROR, from), 0) << log_.dump();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));  // nothing else comes
    PavoAVCtrlPlayStateError error = PAVO_AVCTRL_ERROR_NONE;
    ASSERT_EQ(Pavo_AVCtrl_GetError(av_, &error), 0);
    EXPECT_EQ(error, row.error);
    EXPECT_EQ(count_state(PAVO_AVCTRL_PLAYSTATE_ERROR, from), 1) << log_.dump();
    EXPECT_EQ(count_state(PAVO_AVCTRL_PLAYSTATE_FINISHED, from), 0) << log_.dump();
  }
  const std::size_t from = log_.posts().size();
  ASSERT_EQ(Pavo_AVCtrl_Load(av_, url("dash/manifest.mpd").c_str()), 0);
  ASSERT_EQ(Pavo_AVCtrl_Play(av_, 1.0), 0);
  ASSERT_GE(wait_state(PAVO_AVCTRL_PLAYSTATE_PLAYING, from), 0) << log_.dump();
  EXPECT_NEAR(pace(1000), 1.0, 0.25);
}

// The network faults, each ending in the connection error: a 404, a refused
// connection, a server that dies mid-stream (slow, and gone 2 s after its
// first request), segments that all fail.
std::vector<Fault> network_faults(const Broadband& test, const MediaServerProcess& dying) {
  return {
      {"manifest 404", test.url("404/dash/manifest.mpd"), PAVO_AVCTRL_ERROR_CONNECTION},
      {"connection refused", refused_url("dash/manifest.mpd"), PAVO_AVCTRL_ERROR_CONNECTION},
      {"server dies mid-stream", dying.base_url() + "progressive.mp4", PAVO_AVCTRL_ERROR_CONNECTION},
      {"every segment 404", test.url("flaky/dash/manifest.mpd"), PAVO_AVCTRL_ERROR_CONNECTION},
  };
}

bool start_dying_server(MediaServerProcess* dying) {
  return dying->start(PAVO_MEDIA_SERVER, PAVO_BROADBAND_MEDIA, wait_limit(),
                      {"--rate", "200000", "--die-after", "2"});
}

TEST_F(Broadband, FaultsEndInOneErrorWithTheirCodeAndTheNextLoadPlays) {
  MediaServerProcess dying;
  ASSERT_TRUE(start_dying_server(&dying));
  std::vector<Fault> faults = network_faults(*this, dying);
  faults.insert(faults.end(), {
                                  {"manifest not XML", url("broken.mpd"), PAVO_AVCTRL_ERROR_FORMAT},
                                  {"text served as video", url("notes.mp4"), PAVO_AVCTRL_ERROR_FORMAT},
                                  {"codec without decoder", url("nodecoder.mp4"), PAVO_AVCTRL_ERROR_CORRUPT},
                              });
  expect_one_error_each(faults);
}

// The HTTP source loads libsoup 3, or libsoup 2.4 when that library is in
// the process already; 2.4 reports network failures in another form (HTTP
// status codes of its own instead of error domains). Here the service has
// libsoup 2.4 preloaded.
class BroadbandOnLibsoup2 : public Broadband {
 protected:
  void SetUp() override {
    const std::string preload = "libsoup-2.4.so.1";
    // The sanitizer runtime wants to be the first library; another one
    // preloaded is fine for this test.
    const char* asan = std::getenv("ASAN_OPTIONS");
    const std::string asan_before = asan != nullptr ? asan : "";
    setenv("ASAN_OPTIONS", (asan_before + (asan_before.empty() ? "" : ":") + "verify_asan_link_order=0").c_str(), 1);
    setenv("LD_PRELOAD", preload.c_str(), 1);
    Broadband::SetUp();
    unsetenv("LD_PRELOAD");
    setenv("ASAN_OPTIONS", asan_before.c_str(), 1);
  }

  // Whether the service process has `library` mapped.
  bool service_maps(const std::string& library) {
    std::ifstream maps("/proc/" + std::to_string(service_.pid()) + "/maps");
    EXPECT_TRUE(maps.is_open());
    const std::string text((std::istreambuf_iterator<char>(maps)), std::istreambuf_iterator<char>());
    return text.find(library) != std::string::npos;
  }
};

TEST_F(BroadbandOnLibsoup2, NetworkFaultsEndInTheConnectionError) {
  MediaServerProcess dying;
  ASSERT_TRUE(start_dying_server(&dying));
  ASSERT_TRUE(service_maps("libsoup-2.4.so")) << "libsoup 2.4 is not installed (scripts/setup.sh installs it)";
  expect_one_error_each(network_faults(*this, dying));
  EXPECT_FALSE(service_maps("libsoup-3.0.so")) << "the HTTP source took libsoup 3 after all";
}

}  // namespace
}  // namespace pavo::e2e
