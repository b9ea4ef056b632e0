// The reply queue in hostile hands: stray, forged, partial, duplicate and lost
// replies never shift the answers of later requests, a healthy service that
// lost one reply is used again, and a reply queue filled by another process
// does not hold a call past the reply bound.
#include <gtest/gtest.h>
#include <sys/msg.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <thread>

#include "pavo_ipc.h"
#include "support/emulation.h"
#include "support/output_capture.h"
#include "support/reply_timeout_override.h"
#include "support/test_queues.h"

namespace {

using pavo::test::WireFrame;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr uint32_t kN = pavo::test::kWireChunk;
constexpr auto kBound = 300ms;
// What a late scheduler may add to the bound.
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
const auto kSlack = 150ms;
#else
const auto kSlack = pavo::test::under_emulator() ? 1000ms : 60ms;
#endif

// Puts one frame on queue `queue` as another process would.
void put_frame(int queue, long mtype, uint32_t seq_no, uint32_t is_last, const std::string& text,
               uint32_t chunk_len) {
  WireFrame f{mtype, 3, static_cast<uint32_t>(text.size()), seq_no, is_last, 1, 0, chunk_len, {}};
  std::memcpy(f.payload, text.data(), text.size());
  ASSERT_EQ(msgsnd(queue, &f, pavo::test::kWireTextBytes, IPC_NOWAIT), 0);
}

void send_reply(int queue, const std::string& text) {
  pavo_ipc_msg m{static_cast<uint32_t>(text.size()), const_cast<char*>(text.data())};
  EXPECT_EQ(ipc_snd_internal(queue, 1, kN, &m, 3), 0);
}

// A service of the test's own on `key`: answers each request "re:<text>",
// except that the first request gets `first` instead (which may answer it or
// not). Makes both queues; runs until its request queue is removed.
class RawService {
 public:
  using Action = std::function<void(int reply_queue, const std::string& text)>;
  RawService(key_t key, Action first) : key_(key), first_(std::move(first)) {
    requests_ = msgget(key, IPC_CREAT | 0666);
    msgget(key + 1, IPC_CREAT | 0666);
    thread_ = std::thread([this] { run(); });
  }
  ~RawService() {
    pavo::test::remove_queue(key_);
    thread_.join();
  }

 private:
  void run() {
    WireFrame frame;
    uint32_t capacity = kN + 1;
    char* text = static_cast<char*>(std::malloc(capacity));
    for (int i = 0; ipc_rcv_internal(requests_, 1, kN, &frame, &text, &capacity) == 0; ++i) {
      const int replies = msgget(key_ + 1, IPC_CREAT | 0666);  // the client may have made it anew
      if (i == 0 && first_) {
        first_(replies, text);
      } else {
        send_reply(replies, std::string("re:") + text);
      }
    }
    std::free(text);
  }

  key_t key_;
  Action first_;
  int requests_;
  std::thread thread_;
};

struct Result {
  int rc;
  std::string text;
  Clock::duration took;
};

Result request(pavo_ipc_client* client, const std::string& text) {
  pavo_ipc_msg req{static_cast<uint32_t>(text.size()), const_cast<char*>(text.data())}, reply{0, nullptr};
  const auto start = Clock::now();
  Result r{pavo_ipc_client_send_sync_with_params(client, &req, &reply), "", {}};
  r.took = Clock::now() - start;
  if (r.rc == 0) {
    r.text = reply.data;
    std::free(reply.data);
  } else {
    r.text = "<" + std::to_string(r.rc) + ">";
  }
  return r;
}

// From the first answered call within `limit` on, every call gets its own
// answer; the calls that fail before it fail fast.
void expect_own_answers_again(pavo_ipc_client* client, std::chrono::milliseconds limit) {
  const auto give_up = Clock::now() + limit;
  int n = 0;
  Result r = request(client, "again 0");
  while (r.rc != 0 && Clock::now() < give_up) {
    EXPECT_LT(r.took, kBound - 50ms) << "a call on a silent handle waits no bound again";
    std::this_thread::sleep_for(20ms);
    r = request(client, "again " + std::to_string(++n));
  }
  EXPECT_EQ(r.text, "re:again " + std::to_string(n));
  for (int i = 0; i < 5; ++i) {
    const std::string text = "next " + std::to_string(i);
    EXPECT_EQ(request(client, text).text, "re:" + text);
  }
}

// Each way another process (or a faulty service) can put wrong frames on the
// reply queue, or take the reply off it, around the answer to one request.
TEST(HostileReplies, NoFrameShiftsTheAnswersAfterIt) {
  pavo::test::ReplyTimeoutOverride bound(kBound);
  const struct {
    const char* name;
    RawService::Action first;
    const char* first_answer;
  } cases[] = {
      {"a stray final frame out of sequence comes first",
       [](int q, const std::string& t) {
         put_frame(q, 1, 2, 1, "tail", 4);
         send_reply(q, "re:" + t);
       },
       "re:first"},
      {"a malformed first frame comes first",
       [](int q, const std::string& t) {
         put_frame(q, 1, 1, 1, "bad", kN + 100);
         send_reply(q, "re:" + t);
       },
       "re:first"},
      {"a complete forged reply comes first (taken: the limit without request numbers)",
       [](int q, const std::string& t) {
         send_reply(q, "forged");
         send_reply(q, "re:" + t);
       },
       "forged"},
      {"answered twice",
       [](int q, const std::string& t) {
         send_reply(q, "re:" + t);
         send_reply(q, "re:" + t);
       },
       "re:first"},
      {"two of three frames of a reply, then nothing",
       [](int q, const std::string&) {
         put_frame(q, 1, 1, 0, "part", 4);
         put_frame(q, 1, 2, 0, "part", 4);
       },
       "<-1>"},
      {"the reply lost (taken by another process, or never sent)", [](int, const std::string&) {}, "<-1>"},
  };
  pavo::test::OutputCapture err(2);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    pavo::test::ScopedQueues queues(pavo::test::unique_key());
    RawService service(queues.key(), c.first);
    pavo_ipc_client* client = nullptr;
    ASSERT_EQ(pavo_ipc_client_create(queues.key(), 1, 1, kN, &client), 0);
    EXPECT_EQ(request(client, "first").text, c.first_answer);
    std::this_thread::sleep_for(50ms);  // whatever else the service sends for it is queued by now
    expect_own_answers_again(client, 3000ms);
    pavo_ipc_client_destroy(client);
  }
}

// Another process fills the reply queue while a call waits on a service that
// does not answer: the call still ends at the bound. The queue is emptied
// of what it does not own, or, when nothing can be taken off (its capacity
// lowered by its owner), removed and made again. Once the filler stops and a
// service answers, the late reply is not taken for a later request.
TEST(HostileReplies, AFullReplyQueueDoesNotHoldACallPastTheBound) {
  pavo::test::ReplyTimeoutOverride bound(kBound);
  const struct {
    const char* name;
    std::function<void(int)> fill;
  } cases[] = {
      {"frames of another type",
       [](int q) {
         WireFrame f{2, 3, 1, 1, 1, 1, 0, 1, {}};
         while (msgsnd(q, &f, pavo::test::kWireTextBytes, IPC_NOWAIT) == 0) {
         }
       }},
      {"one-byte messages of another type",
       [](int q) {
         struct {
           long mtype;
           char c;
         } m{2, 'x'};
         while (msgsnd(q, &m, 1, IPC_NOWAIT) == 0) {
         }
       }},
      {"capacity lowered to nothing",
       [](int q) {
         msqid_ds ds{};
         ASSERT_EQ(msgctl(q, IPC_STAT, &ds), 0);
         ds.msg_qbytes = 0;
         ASSERT_EQ(msgctl(q, IPC_SET, &ds), 0);
       }},
  };
  pavo::test::OutputCapture err(2);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    pavo::test::ScopedQueues queues(pavo::test::unique_key());
    msgget(queues.key(), IPC_CREAT | 0666);
    const int replies = msgget(queues.key() + 1, IPC_CREAT | 0666);
    pavo_ipc_client* client = nullptr;
    ASSERT_EQ(pavo_ipc_client_create(queues.key(), 1, 1, kN, &client), 0);
    c.fill(replies);
    std::atomic<bool> done{false};
    std::thread rescue([&] {  // ends a call that would otherwise never end
      const auto until = Clock::now() + 5s;
      while (!done && Clock::now() < until) std::this_thread::sleep_for(5ms);
      if (!done) pavo::test::remove_queue(queues.key() + 1);
    });
    const Result r = request(client, "first");
    done = true;
    rescue.join();
    EXPECT_EQ(r.text, "<-1>");
    EXPECT_LT(r.took, kBound + kSlack);

    const int left = msgget(queues.key() + 1, 0);  // the filler is gone: so is what it left
    struct {
      long mtype;
      char text[8];
    } junk;
    while (left >= 0 && msgrcv(left, &junk, sizeof junk.text, 2, IPC_NOWAIT | MSG_NOERROR) >= 0) {
    }
    RawService service(queues.key(), nullptr);  // answers the waiting request first
    ASSERT_TRUE(pavo::test::wait_until([&] { return pavo::test::queued_messages(queues.key() + 1) > 0; }));
    expect_own_answers_again(client, 3000ms);
    pavo_ipc_client_destroy(client);
  }
}

}  // namespace
