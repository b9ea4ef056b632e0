// The 32-bit Arm library (this program, under qemu-arm) against the x86-64
// service: the frames' message text behind `mtype` is the same bytes on
// both, so requests, replies and events cross between the two builds.
// PAVO_HOST_MEDIA_SERVICE names the host build's pavo-media-service; the
// test is skipped when the build was not given one.
#include <gtest/gtest.h>

#include <string>

#include "e2e_fixture.h"

#ifndef PAVO_HOST_MEDIA_SERVICE
#define PAVO_HOST_MEDIA_SERVICE ""
#endif

namespace pavo::e2e {
namespace {

class MixedArchitectures : public EndToEnd {
 protected:
  void SetUp() override {
    if (std::string(PAVO_HOST_MEDIA_SERVICE).empty()) {
      GTEST_SKIP() << "no host-built pavo-media-service: configure with "
                      "-DPAVO_HOST_MEDIA_SERVICE=<host build>/tools/pavo-media-service "
                      "(scripts/test.sh does when the plain leg is built)";
    }
    service_.use_command({PAVO_HOST_MEDIA_SERVICE});
    EndToEnd::SetUp();
  }
};

// Requests and replies (with a reply of several members), the service's
// player and track events, and a long request of several frames.
TEST_F(MixedArchitectures, ArmLibraryPlaysAgainstTheHostService) {
  play_until_playing("http://media.test/vod.mp4");
  double duration = 0;
  EXPECT_EQ(Pavo_AVCtrl_GetPlayTime(av_, &duration), 0);
  EXPECT_EQ(duration, 60000.0);
  unsigned count = 0;
  ASSERT_EQ(Pavo_AVCtrl_GetAVComponentNum(av_, PAVO_AV_COMPONENT_TYPE_AUDIO, &count), 0);
  EXPECT_EQ(count, 2u);
  PavoAVCtrlTrackInfo info{};
  ASSERT_EQ(Pavo_AVCtrl_GetAVComponentByIndex(av_, PAVO_AV_COMPONENT_TYPE_AUDIO, 1, &info), 0);
  const std::size_t mark = log_.posts().size();
  ASSERT_EQ(Pavo_AVCtrl_SelectComponent(av_, PAVO_AV_COMPONENT_TYPE_AUDIO, 1), 0);
  EXPECT_GE(log_.wait_for(PAVO_AVCTRL_EVENT_COMPONENTCHANGE, any_value(), mark), 0) << log_.dump();
  // 3000 bytes of URL: a request of three frames.
  const std::string url = "http://media.test/" + std::string(3000, 'a') + "/short.mp4";
  const std::size_t again = log_.posts().size();
  ASSERT_EQ(Pavo_AVCtrl_Load(av_, url.c_str()), 0);
  ASSERT_EQ(Pavo_AVCtrl_Play(av_, 1.0), 0);
  EXPECT_GE(wait_state(PAVO_AVCTRL_PLAYSTATE_FINISHED, again), 0) << log_.dump();
}

}  // namespace
}  // namespace pavo::e2e
