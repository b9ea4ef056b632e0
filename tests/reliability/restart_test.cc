// Restarts and forgeries against the A/V layer, with pavo-media-service as
// a child process: what tells an object that its player is gone is the
// library's own knowledge of the service process, never a message that
// another local process can send, and an object whose player is gone never
// drives a player of the new service, whoever's first exchange meets it.
#include <gtest/gtest.h>
#include <sys/types.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>

#include "av_control_adaptor/object.h"
#include "e2e_fixture.h"
#include "pavo_ipc.h"
#include "support/test_queues.h"

namespace pavo::e2e {
namespace {

using Millis = std::chrono::milliseconds;
constexpr key_t kEventKey = static_cast<key_t>(0x95000070);

// Sends `text` one-way to the library's event queue, as any local process can.
void forge_event(const std::string& text) {
  pavo_ipc_client* client = nullptr;
  ASSERT_EQ(pavo_ipc_client_create(kEventKey, 1, 0, 1024, &client), 0);
  pavo_ipc_msg message{static_cast<uint32_t>(text.size()), const_cast<char*>(text.c_str())};
  EXPECT_EQ(pavo_ipc_client_send(client, &message), 0);
  pavo_ipc_client_destroy(client);
}

unsigned player_of(void* av) { return avctrl_context(av)->player_id.load(); }

long errors_since(PostLog& log, std::size_t from) {
  const std::vector<Post> posts = log.posts();
  return std::count_if(posts.begin() + static_cast<long>(from), posts.end(), [](const Post& p) {
    return p.event == PAVO_AVCTRL_EVENT_PLAYSTATECHANGE && p.int_value == PAVO_AVCTRL_PLAYSTATE_ERROR;
  });
}

// A "restart notice" with a huge generation and a player event 100 from
// another process: the object keeps playing, and its events still flow.
TEST_F(EndToEnd, ForgedRestartNoticesAndPlayerEventsChangeNothing) {
  play_until_playing(kVod);
  const std::size_t before = log_.posts().size();
  forge_event(R"({"event":0,"event_type":100,"generation":4000000000,"player_id":0,"sub_event":0})");
  forge_event(R"({"event_type":0,"event":100,"sub_event":1,"data1":0,"data2":0,"player_id":)" +
              std::to_string(player_of(av_)) + "}");
  ASSERT_EQ(Pavo_AVCtrl_Pause(av_), 0);
  EXPECT_GE(wait_state(PAVO_AVCTRL_PLAYSTATE_PAUSED, before), 0) << log_.dump();
  ASSERT_EQ(Pavo_AVCtrl_Play(av_, 1.0), 0);
  EXPECT_GE(wait_state(PAVO_AVCTRL_PLAYSTATE_PLAYING, before), 0) << log_.dump();
  EXPECT_EQ(errors_since(log_, before), 0) << log_.dump();
}

// The restarted service's first exchange is another page's Create, which
// gets the id that the old object's player had. From then on the old object
// is refused (it must not pause, read or destroy the other's player) and is
// told once.
TEST_F(EndToEnd, TheOldObjectNeverDrivesThePlayerOfTheNextCreate) {
  play_until_playing(kVod);
  const std::size_t before = log_.posts().size();
  service_.kill_now();
  ASSERT_TRUE(service_.start(kTimeScale, wait_limit())) << service_.output();
  void* other = nullptr;
  static PostLog other_log;  // outlives every post
  ASSERT_EQ(Pavo_AVCtrl_Create(nullptr, &other), 0);
  ASSERT_EQ(Pavo_AVCtrl_RegisterCallback(other, record, &other_log), 0);
  ASSERT_EQ(player_of(other), player_of(av_)) << "the new service did not reuse the id";
  ASSERT_EQ(Pavo_AVCtrl_Load(other, kVod), 0);
  ASSERT_EQ(Pavo_AVCtrl_Play(other, 1.0), 0);
  ASSERT_GE(other_log.wait_for(PAVO_AVCTRL_EVENT_PLAYSTATECHANGE, int_is(PAVO_AVCTRL_PLAYSTATE_PLAYING)), 0)
      << other_log.dump();

  double ms = 0;
  Pavo_AVCtrl_Pause(av_);  // refused, or nothing to send once told: the other plays on
  EXPECT_EQ(Pavo_AVCtrl_GetPlayTime(av_, &ms), -1);
  EXPECT_TRUE(pavo::test::wait_until([&] { return errors_since(log_, before) > 0; }, wait_limit())) << log_.dump();
  Pavo_AVCtrl_UnregisterCallback(av_);
  Pavo_AVCtrl_Destroy(av_);
  av_ = nullptr;
  EXPECT_EQ(errors_since(log_, before), 1) << log_.dump();
  EXPECT_EQ(Pavo_AVCtrl_GetPlayTime(other, &ms), 0) << "the other's player was destroyed";
  PavoAVCtrlPlayState state = PAVO_AVCTRL_PLAYSTATE_STOPPED;
  EXPECT_EQ(Pavo_AVCtrl_GetPlayState(other, &state), 0);
  EXPECT_EQ(state, PAVO_AVCTRL_PLAYSTATE_PLAYING) << other_log.dump();
  Pavo_AVCtrl_UnregisterCallback(other);
  Pavo_AVCtrl_Destroy(other);
}

// A service that ends and stays down: the object is told within about a
// second without making any call; once a service is back, Load makes a new
// player.
TEST_F(EndToEnd, AServiceThatEndedAndStaysDownIsTold) {
  play_until_playing(kVod);
  const std::size_t before = log_.posts().size();
  const auto start = std::chrono::steady_clock::now();
  service_.kill_now();
  ASSERT_GE(wait_state(PAVO_AVCTRL_PLAYSTATE_ERROR, before), 0) << log_.dump();
  const auto took = std::chrono::duration_cast<Millis>(std::chrono::steady_clock::now() - start);
  EXPECT_LE(took.count(), 1500);
  std::printf("a service that ended: the object was told after %lld ms\n", static_cast<long long>(took.count()));
  PavoAVCtrlPlayStateError error = PAVO_AVCTRL_ERROR_NONE;
  EXPECT_EQ(Pavo_AVCtrl_GetError(av_, &error), 0);
  EXPECT_EQ(error, PAVO_AVCTRL_ERROR_CONNECTION);
  ASSERT_TRUE(service_.start(kTimeScale, wait_limit())) << service_.output();
  const std::size_t reload = log_.posts().size();
  ASSERT_EQ(Pavo_AVCtrl_Load(av_, kVod), 0);
  ASSERT_EQ(Pavo_AVCtrl_Play(av_, 1.0), 0);
  EXPECT_GE(wait_state(PAVO_AVCTRL_PLAYSTATE_PLAYING, reload), 0) << log_.dump();
  EXPECT_EQ(errors_since(log_, before), 1) << log_.dump();
}

}  // namespace
}  // namespace pavo::e2e
