// End to end with real playback: pavo-media-service's GStreamer engine
// (fake sinks) plays the generated test file (scripts/make_test_media.sh:
// 6 s of VP8 video, Vorbis audio "eng" stereo and "deu" mono, subtitles
// "fra"), driven through the library. Timing comes from a real pipeline, so
// every check on time has a tolerance and every wait a deadline.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <string>
#include <thread>

#include "av_control_adaptor/components.h"
#include "e2e_fixture.h"
#include "support/test_queues.h"

namespace pavo::e2e {
namespace {

using Clock = std::chrono::steady_clock;

constexpr double kMediaMs = 6000.0;  // length of the generated file
constexpr int kSpeed = PAVO_AVCTRL_EVENT_SPEEDCHANGE;
constexpr int kPosition = PAVO_AVCTRL_EVENT_POSITIONCHANGE;
constexpr int kComponent = PAVO_AVCTRL_EVENT_COMPONENTCHANGE;

double ms_since(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

class GStreamerEndToEnd : public EndToEnd {
 protected:
  GStreamerEndToEnd() {
    time_scale_ = 1.0;
    service_args_ = {"--engine", "gstreamer", "--sinks", "fake"};
  }

  void SetUp() override {
    if (!PAVO_E2E_GSTREAMER) {
      GTEST_SKIP() << "pavo-media-service was built without its GStreamer engine "
                      "(no gstreamer-1.0 for pkg-config: scripts/setup.sh installs it)";
    }
    struct stat info;
    if (stat(PAVO_E2E_MEDIA, &info) != 0) {
      GTEST_SKIP() << "no test media at " PAVO_E2E_MEDIA " (made by the gst_test_media test with "
                      "scripts/make_test_media.sh; GStreamer's tools or plug-ins missing?)";
    }
    started_ = true;
    EndToEnd::SetUp();
  }
  void TearDown() override {
    if (started_) EndToEnd::TearDown();
  }

  double position() {
    double ms = -1;
    EXPECT_EQ(Pavo_AVCtrl_GetPosition(av_, &ms), 0);
    return ms;
  }
  bool wait_position(const std::function<bool(double)>& done) {
    return pavo::test::wait_until([&] { return done(position()); }, wait_limit());
  }
  std::size_t mark() { return log_.posts().size(); }

  bool started_ = false;  // a skipped test has nothing to stop
};

TEST_F(GStreamerEndToEnd, PlaysTheFileToFinishedWithThePositionOnTheClock) {
  ASSERT_EQ(Pavo_AVCtrl_Load(av_, PAVO_E2E_MEDIA), 0);
  const Clock::time_point asked = Clock::now();
  ASSERT_EQ(Pavo_AVCtrl_Play(av_, 1.0), 0);
  ASSERT_GE(wait_state(PAVO_AVCTRL_PLAYSTATE_PLAYING), 0) << log_.dump();
  const double start_ms = ms_since(asked);
  double duration = 0;
  ASSERT_EQ(Pavo_AVCtrl_GetPlayTime(av_, &duration), 0);
  EXPECT_NEAR(duration, kMediaMs, 100.0) << "the duration comes from the file";

  // While it plays the position follows the clock: compare each step of it
  // with the steady clock's.
  const Clock::time_point t0 = Clock::now();
  const double p0 = position();
  double worst = 0, last = p0;
  int samples = 0;
  const Clock::time_point deadline = t0 + std::chrono::milliseconds(static_cast<int>(kMediaMs)) + wait_limit();
  while (Clock::now() < deadline && last < kMediaMs - 500.0) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    last = position();
    worst = std::max(worst, std::fabs((last - p0) - ms_since(t0)));
    ++samples;
  }
  ASSERT_GE(wait_state(PAVO_AVCTRL_PLAYSTATE_FINISHED), 0) << log_.dump();
  EXPECT_LT(worst, 200.0) << "the position drifts from the clock";
  EXPECT_NEAR(position(), duration, 100.0);
  std::printf("figures: play to playing %.0f ms; position against the clock: worst %.1f ms in %d samples\n",
              start_ms, worst, samples);
}

TEST_F(GStreamerEndToEnd, PositionAdvancesOnlyWhilePlaying) {
  play_until_playing(PAVO_E2E_MEDIA);
  ASSERT_TRUE(wait_position([](double p) { return p > 300.0; }));
  std::size_t from = mark();
  ASSERT_EQ(Pavo_AVCtrl_Pause(av_), 0);
  ASSERT_GE(wait_state(PAVO_AVCTRL_PLAYSTATE_PAUSED, from), 0) << log_.dump();
  const double held = position();
  std::this_thread::sleep_for(std::chrono::milliseconds(400));  // time passes, the position must not
  EXPECT_NEAR(position(), held, 1.0);
  from = mark();
  ASSERT_EQ(Pavo_AVCtrl_Play(av_, 1.0), 0);
  ASSERT_GE(wait_state(PAVO_AVCTRL_PLAYSTATE_PLAYING, from), 0) << log_.dump();
  EXPECT_TRUE(wait_position([&](double p) { return p > held + 200.0; }));
}

TEST_F(GStreamerEndToEnd, SeekReportsThePositionReachedAndPlaysOn) {
  play_until_playing(PAVO_E2E_MEDIA);
  const std::size_t from = mark();
  ASSERT_EQ(Pavo_AVCtrl_Seek(av_, 3000.0), 0);
  const int reached = log_.wait_for(kPosition, any_value(), from);
  ASSERT_GE(reached, 0) << log_.dump();
  EXPECT_NEAR(log_.posts()[static_cast<std::size_t>(reached)].double_value, 3000.0, 100.0);
  ASSERT_GE(wait_state(PAVO_AVCTRL_PLAYSTATE_PLAYING, static_cast<std::size_t>(reached)), 0) << log_.dump();
  EXPECT_TRUE(wait_position([](double p) { return p > 3200.0; }));
}

TEST_F(GStreamerEndToEnd, RateSeeksRunTwiceAsFastAndBackwards) {
  play_until_playing(PAVO_E2E_MEDIA);
  std::size_t from = mark();
  ASSERT_EQ(Pavo_AVCtrl_Play(av_, 2.0), 0);
  ASSERT_GE(log_.wait_for(kSpeed, double_near(2.0), from), 0) << log_.dump();
  // The rate seek flushes: measure from the first step after it.
  const double settled = position();
  ASSERT_TRUE(wait_position([&](double p) { return p > settled; }));
  const Clock::time_point t0 = Clock::now();
  const double p0 = position();
  ASSERT_TRUE(wait_position([&](double p) { return p > p0 + 1600.0; }));
  const double ratio = (position() - p0) / ms_since(t0);
  EXPECT_GT(ratio, 1.5);
  EXPECT_LT(ratio, 2.5);

  from = mark();
  const double turn = position();
  ASSERT_EQ(Pavo_AVCtrl_Play(av_, -1.0), 0);
  ASSERT_GE(log_.wait_for(kSpeed, double_near(-1.0), from), 0) << log_.dump();
  EXPECT_TRUE(wait_position([&](double p) { return p < turn - 500.0; })) << "no playback backwards";
}

TEST_F(GStreamerEndToEnd, AudioSwitchShowsInTheComponentListWithThreeLetterLanguages) {
  play_until_playing(PAVO_E2E_MEDIA);
  struct Expected {
    const char* language;
    int channels;
  };
  auto components = [](PavoAVComponentType type) {
    PavoRecordList list;
    EXPECT_NE(Init(&list), nullptr);
    EXPECT_EQ(pavo::avctrl::GetComponents(type, &list), 0);
    std::vector<PavoAVComponentRecord> records(list.records, list.records + list.count);
    list.destructor(&list);
    return records;
  };
  const std::vector<PavoAVComponentRecord> audio = components(PAVO_AV_COMPONENT_TYPE_AUDIO);
  const Expected expected[] = {{"eng", 2}, {"ger", 1}};  // the container says "eng" and "ger"
  ASSERT_EQ(audio.size(), 2u);
  for (std::size_t i = 0; i < audio.size(); ++i) {
    EXPECT_STREQ(audio[i].language, expected[i].language) << i;
    EXPECT_EQ(audio[i].audioChannels, expected[i].channels) << i;
    EXPECT_STREQ(audio[i].encoding, "audio/x-vorbis") << i;
  }
  const std::vector<PavoAVComponentRecord> subtitles = components(PAVO_AV_COMPONENT_TYPE_SUBTITLE);
  ASSERT_EQ(subtitles.size(), 1u);
  EXPECT_STREQ(subtitles[0].language, "fre");

  int active = -1;
  ASSERT_EQ(Pavo_AVCtrl_GetCurrentActiveComponent(av_, PAVO_AV_COMPONENT_TYPE_AUDIO, &active), 0);
  EXPECT_EQ(active, 0);
  const std::size_t from = mark();
  ASSERT_EQ(Pavo_AVCtrl_SelectComponent(av_, PAVO_AV_COMPONENT_TYPE_AUDIO, 1), 0);
  ASSERT_GE(log_.wait_for(kComponent, int_is(PAVO_AV_COMPONENT_TYPE_AUDIO), from), 0) << log_.dump();
  ASSERT_EQ(Pavo_AVCtrl_GetCurrentActiveComponent(av_, PAVO_AV_COMPONENT_TYPE_AUDIO, &active), 0);
  EXPECT_EQ(active, 1) << "the pipeline switched to the German track";
}

TEST_F(GStreamerEndToEnd, UnplayableFilesEndInTheErrorStateWithTheirErrorNumber) {
  const std::string garbage = std::string(PAVO_E2E_MEDIA) + ".garbage.mp4";
  {
    std::ofstream out(garbage, std::ios::binary);
    for (int i = 0; i < 4096; ++i) out.put(static_cast<char>((i * 7919) % 251));
  }
  struct Case {
    std::string url;
    PavoAVCtrlPlayStateError error;
  };
  const Case cases[] = {
      {std::string(PAVO_E2E_MEDIA) + ".missing.mkv", PAVO_AVCTRL_ERROR_CONNECTION},  // network
      {garbage, PAVO_AVCTRL_ERROR_FORMAT},                                          // format
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.url);
    const std::size_t from = mark();
    ASSERT_EQ(Pavo_AVCtrl_Load(av_, c.url.c_str()), 0);
    ASSERT_GE(wait_state(PAVO_AVCTRL_PLAYSTATE_ERROR, from), 0) << log_.dump();
    PavoAVCtrlPlayStateError error = PAVO_AVCTRL_ERROR_NONE;
    ASSERT_EQ(Pavo_AVCtrl_GetError(av_, &error), 0);
    EXPECT_EQ(error, c.error);
  }
  std::remove(garbage.c_str());
}

}  // namespace
}  // namespace pavo::e2e
