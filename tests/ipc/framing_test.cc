// Frame layout, chunking, reassembly and hostile frames, checked against
// real queues with raw msgsnd/msgrcv on the other side.
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/msg.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "ipc/frame.h"
#include "pavo_ipc.h"
#include "support/output_capture.h"
#include "support/test_queues.h"

namespace {

using pavo::test::ScopedQueues;
using pavo::test::unique_key;

constexpr uint32_t kN = 1024;
constexpr size_t kTextBytes = kN + 32;  // what msgsnd/msgrcv move per frame

// One frame as the kernel moves it: mtype, then the message text.
struct RawFrame {
  long mtype;
  unsigned char text[kTextBytes];
  uint32_t word(int i) const {
    uint32_t w;
    std::memcpy(&w, text + 4 * i, 4);
    return w;
  }
  uint32_t kind() const { return word(0); }
  uint32_t total_len() const { return word(1); }
  uint32_t seq_no() const { return word(2); }
  uint32_t is_last() const { return word(3); }
  uint32_t chunk_len() const { return word(6); }
  const unsigned char* payload() const { return text + 28; }
};

class Queue {
 public:
  Queue() : guard_(unique_key()) { id_ = msgget(guard_.key(), IPC_CREAT | 0666); }
  int id() const { return id_; }

  // Blocks for `count` frames (a reader must keep up with 16 frames: the
  // queue holds 15).
  std::vector<RawFrame> take(size_t count) {
    std::vector<RawFrame> frames(count);
    for (RawFrame& f : frames) {
      EXPECT_EQ(msgrcv(id_, &f, kTextBytes, 0, 0), static_cast<ssize_t>(kTextBytes));
    }
    return frames;
  }

  // Takes every waiting frame off the queue.
  std::vector<RawFrame> take_all() {
    std::vector<RawFrame> frames;
    RawFrame f;
    ssize_t n;
    while ((n = msgrcv(id_, &f, kTextBytes, 0, IPC_NOWAIT)) >= 0) {
      EXPECT_EQ(n, static_cast<ssize_t>(kTextBytes)) << "every frame has the same size";
      frames.push_back(f);
    }
    return frames;
  }

  void put_raw(long mtype, const void* text, size_t size) {
    std::vector<unsigned char> buf(sizeof(long) + size);
    std::memcpy(buf.data(), &mtype, sizeof mtype);
    std::memcpy(buf.data() + sizeof(long), text, size);
    ASSERT_EQ(msgsnd(id_, buf.data(), size, IPC_NOWAIT), 0);
  }

 private:
  ScopedQueues guard_;
  int id_;
};

std::string pattern(size_t len) {
  std::string s(len, '\0');
  for (size_t i = 0; i < len; ++i) s[i] = static_cast<char>('A' + (i * 7 + i / 26) % 26);
  return s;
}

int send(Queue& q, const std::string& text, long mtype = 1, int kind = 1) {
  pavo_ipc_msg msg{static_cast<uint32_t>(text.size()), const_cast<char*>(text.data())};
  return ipc_snd_internal(q.id(), mtype, kN, &msg, kind);
}

struct Received {
  int rc;
  std::string text;
  uint32_t capacity;
  pavo::ipc::pavo_ipc_frame header;
};

Received receive(Queue& q, long mtype = 1) {
  std::vector<unsigned char> frame(PAVO_IPC_FRAME_BUFFER_SIZE(kN));
  uint32_t capacity = kN + 1;
  char* text = static_cast<char*>(std::calloc(1, capacity));
  Received r{};
  r.rc = ipc_rcv_internal(q.id(), mtype, kN, frame.data(), &text, &capacity);
  r.text.assign(text);
  r.capacity = capacity;
  std::memcpy(&r.header, frame.data(), sizeof r.header);
  std::free(text);
  return r;
}

TEST(FrameLayout, ThreeBytesAreOneFrameWithEveryHeaderWord) {
  EXPECT_EQ(PAVO_IPC_FRAME_BUFFER_SIZE(kN), sizeof(long) + kN + 32) << "N + 36 on 32-bit Arm";
  Queue q;
  ASSERT_EQ(send(q, "abc", 1, 1), 0);
  auto frames = q.take_all();
  ASSERT_EQ(frames.size(), 1u);
  const RawFrame& f = frames[0];
  EXPECT_EQ(f.mtype, 1);
  const uint32_t expected[7] = {1, 3, 1, 1, 1, 0, 3};  // kind .. chunk_len
  for (int i = 0; i < 7; ++i) EXPECT_EQ(f.word(i), expected[i]) << "header word " << i;
  EXPECT_EQ(std::memcmp(f.payload(), "abc", 3), 0);
  for (size_t i = 3; i < kN + 4; ++i) ASSERT_EQ(f.payload()[i], 0) << "payload byte " << i;
}

TEST(Chunking, ChunkBoundariesCarryNPlusOneBytes) {
  struct Case {
    size_t len;
    std::vector<uint32_t> chunk_lens;
  };
  std::vector<uint32_t> sixteen(15, 1025);
  sixteen.push_back(1009);
  const Case cases[] = {{0, {0}}, {1025, {1025}}, {1026, {1025, 1}}, {16384, sixteen}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.len);
    Queue q;
    const std::string text = pattern(c.len);
    std::vector<RawFrame> frames;
    std::thread reader([&] { frames = q.take(c.chunk_lens.size()); });
    ASSERT_EQ(send(q, text, 5, 2), 0);
    reader.join();
    EXPECT_TRUE(q.take_all().empty());
    std::string joined;
    for (size_t i = 0; i < frames.size(); ++i) {
      const RawFrame& f = frames[i];
      EXPECT_EQ(f.mtype, 5);
      EXPECT_EQ(f.kind(), 2u);
      EXPECT_EQ(f.total_len(), c.len);
      EXPECT_EQ(f.seq_no(), i + 1);
      EXPECT_EQ(f.is_last(), i + 1 == frames.size() ? 1u : 0u);
      EXPECT_EQ(f.chunk_len(), c.chunk_lens[i]);
      for (size_t b = f.chunk_len(); b < kN + 4; ++b) ASSERT_EQ(f.payload()[b], 0) << "tail of chunk " << i;
      joined.append(reinterpret_cast<const char*>(f.payload()), f.chunk_len());
    }
    EXPECT_EQ(joined, text);
  }
}

TEST(Reassembly, TextBufferGrowsByDoublingLessOne) {
  const struct {
    size_t len;
    uint32_t capacity;
  } cases[] = {{0, 1025}, {1024, 1025}, {1025, 2049}, {2050, 4097}, {16384, 16385}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.len);
    Queue q;
    const std::string text = pattern(c.len);
    Received r{};
    std::thread receiver([&] { r = receive(q, 3); });
    ASSERT_EQ(send(q, text, 3, 1), 0);
    receiver.join();
    ASSERT_EQ(r.rc, 0);
    EXPECT_EQ(r.text, text);
    EXPECT_EQ(r.capacity, c.capacity);
    EXPECT_EQ(r.header.kind, 1);
    EXPECT_EQ(r.header.total_len, c.len);
    EXPECT_EQ(r.header.is_last, 1u);
  }
}

TEST(Reassembly, ReceivesOnlyItsOwnMessageType) {
  Queue q;
  ASSERT_EQ(send(q, "for two", 2), 0);
  ASSERT_EQ(send(q, "for one", 1), 0);
  EXPECT_EQ(receive(q, 1).text, "for one");
  EXPECT_EQ(receive(q, 2).text, "for two");
}

TEST(Arguments, BadArgumentsAreRefused) {
  Queue q;
  pavo_ipc_msg msg{3, const_cast<char*>("abc")};
  EXPECT_EQ(ipc_snd_internal(q.id(), 1, kN, nullptr, 1), -3);
  EXPECT_EQ(ipc_snd_internal(q.id(), 1, 0, &msg, 1), -3);
  EXPECT_EQ(ipc_snd_internal(q.id(), -1, kN, &msg, 1), -3);
  std::vector<unsigned char> frame(PAVO_IPC_FRAME_BUFFER_SIZE(kN));
  char* text = static_cast<char*>(std::calloc(1, 8));
  uint32_t capacity = 0;
  EXPECT_EQ(ipc_rcv_internal(q.id(), 1, kN, frame.data(), &text, &capacity), -3);
  capacity = 8;
  EXPECT_EQ(ipc_rcv_internal(q.id(), 1, kN, nullptr, &text, &capacity), -3);
  EXPECT_EQ(ipc_rcv_internal(q.id(), 1, kN, frame.data(), nullptr, &capacity), -3);
  std::free(text);
  EXPECT_TRUE(q.take_all().empty());
}

// A frame header claims more payload than a frame carries, or than arrived:
// the message is dropped and the next one is received intact.
TEST(HostileFrames, LyingChunkLengthsAreDropped) {
  Queue q;
  for (uint32_t claimed : {kN + 2, 0xffffffffu}) {
    RawFrame f{};
    f.mtype = 1;
    const uint32_t words[7] = {1, 5, 1, 1, 1, 0, claimed};
    std::memcpy(f.text, words, sizeof words);
    q.put_raw(1, f.text, kTextBytes);
  }
  unsigned char short_frame[28 + 10] = {};
  const uint32_t claims_100[7] = {1, 5, 1, 1, 1, 0, 100};
  std::memcpy(short_frame, claims_100, sizeof claims_100);
  q.put_raw(1, short_frame, sizeof short_frame);  // 10 payload bytes arrive, 100 claimed
  q.put_raw(1, short_frame, 12);                  // not even a whole header
  ASSERT_EQ(send(q, "intact"), 0);
  pavo::test::OutputCapture err(2);
  for (int i = 0; i < 4; ++i) EXPECT_EQ(receive(q).rc, -1) << "frame " << i;
  Received r = receive(q);
  EXPECT_EQ(r.rc, 0);
  EXPECT_EQ(r.text, "intact");
  EXPECT_NE(err.text().find("malformed frame"), std::string::npos);
}

TEST(HostileFrames, OversizedFrameIsTakenOffTheQueue) {
  Queue q;
  std::vector<unsigned char> big(kTextBytes + 100, 'x');
  q.put_raw(1, big.data(), big.size());
  ASSERT_EQ(send(q, "after"), 0);
  pavo::test::OutputCapture err(2);
  EXPECT_EQ(receive(q).rc, -1);
  EXPECT_NE(err.text().find("SERVER msgrcv res:-1, errno:7,"), std::string::npos) << err.text();
  EXPECT_EQ(receive(q).text, "after");
}

// Intermediate chunks without end: memory stays bounded at 16384 bytes.
TEST(HostileFrames, EndlessMessageIsCutAtTheLongestMessage) {
  Queue q;
  std::thread feeder([&] {
    RawFrame f{};
    f.mtype = 1;
    const uint32_t words[7] = {1, 0, 1, 0, 1, 0, kN + 1};
    std::memcpy(f.text, words, sizeof words);
    for (int i = 0; i < 17; ++i) ASSERT_EQ(msgsnd(q.id(), &f, kTextBytes, 0), 0);
  });
  pavo::test::OutputCapture err(2);
  Received r = receive(q);
  feeder.join();
  EXPECT_EQ(r.rc, -1);
  EXPECT_LE(r.capacity, 16385u);
  EXPECT_NE(err.text().find("longer than 16384"), std::string::npos);
}

// msgrcv is never restarted after a signal handler without SA_RESTART; the
// receive must carry on by itself.
TEST(Signals, InterruptedReceiveCarriesOn) {
  struct sigaction sa {};
  sa.sa_handler = [](int) {};
  sigemptyset(&sa.sa_mask);
  sa.sa_flags = 0;
  struct sigaction old {};
  ASSERT_EQ(sigaction(SIGUSR1, &sa, &old), 0);
  Queue q;
  Received r{};
  std::atomic<bool> started{false};
  std::thread receiver([&] {
    started = true;
    r = receive(q);
  });
  ASSERT_TRUE(pavo::test::wait_until([&] { return started.load(); }));
  for (int i = 0; i < 5; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    pthread_kill(receiver.native_handle(), SIGUSR1);
  }
  ASSERT_EQ(send(q, "after signals"), 0);
  receiver.join();
  sigaction(SIGUSR1, &old, nullptr);
  EXPECT_EQ(r.rc, 0);
  EXPECT_EQ(r.text, "after signals");
}

// msgmnb is 16384 bytes here: 15 frames of 1056 bytes fit, the 16th does not.
TEST(FullQueue, FinalChunkIsResentWhileTheQueueIsFullThenAbandoned) {
  Queue q;
  const std::string text = pattern(16384);
  pavo::test::OutputCapture out(1);
  ASSERT_EQ(send(q, text), 0) << "an abandoned chunk is not reported";
  const std::string printed = out.text();
  std::string expected = "\n###### msgsnd EAGAIN ######\n";
  for (int i = 0; i < 5; ++i) expected += "\n###### resend msgsnd EAGAIN ######\n";
  EXPECT_EQ(printed, expected);
  EXPECT_EQ(q.take_all().size(), 15u);
}

TEST(FullQueue, MessageArrivesWholeWhenTheReaderCatchesUp) {
  Queue q;
  const std::string text = pattern(16384);
  Received r{};
  std::thread reader([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(120));
    r = receive(q);
  });
  pavo::test::OutputCapture out(1);
  ASSERT_EQ(send(q, text), 0);
  reader.join();
  EXPECT_EQ(r.rc, 0);
  EXPECT_EQ(r.text, text);
  EXPECT_NE(out.text().find("###### msgsnd EAGAIN ######"), std::string::npos);
}

}  // namespace

extern "C" int pavo_ipc_header_is_c(void);

TEST(PublicHeader, CompilesAsC) { EXPECT_TRUE(pavo_ipc_header_is_c()); }
