// End to end with real playback: pavo-media-service's GStreamer engine
// (fake sinks) plays the generated test file (scripts/make_test_media.sh:
// 6 s of VP8 video, Vorbis audio "eng" stereo and "deu" mono, subtitles
// "fra"; made by the gst_test_media test, which ctest runs first), driven
// through the library. Timing comes from a real pipeline, so every check on
// time has a tolerance and every wait a deadline.
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <functional>
#include <string>
#include <thread>

#include "e2e_fixture.h"
#include "support/test_queues.h"

namespace pavo::e2e {
namespace {

using Clock = std::chrono::steady_clock;

constexpr double kMediaMs = 6000.0;  // length of the generated file

class GStreamerEndToEnd : public EndToEnd {
 protected:
  GStreamerEndToEnd() {
    time_scale_ = 1.0;
    service_args_ = {"--engine", "gstreamer", "--sinks", "fake"};
  }
};

// Each control, in one pass through the file, with the post that confirms
// it and the pace of the position afterwards (media ms per wall-clock ms,
// measured once the position moves again: a seek flushes).
TEST_F(GStreamerEndToEnd, ControlsMoveThePositionAtTheirPace) {
  play_until_playing(PAVO_E2E_MEDIA);
  const struct {
    const char* name;
    std::function<int(void*)> act;
    int event;
    std::function<bool(const Post&)> confirms;
    double pace;  // 0: the position holds
  } steps[] = {
      {"pause", [](void* av) { return Pavo_AVCtrl_Pause(av); }, PAVO_AVCTRL_EVENT_PLAYSTATECHANGE,
       int_is(PAVO_AVCTRL_PLAYSTATE_PAUSED), 0.0},
      {"resume", [](void* av) { return Pavo_AVCtrl_Play(av, 1.0); }, PAVO_AVCTRL_EVENT_PLAYSTATECHANGE,
       int_is(PAVO_AVCTRL_PLAYSTATE_PLAYING), 1.0},
      {"seek", [](void* av) { return Pavo_AVCtrl_Seek(av, 3000.0); }, PAVO_AVCTRL_EVENT_POSITIONCHANGE,
       double_near(3000.0, 100.0), 1.0},
      {"speed 2", [](void* av) { return Pavo_AVCtrl_Play(av, 2.0); }, PAVO_AVCTRL_EVENT_SPEEDCHANGE,
       double_near(2.0), 2.0},
      {"speed -1", [](void* av) { return Pavo_AVCtrl_Play(av, -1.0); }, PAVO_AVCTRL_EVENT_SPEEDCHANGE,
       double_near(-1.0), -1.0},
      {"speed 1", [](void* av) { return Pavo_AVCtrl_Play(av, 1.0); }, PAVO_AVCTRL_EVENT_SPEEDCHANGE,
       double_near(1.0), 1.0},
  };
  for (const auto& step : steps) {
    SCOPED_TRACE(step.name);
    const std::size_t from = log_.posts().size();
    ASSERT_EQ(step.act(av_), 0);
    ASSERT_GE(log_.wait_for(step.event, step.confirms, from), 0) << log_.dump();
    const double settled = position_ms();
    if (step.pace != 0.0) {
      ASSERT_TRUE(pavo::test::wait_until([&] { return position_ms() != settled; }, wait_limit()));
    }
    const Clock::time_point t0 = Clock::now();
    const double p0 = position_ms();
    std::this_thread::sleep_for(std::chrono::milliseconds(500));  // time passes; the position keeps pace
    const double pace = (position_ms() - p0) / std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
    EXPECT_NEAR(pace, step.pace, 0.25) << "from " << p0 << " ms";
  }
  // Forwards again after the rewind: on to the file's end, not to where the rewind began.
  const std::size_t from = log_.posts().size();
  const double p0 = position_ms();
  const Clock::time_point t0 = Clock::now();
  ASSERT_GE(wait_state(PAVO_AVCTRL_PLAYSTATE_FINISHED, from), 0) << log_.dump();
  const std::chrono::duration<double, std::milli> took = Clock::now() - t0;
  EXPECT_NEAR(took.count(), kMediaMs - p0, 500.0);
}

// While the file plays to finished: its tracks in the component list with
// three-letter languages, and an audio switch in the pipeline.
TEST_F(GStreamerEndToEnd, PlaysToFinishedAndSwitchesAudioOnTheWay) {
  play_until_playing(PAVO_E2E_MEDIA);
  // The container says "eng" and "deu".
  EXPECT_EQ(components(PAVO_AV_COMPONENT_TYPE_AUDIO), "eng 2 audio/x-vorbis; ger 1 audio/x-vorbis; ");
  EXPECT_EQ(components(PAVO_AV_COMPONENT_TYPE_SUBTITLE), "fre 0 text/x-raw; ");
  const std::size_t from = log_.posts().size();
  ASSERT_EQ(Pavo_AVCtrl_SelectComponent(av_, PAVO_AV_COMPONENT_TYPE_AUDIO, 1), 0);
  ASSERT_GE(log_.wait_for(PAVO_AVCTRL_EVENT_COMPONENTCHANGE, int_is(PAVO_AV_COMPONENT_TYPE_AUDIO), from), 0)
      << log_.dump();
  int active = -1;
  ASSERT_EQ(Pavo_AVCtrl_GetCurrentActiveComponent(av_, PAVO_AV_COMPONENT_TYPE_AUDIO, &active), 0);
  EXPECT_EQ(active, 1) << "the pipeline switched to the German track";

  ASSERT_GE(wait_state(PAVO_AVCTRL_PLAYSTATE_FINISHED), 0) << log_.dump();
  double duration = 0;
  ASSERT_EQ(Pavo_AVCtrl_GetPlayTime(av_, &duration), 0);
  EXPECT_NEAR(duration, kMediaMs, 100.0) << "the duration comes from the file";
  EXPECT_NEAR(position_ms(), duration, 100.0);
}

TEST_F(GStreamerEndToEnd, UnplayableFilesEndInTheErrorStateWithTheirErrorNumber) {
  const std::string garbage = std::string(PAVO_E2E_MEDIA) + ".garbage.mp4";
  {
    std::ofstream out(garbage, std::ios::binary);
    for (int i = 0; i < 4096; ++i) out.put(static_cast<char>((i * 7919) % 251));
  }
  const struct {
    std::string url;
    PavoAVCtrlPlayStateError error;
  } cases[] = {
      {std::string(PAVO_E2E_MEDIA) + ".missing.mkv", PAVO_AVCTRL_ERROR_CONNECTION},  // network
      {garbage, PAVO_AVCTRL_ERROR_FORMAT},                                          // format
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.url);
    const std::size_t from = log_.posts().size();
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
