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

#include "pavo_ipc.h"
#include "support/output_capture.h"
#include "support/test_queues.h"

namespace {

// The frames are PAVO_IPC_FRAME_BUFFER_SIZE(kN) bytes, also where long has 4 bytes.
using pavo::test::WireFrame;
constexpr uint32_t kN = pavo::test::kWireChunk;
constexpr size_t kTextBytes = pavo::test::kWireTextBytes;

class Queue {
 public:
  Queue() : guard_(pavo::test::unique_key()), id_(msgget(guard_.key(), IPC_CREAT | 0666)) {}
  int id() const { return id_; }

  size_t discard_all() {
    WireFrame f;
    size_t n = 0;
    while (msgrcv(id_, &f, kTextBytes, 0, IPC_NOWAIT) >= 0) ++n;
    return n;
  }
  // Blocks while the queue is full; header words first, then `payload_bytes` bytes of 'x'.
  void put_raw(std::vector<uint32_t> words, size_t payload_bytes) {
    std::vector<unsigned char> buf(sizeof(long) + 4 * words.size() + payload_bytes, 'x');
    const long mtype = 1;
    std::memcpy(buf.data(), &mtype, sizeof mtype);
    std::memcpy(buf.data() + sizeof mtype, words.data(), 4 * words.size());
    EXPECT_EQ(msgsnd(id_, buf.data(), buf.size() - sizeof mtype, 0), 0);
  }

 private:
  pavo::test::ScopedQueues guard_;
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
  WireFrame header;  // the frame buffer after the receive: the final frame's header
};

Received receive(Queue& q, long mtype = 1) {
  Received r{};
  uint32_t capacity = kN + 1;
  char* text = static_cast<char*>(std::calloc(1, capacity));
  r.rc = ipc_rcv_internal(q.id(), mtype, kN, &r.header, &text, &capacity);
  r.text.assign(text);
  r.capacity = capacity;
  std::free(text);
  return r;
}

// Each row is sent twice: once read raw frame by frame, once reassembled.
// Every chunk but the last carries N + 1 bytes; the text buffer starts at
// N + 1 bytes and grows to 2 x capacity - 1 whenever a chunk leaves no room
// for the terminating NUL.
TEST(Framing, ChunksOnTheWireAndReassembly) {
  const struct {
    size_t len, frames;
    uint32_t last_len, capacity;
  } rows[] = {{0, 1, 0, 1025},      {3, 1, 3, 1025},      {1024, 1, 1024, 1025}, {1025, 1, 1025, 2049},
              {1026, 2, 1, 2049},   {2050, 2, 1025, 4097}, {16384, 16, 1009, 16385}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.len);
    Queue q;
    const std::string text = pattern(row.len);
    std::vector<WireFrame> frames(row.frames);  // read while sent: the queue holds 15
    std::thread reader([&] {
      for (WireFrame& f : frames) EXPECT_EQ(msgrcv(q.id(), &f, kTextBytes, 0, 0), ssize_t{kTextBytes});
    });
    EXPECT_EQ(send(q, text, 5, 2), 0);
    reader.join();
    EXPECT_EQ(q.discard_all(), 0u);
    std::string joined;
    for (uint32_t i = 0; i < row.frames; ++i) {
      const bool last = i + 1 == row.frames;
      const uint32_t chunk_len = last ? row.last_len : kN + 1;
      EXPECT_EQ(frames[i].mtype, 5);
      EXPECT_EQ(frames[i].header(), (std::vector<uint32_t>{2, uint32_t(row.len), i + 1, last, 1, 0, chunk_len}));
      for (size_t b = chunk_len; b < kN + 4; ++b) ASSERT_EQ(frames[i].payload[b], 0) << "tail of " << i;
      joined.append(frames[i].payload, chunk_len);
    }
    EXPECT_EQ(joined, text);

    Received r{};
    std::thread receiver([&] { r = receive(q, 5); });
    EXPECT_EQ(send(q, text, 5, 2), 0);
    receiver.join();
    EXPECT_EQ(r.rc, 0);
    EXPECT_EQ(r.text, text);
    EXPECT_EQ(r.capacity, row.capacity);
    EXPECT_EQ(r.header.kind, 2u);
    EXPECT_EQ(r.header.is_last, 1u) << "is_last of the final frame";
  }
}

TEST(Framing, BadArgumentsAreRefused) {
  Queue q;
  pavo_ipc_msg msg{3, const_cast<char*>("abc")};
  EXPECT_EQ(ipc_snd_internal(q.id(), 1, kN, nullptr, 1), -3);
  EXPECT_EQ(ipc_snd_internal(q.id(), 1, 0, &msg, 1), -3);
  EXPECT_EQ(ipc_snd_internal(q.id(), -1, kN, &msg, 1), -3);
  WireFrame frame;
  char* text = static_cast<char*>(std::calloc(1, 8));
  uint32_t capacity = 0;
  EXPECT_EQ(ipc_rcv_internal(q.id(), 1, kN, &frame, &text, &capacity), -3);
  capacity = 8;
  EXPECT_EQ(ipc_rcv_internal(q.id(), 1, kN, nullptr, &text, &capacity), -3);
  EXPECT_EQ(ipc_rcv_internal(q.id(), 1, kN, &frame, nullptr, &capacity), -3);
  std::free(text);
  EXPECT_EQ(q.discard_all(), 0u);
}

// Hostile frame sequences, each followed by a good message: every sequence
// is dropped with its diagnostic (a receive returns -1 once per dropped
// message), the rest of a dropped message is taken off up to its final frame
// and never read as the start of the next one, and memory stays bounded at
// 16384 bytes. A receive passes over messages of another type.
TEST(Framing, HostileFramesAreDroppedAndTheNextMessageArrivesIntact) {
  using Words = std::vector<uint32_t>;  // kind, total_len, seq_no, is_last, 1, 0, chunk_len
  struct Put {
    Words words;
    size_t payload;
  };
  auto run_of = [](uint32_t frames, uint32_t chunk_len) {
    std::vector<Put> run;
    for (uint32_t i = 1; i <= frames; ++i) run.push_back({{1, 0, i, i == frames, 1, 0, chunk_len}, kN + 4});
    return run;
  };
  std::vector<Put> too_long = run_of(17, kN + 1);  // 17425 bytes
  std::vector<Put> malformed_middle = run_of(4, 10);
  malformed_middle[1].words[6] = kN + 2;
  std::vector<Put> gap = run_of(4, 10);
  gap.erase(gap.begin() + 1);
  std::vector<Put> never_ends = run_of(16, kN + 1);
  for (Put& f : never_ends) f.words[2] = 1, f.words[3] = 0;  // every frame starts anew, none ends
  const struct {
    const char* name;
    std::vector<Put> frames;
    int failures;
    const char* diagnostic;
  } rows[] = {
      {"oversized", {{{1, 5, 1, 1, 1, 0, 0}, kN + 104}}, 1, "SERVER msgrcv res:-1, errno:7,"},
      {"oversized middle", {{{1, 9, 1, 0, 1, 0, 0}, kN + 104}, {{1, 9, 2, 1, 1, 0, 3}, kN + 4}}, 1, "malformed"},
      {"chunk_len beyond a chunk", {{{1, 5, 1, 1, 1, 0, kN + 2}, kN + 4}}, 1, "malformed frame"},
      {"chunk_len huge", {{{1, 5, 1, 1, 1, 0, 0xffffffffu}, kN + 4}}, 1, "malformed frame"},
      {"chunk_len beyond what arrived", {{{1, 5, 1, 1, 1, 0, 100}, 10}}, 1, "malformed frame"},
      {"kind out of range", {{{9, 5, 1, 1, 1, 0, 3}, kN + 4}}, 1, "malformed frame"},
      {"shorter than a header", {{{1, 5, 1}, 0}}, 0, "shorter than its header"},
      {"longer than 16384 bytes", too_long, 1, "longer than 16384"},
      {"malformed in the middle", malformed_middle, 1, "malformed frame"},
      {"a chunk missing", gap, 1, "out of sequence"},
      {"no first chunk", {{{1, 5, 2, 1, 1, 0, 3}, kN + 4}}, 1, "out of sequence"},
      {"never ends", never_ends, 0, "cut short"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    Queue q;
    std::thread feeder([&] {
      EXPECT_EQ(send(q, "for two", 2), 0);
      for (const Put& f : row.frames) q.put_raw(f.words, f.payload);
      EXPECT_EQ(send(q, "intact"), 0);
      EXPECT_EQ(send(q, "spare"), 0);  // a miscount fails below instead of blocking
    });
    pavo::test::OutputCapture err(2);
    Received r{};
    int failures = 0;
    while ((r = receive(q)).rc == -1 && failures < 5) {
      ++failures;
      EXPECT_LE(r.capacity, 16385u);
    }
    feeder.join();
    EXPECT_EQ(r.rc, 0);
    EXPECT_EQ(r.text, "intact");
    EXPECT_LE(r.capacity, 16385u);
    EXPECT_EQ(failures, row.failures);
    EXPECT_EQ(receive(q, 2).text, "for two");
    EXPECT_EQ(q.discard_all(), 1u) << "the spare";
    EXPECT_NE(err.text().find(row.diagnostic), std::string::npos) << err.text();
  }
}

// msgrcv is never restarted after a signal handler without SA_RESTART; the
// receive must carry on by itself.
TEST(Framing, InterruptedReceiveCarriesOn) {
  struct sigaction sa {}, old {};
  sa.sa_handler = [](int) {};
  ASSERT_EQ(sigaction(SIGUSR1, &sa, &old), 0);
  Queue q;
  Received r{};
  std::thread receiver([&] { r = receive(q); });
  for (int i = 0; i < 5; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    pthread_kill(receiver.native_handle(), SIGUSR1);
  }
  EXPECT_EQ(send(q, "after signals"), 0);
  receiver.join();
  sigaction(SIGUSR1, &old, nullptr);
  EXPECT_EQ(r.rc, 0);
  EXPECT_EQ(r.text, "after signals");
}

// msgmnb is 16384 bytes here: 15 frames of 1056 bytes fit, the 16th does not.
// The final chunk is resent five times, 50 ms apart, then abandoned unreported.
TEST(Framing, FullQueueResendsThenAbandonsOrDeliversWhenTheReaderCatchesUp) {
  const std::string text = pattern(16384);
  {
    Queue q;
    pavo::test::OutputCapture out(1);
    EXPECT_EQ(send(q, text), 0);
    std::string expected = "\n###### msgsnd EAGAIN ######\n";
    for (int i = 0; i < 5; ++i) expected += "\n###### resend msgsnd EAGAIN ######\n";
    EXPECT_EQ(out.text(), expected);
    EXPECT_EQ(q.discard_all(), 15u);
  }
  Queue q;
  Received r{};
  std::thread reader([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(120));
    r = receive(q);
  });
  pavo::test::OutputCapture out(1);
  EXPECT_EQ(send(q, text), 0);
  reader.join();
  EXPECT_EQ(r.text, text);
  EXPECT_NE(out.text().find("\n###### msgsnd EAGAIN ######\n"), std::string::npos);
}

}  // namespace

extern "C" int pavo_ipc_header_is_c(void);

TEST(Framing, PublicHeaderCompilesAsC) { EXPECT_TRUE(pavo_ipc_header_is_c()); }
