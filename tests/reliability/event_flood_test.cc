// No event is lost while the event queue holds no more than its capacity:
// with the library's event thread held inside the player callback, a sender
// (standing in for the service, through the same transport) fills the queue
// up to its capacity without any send waiting on a full queue; once the
// callback returns, every event reaches it, in order.
#include <gtest/gtest.h>
#include <sys/msg.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <numeric>
#include <string>
#include <vector>

#include "pavo_ipc.h"
#include "pavo_mediaplayer_ipc.h"
#include "e2e_fixture.h"
#include "support/test_queues.h"

namespace {

constexpr key_t kEventKey = static_cast<key_t>(PAVO_MEDIAPLAYER_EVENT_KEY);
constexpr uint32_t kChunkSize = 1024;
constexpr unsigned kPlayer = 7;

// The player callback: held at the first event until released; records data1.
struct Sink {
  std::mutex mu;
  std::condition_variable cv;
  bool released = false;
  std::vector<int> seen;

  static void on_event(PavoMediaPluginEvent, PavoMediaError, const void* user, int data1, double) {
    auto* sink = static_cast<Sink*>(const_cast<void*>(user));
    std::unique_lock<std::mutex> lock(sink->mu);
    sink->seen.push_back(data1);
    sink->cv.wait(lock, [sink] { return sink->released; });
  }
};

TEST(EventFlood, NothingIsLostWhileTheQueueHoldsNoMoreThanItsCapacity) {
  pavo::e2e::remove_protocol_queues();
  ASSERT_EQ(Pavo_MediaPlayer_IPC_Initialize(0), 0);
  Sink sink;
  ASSERT_EQ(Pavo_MediaPlayer_IPC_RegisterCallback(kPlayer, Sink::on_event, &sink), 0);
  pavo_ipc_client* sender = nullptr;
  ASSERT_EQ(pavo_ipc_client_create(kEventKey, 1, 0, kChunkSize, &sender), 0);
  const auto send = [&](int data1) {  // a speed event for kPlayer
    std::string text = "{\"event_type\":0,\"event\":6,\"sub_event\":0,\"player_id\":" + std::to_string(kPlayer) +
                       ",\"data1\":" + std::to_string(data1) + ",\"data2\":0.0}";
    pavo_ipc_msg m{static_cast<uint32_t>(text.size()), text.data()};
    return pavo_ipc_client_send(sender, &m);
  };

  ASSERT_EQ(send(0), 0);
  std::vector<int> seen;  // a copy of sink.seen
  const auto seen_at_least = [&](std::size_t n) {
    std::lock_guard<std::mutex> lock(sink.mu);
    seen = sink.seen;
    return seen.size() >= n;
  };
  ASSERT_TRUE(pavo::test::wait_until([&] { return seen_at_least(1); }, pavo::e2e::wait_limit()));
  msqid_ds ds{};
  ASSERT_EQ(msgctl(msgget(kEventKey, 0), IPC_STAT, &ds), 0);
  const int capacity = static_cast<int>(ds.msg_qbytes / (kChunkSize + 32));
  ASSERT_GE(capacity, 1);
  for (int i = 1; i <= capacity; ++i) {
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(send(i), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(2)) << "event " << i;
  }
  EXPECT_EQ(pavo::test::queued_messages(kEventKey), capacity);
  {
    std::lock_guard<std::mutex> lock(sink.mu);
    sink.released = true;
  }
  sink.cv.notify_all();
  std::vector<int> expected(static_cast<std::size_t>(capacity) + 1);
  std::iota(expected.begin(), expected.end(), 0);
  EXPECT_TRUE(pavo::test::wait_until([&] { return seen_at_least(expected.size()); }, pavo::e2e::wait_limit()));
  EXPECT_EQ(seen, expected);
  pavo_ipc_client_destroy(sender);
  Pavo_MediaPlayer_IPC_UnregisterCallback(kPlayer);
  Pavo_MediaPlayer_IPC_Finalize();
  pavo::e2e::remove_protocol_queues();
}

}  // namespace
