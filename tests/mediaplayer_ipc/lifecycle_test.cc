// Opening and closing the four endpoints: repeated calls, a request and the
// one-way notice through them (the notice fails once they are closed), a
// command in flight while closing, and a failed Initialize that keeps what
// it opened first and is completed later.
#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <memory>
#include <string>
#include <thread>

#include "client_fixture.h"
#include "mediaplayer_ipc/registry.h"

namespace {

using pavo::test::Answer;

pavo_ipc_client* request_handle() { return __atomic_load_n(&g_mediaplayer_ipc_client_handle, __ATOMIC_ACQUIRE); }
pavo_ipc_client* notice_handle() {
  return __atomic_load_n(&g_mediaplayer_ipc_client_async_handle, __ATOMIC_ACQUIRE);
}

void player_cb(PavoMediaPluginEvent, PavoMediaError, const void*, int, double) {}

using Lifecycle = pavo::test::ClientTest;  // opened once in SetUp

TEST_F(Lifecycle, InitializeTwiceOpensOnceAndFinalizeClosesEverything) {
  pavo_ipc_client* const opened = request_handle();
  ASSERT_EQ(Pavo_MediaPlayer_IPC_Initialize(7), 0);
  EXPECT_EQ(request_handle(), opened);
  EXPECT_NE(notice_handle(), nullptr);
  EXPECT_EQ(Pavo_MediaPlayer_IPC_Play(1), 0);
  EXPECT_TRUE(service_.send_service_request(R"({"event_type":7})").has_value());
  EXPECT_EQ(Pavo_MediaPlayer_IPC_PlatformSubtitleEnable(true), 0);  // the one-way notice
  ASSERT_TRUE(service_.wait_for_notices(1));
  EXPECT_EQ(service_.notices()[0].text, pavo::test::json(R"({"event_type":31,"subtitleEnable":true})").toStyledString());

  Pavo_MediaPlayer_IPC_RegisterCallback(1, player_cb, nullptr);
  Pavo_MediaPlayer_IPC_RegisterCallback(2, player_cb, nullptr);
  EXPECT_EQ(Pavo_MediaPlayer_IPC_Finalize(), 0);  // (the commands then give -3: commands_test)
  EXPECT_EQ(Pavo_MediaPlayer_IPC_PlatformSubtitleEnable(false), -3);
  EXPECT_EQ(pavo::mediaplayer::player_count(), 0u);
  EXPECT_EQ(__atomic_load_n(&g_mediaplayer_cb, __ATOMIC_ACQUIRE), player_cb) << "the slot is kept";
  EXPECT_FALSE(service_.send_service_request(R"({"event_type":7})", std::chrono::milliseconds(200)))
      << "nobody serves the request queue any more";
}

// The event thread's callback asks the service for the position, as the A/V
// control layer does, while another thread closes the client.
std::atomic<int> g_result{1};
std::atomic<double> g_time{0};
void ask_position(PavoMediaPluginEvent, PavoMediaError, const void*, int, double) {
  double time = 0;
  g_result = Pavo_MediaPlayer_IPC_GetCurrentTime(3, &time);
  g_time = time;
}

TEST_F(Lifecycle, FinalizeWaitsForACommandThatACallbackHasInFlight) {
  pavo::test::ReplyTimeoutOverride patient(std::chrono::seconds(5));
  service_.script(10, [](const Json::Value&) {
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    return Answer::json(pavo::test::json(R"({"ret":0,"current_time":2.5})"));
  });
  Pavo_MediaPlayer_IPC_RegisterCallback(3, ask_position, nullptr);
  ASSERT_TRUE(service_.send_event_text(R"({"event_type":0,"player_id":3,"event":6})"));
  ASSERT_TRUE(pavo::test::wait_until([&] { return !service_.requests().empty(); }));  // answered 300 ms later
  EXPECT_EQ(Pavo_MediaPlayer_IPC_Finalize(), 0);
  EXPECT_EQ(g_result.load(), 0);
  EXPECT_EQ(g_time.load(), 2.5);
}

constexpr char kQueueLimit[] = "/proc/sys/kernel/msgmni";

// Sets the queue limit of this IPC namespace to the queues in it plus `more`.
bool allow_queues(int more) {
  std::ifstream list("/proc/sysvipc/msg");
  int existing = -1;  // the list has a header line
  for (std::string line; std::getline(list, line);) ++existing;
  return static_cast<bool>(std::ofstream(kQueueLimit) << existing + more << std::flush);
}

TEST_F(Lifecycle, AFailedInitializeKeepsTheRequestEndpointsAndIsCompletedLater) {
  ASSERT_EQ(Pavo_MediaPlayer_IPC_Finalize(), 0);
  // The library's server queues outlive Finalize; the limits below count queues made afresh.
  for (key_t key : {0x95000070, 0x95000090, 0x95000091}) pavo::test::remove_queue(key);
  int saved = 0;
  if (!(std::ifstream(kQueueLimit) >> saved) || !allow_queues(0)) GTEST_SKIP() << "the queue limit cannot be changed";
  std::shared_ptr<void> restore(nullptr, [saved](void*) { std::ofstream(kQueueLimit) << saved; });
  EXPECT_EQ(Pavo_MediaPlayer_IPC_Initialize(1), -1);
  EXPECT_EQ(request_handle(), nullptr);
  EXPECT_EQ(Pavo_MediaPlayer_IPC_Play(1), -3);
  ASSERT_TRUE(allow_queues(2));  // the request server's pair, not the event queue
  EXPECT_EQ(Pavo_MediaPlayer_IPC_Initialize(1), -1);
  EXPECT_EQ(Pavo_MediaPlayer_IPC_Play(1), 0) << "request client and server stay open";
  EXPECT_TRUE(service_.send_service_request(R"({"event_type":7})").has_value());
  EXPECT_EQ(notice_handle(), nullptr);
  EXPECT_EQ(Pavo_MediaPlayer_IPC_PlatformSubtitleEnable(true), -3);
  restore.reset();  // the limit as it was
  pavo_ipc_client* const kept = request_handle();
  ASSERT_EQ(Pavo_MediaPlayer_IPC_Initialize(1), 0);
  EXPECT_EQ(request_handle(), kept);
  EXPECT_EQ(Pavo_MediaPlayer_IPC_PlatformSubtitleEnable(true), 0);
  EXPECT_TRUE(service_.wait_for_notices(1));
}

}  // namespace
