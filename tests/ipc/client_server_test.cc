// Client and server ends in one process: exchanges, stop orders, late
// clients, concurrency and the failure paths of the receive thread.
#include <gtest/gtest.h>
#include <sys/msg.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "pavo_ipc.h"
#include "support/output_capture.h"
#include "support/reply_timeout_override.h"
#include "support/test_queues.h"

namespace {

using pavo::test::ScopedQueues;
using pavo::test::unique_key;
using pavo::test::wait_until;
using namespace std::chrono_literals;

constexpr uint32_t kN = 1024;

// The message refers to the text: string literals, or strings that outlive it.
pavo_ipc_msg msg_of(const char* literal) {
  return pavo_ipc_msg{static_cast<uint32_t>(std::strlen(literal)), const_cast<char*>(literal)};
}
pavo_ipc_msg msg_of(const std::string& s) {
  return pavo_ipc_msg{static_cast<uint32_t>(s.size()), const_cast<char*>(s.data())};
}
pavo_ipc_msg msg_of(std::string&&) = delete;

pavo_ipc_msg* make_reply(const std::string& text) {
  auto* reply = new pavo_ipc_msg;
  reply->data = strdup(text.c_str());
  reply->len = static_cast<uint32_t>(text.size());
  return reply;
}

// What a server callback saw.
struct Recorder {
  std::mutex mu;
  std::vector<std::string> texts;
  std::vector<uint32_t> lens;
  void add(const pavo_ipc_msg* m) {
    std::lock_guard<std::mutex> lock(mu);
    texts.emplace_back(m->data);
    lens.push_back(m->len);
  }
  size_t count() {
    std::lock_guard<std::mutex> lock(mu);
    return texts.size();
  }
  // Copies taken under the lock: the receive thread may still be writing.
  std::vector<std::string> seen() {
    std::lock_guard<std::mutex> lock(mu);
    return texts;
  }
  std::vector<uint32_t> seen_lens() {
    std::lock_guard<std::mutex> lock(mu);
    return lens;
  }
};

pavo_ipc_msg* record_only(pavo_ipc_msg* m, void* user) {
  static_cast<Recorder*>(user)->add(m);
  return nullptr;
}

pavo_ipc_msg* echo(pavo_ipc_msg* m, void* user) {
  if (user) static_cast<Recorder*>(user)->add(m);
  return make_reply(std::string("echo:") + m->data);
}

// A server and a client of one key pair, torn down in the right order.
class Pair {
 public:
  explicit Pair(int sync = 1, int msg_type = 1) : queues_(unique_key()) {
    EXPECT_EQ(pavo_ipc_server_create(queues_.key(), msg_type, sync, kN, &server), 0);
    EXPECT_EQ(pavo_ipc_client_create(queues_.key(), msg_type, sync, kN, &client), 0);
  }
  ~Pair() {
    if (server) pavo_ipc_server_destroy(server);
    pavo_ipc_client_destroy(client);
  }
  key_t key() const { return queues_.key(); }

  struct Result {
    int rc;
    std::string text;
    uint32_t len;
  };
  Result request(const std::string& text, uint32_t preset_len = 7777) {
    pavo_ipc_msg req = msg_of(text);
    pavo_ipc_msg reply{preset_len, nullptr};
    Result r{pavo_ipc_client_send_sync_with_params(client, &req, &reply), "", reply.len};
    if (reply.data) r.text = reply.data;
    std::free(reply.data);
    return r;
  }

  pavo_ipc_server* server = nullptr;
  pavo_ipc_client* client = nullptr;

 private:
  ScopedQueues queues_;
};

TEST(SyncExchange, ReplyComesBackWithItsLength) {
  Pair p;
  Recorder rec;
  ASSERT_EQ(pavo_ipc_server_register_callback(p.server, echo, &rec), 0);
  for (size_t len : {size_t{1}, size_t{1025}, size_t{1026}, size_t{16000}}) {
    const std::string text(len, 'q');
    auto r = p.request(text);
    ASSERT_EQ(r.rc, 0);
    EXPECT_EQ(r.text, "echo:" + text);
    EXPECT_EQ(r.len, len + 5);
  }
  EXPECT_EQ(rec.seen_lens(), (std::vector<uint32_t>{1, 1025, 1026, 16000}));
}

// No callback, a null reply, a reply too long to send, a callback that
// throws: the requester gets the placeholder "a" and its len untouched, and
// the receive thread goes on.
TEST(SyncExchange, EveryMissingReplyGivesPlaceholderA) {
  Pair p;
  const pavo_ipc_server_callback no_reply[] = {
      nullptr,
      [](pavo_ipc_msg*, void*) -> pavo_ipc_msg* { return nullptr; },
      [](pavo_ipc_msg*, void*) { return make_reply(std::string(16385, 'z')); },
      [](pavo_ipc_msg*, void*) -> pavo_ipc_msg* { throw std::runtime_error("boom"); },
  };
  pavo::test::OutputCapture err(2);
  for (pavo_ipc_server_callback callback : no_reply) {
    ASSERT_EQ(pavo_ipc_server_register_callback(p.server, callback, nullptr), 0);
    auto r = p.request("anyone?", 41);
    EXPECT_EQ(r.rc, 0);
    EXPECT_EQ(r.text, "a");
    EXPECT_EQ(r.len, 41u) << "len is left as the caller set it";
  }
  ASSERT_EQ(pavo_ipc_server_register_callback(p.server, echo, nullptr), 0);
  EXPECT_EQ(p.request("alive").text, "echo:alive");
}

TEST(SyncExchange, CallbackVariantSeesOnlyRealReplies) {
  Pair p;
  static std::string seen;
  static int calls;
  seen.clear();
  calls = 0;
  auto on_reply = [](pavo_ipc_msg* reply, int status) {
    ++calls;
    seen.assign(reply->data, reply->len);
    EXPECT_EQ(status, 0);
    return 0;
  };
  pavo_ipc_msg req = msg_of("hello");
  EXPECT_EQ(pavo_ipc_client_send_sync_with_callback(p.client, &req, on_reply), 0);
  EXPECT_EQ(calls, 0) << "a no-reply answer is not handed to the callback";
  ASSERT_EQ(pavo_ipc_server_register_callback(p.server, echo, nullptr), 0);
  EXPECT_EQ(pavo_ipc_client_send_sync_with_callback(p.client, &req, on_reply), 0);
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(seen, "echo:hello");
  EXPECT_EQ(pavo_ipc_client_send_sync_with_callback(p.client, &req, nullptr), 0);
}

TEST(ClientArguments, RefusedBeforeAnythingIsSent) {
  Pair p;
  Recorder rec;
  ASSERT_EQ(pavo_ipc_server_register_callback(p.server, record_only, &rec), 0);
  std::string empty;
  pavo_ipc_msg none = msg_of(empty), one = msg_of("x"), reply{0, nullptr};
  const std::string big(16385, 'b');
  pavo_ipc_msg too_big = msg_of(big);
  EXPECT_EQ(pavo_ipc_client_send(p.client, &none), -3);
  EXPECT_EQ(pavo_ipc_client_send(nullptr, &one), -3);
  EXPECT_EQ(pavo_ipc_client_send(p.client, nullptr), -3);
  EXPECT_EQ(pavo_ipc_client_send(p.client, &too_big), -1);
  EXPECT_EQ(pavo_ipc_client_send_sync_with_params(p.client, &none, &reply), -3);
  EXPECT_EQ(pavo_ipc_client_send_sync_with_params(p.client, &one, nullptr), -3);
  EXPECT_EQ(pavo_ipc_client_send_sync_with_params(p.client, &too_big, &reply), -1);
  EXPECT_EQ(reply.data, nullptr);

  pavo_ipc_client* one_way = nullptr;
  ASSERT_EQ(pavo_ipc_client_create(p.key(), 1, 0, kN, &one_way), 0);
  EXPECT_EQ(pavo_ipc_client_send_sync_with_params(one_way, &one, &reply), -3) << "client without sync";
  pavo_ipc_client_destroy(one_way);
  EXPECT_EQ(pavo_ipc_client_create(p.key(), 1, 1, kN, nullptr), -3);
  EXPECT_EQ(pavo_ipc_client_destroy(nullptr), -3);
  EXPECT_EQ(pavo_ipc_server_destroy(nullptr), -3);
  EXPECT_EQ(pavo_ipc_server_register_callback(nullptr, echo, nullptr), -3);
  EXPECT_EQ(pavo_ipc_server_unregister_callback(nullptr), -3);

  std::this_thread::sleep_for(50ms);
  EXPECT_EQ(rec.count(), 0u) << "nothing refused may reach the server";
}

TEST(Lifecycle, ClientCreatedBeforeItsServerWorksOnceTheQueuesExist) {
  ScopedQueues queues(unique_key());
  pavo_ipc_client* client = nullptr;
  ASSERT_EQ(pavo_ipc_client_create(queues.key(), 1, 1, kN, &client), 0);
  pavo_ipc_msg m = msg_of("early"), reply{0, nullptr};
  EXPECT_EQ(pavo_ipc_client_send(client, &m), -3);
  EXPECT_EQ(pavo_ipc_client_send_sync_with_params(client, &m, &reply), -3);

  pavo_ipc_server* server = nullptr;
  ASSERT_EQ(pavo_ipc_server_create(queues.key(), 1, 1, kN, &server), 0);
  Recorder rec;
  ASSERT_EQ(pavo_ipc_server_register_callback(server, echo, &rec), 0);
  EXPECT_EQ(pavo_ipc_client_send(client, &m), 0);
  ASSERT_EQ(pavo_ipc_client_send_sync_with_params(client, &m, &reply), 0);
  EXPECT_STREQ(reply.data, "echo:early");
  std::free(reply.data);
  EXPECT_EQ(rec.seen(), (std::vector<std::string>{"early", "early"}));
  pavo_ipc_server_destroy(server);
  pavo_ipc_client_destroy(client);
}

TEST(Lifecycle, OneWayMessagesReachTheCallbackInOrder) {
  Pair p(0);
  Recorder rec;
  ASSERT_EQ(pavo_ipc_server_register_callback(p.server, record_only, &rec), 0);
  std::vector<std::string> sent;
  for (int i = 0; i < 20; ++i) {
    sent.push_back("message " + std::to_string(i) + std::string(i * 500, '.'));
    pavo_ipc_msg m = msg_of(sent.back());
    ASSERT_EQ(pavo_ipc_client_send(p.client, &m), 0);
  }
  ASSERT_TRUE(wait_until([&] { return rec.count() == sent.size(); }));
  EXPECT_EQ(rec.seen(), sent);
}

TEST(Lifecycle, ServerWithoutSyncIgnoresRequests) {
  Pair p(0);
  ASSERT_EQ(msgget(p.key() + 1, IPC_CREAT | 0666) >= 0, true);  // so the client can open it
  pavo_ipc_client* requester = nullptr;
  ASSERT_EQ(pavo_ipc_client_create(p.key(), 1, 1, kN, &requester), 0);
  Recorder rec;
  ASSERT_EQ(pavo_ipc_server_register_callback(p.server, echo, &rec), 0);
  pavo::test::ReplyTimeoutOverride short_wait(300ms);
  pavo_ipc_msg m = msg_of("anyone?");
  pavo_ipc_msg reply{0, nullptr};
  pavo::test::OutputCapture err(2);
  EXPECT_EQ(pavo_ipc_client_send_sync_with_params(requester, &m, &reply), -1);
  EXPECT_EQ(reply.data, nullptr);
  EXPECT_EQ(rec.count(), 0u);
  pavo_ipc_client_destroy(requester);
}

TEST(Lifecycle, ExitMessageIsDeliveredThenEndsTheThread) {
  Pair p(1);
  Recorder rec;
  ASSERT_EQ(pavo_ipc_server_register_callback(p.server, record_only, &rec), 0);
  pavo_ipc_msg exit_msg = msg_of("exit now"), after = msg_of("after exit");
  ASSERT_EQ(pavo_ipc_client_send(p.client, &exit_msg), 0);
  ASSERT_TRUE(wait_until([&] { return rec.count() == 1; }));
  ASSERT_EQ(pavo_ipc_client_send(p.client, &after), 0);
  std::this_thread::sleep_for(100ms);
  EXPECT_EQ(rec.seen(), std::vector<std::string>{"exit now"});

  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(pavo_ipc_server_destroy(p.server), 0);
  p.server = nullptr;
  EXPECT_LT(std::chrono::steady_clock::now() - start, 500ms) << "an ended thread is not waited for";
  EXPECT_EQ(pavo::test::queued_messages(p.key()), 1) << "only the unread message, no stop frame";
}

TEST(Lifecycle, OnlyAnEmptyStopFrameStopsTheThread) {
  Pair p(1);
  Recorder rec;
  ASSERT_EQ(pavo_ipc_server_register_callback(p.server, record_only, &rec), 0);
  const int qid = msgget(p.key(), 0);
  pavo_ipc_msg not_empty = msg_of("x"), probe = msg_of("still here");
  ASSERT_EQ(ipc_snd_internal(qid, 1, kN, &not_empty, 0), 0);
  ASSERT_EQ(pavo_ipc_client_send(p.client, &probe), 0);
  ASSERT_TRUE(wait_until([&] { return rec.count() == 1; }));

  std::string empty;
  pavo_ipc_msg stop = msg_of(empty);
  ASSERT_EQ(ipc_snd_internal(qid, 1, kN, &stop, 0), 0);
  ASSERT_TRUE(wait_until([&] { return pavo::test::queued_messages(p.key()) == 0; }));
  ASSERT_EQ(pavo_ipc_client_send(p.client, &probe), 0);
  std::this_thread::sleep_for(100ms);
  EXPECT_EQ(rec.count(), 1u) << "the stop frame ended the thread";
}

TEST(Lifecycle, RegistrationReplacesAndUnregistrationSilences) {
  Pair p;
  Recorder a, b;
  ASSERT_EQ(pavo_ipc_server_register_callback(p.server, echo, &a), 0);
  ASSERT_EQ(pavo_ipc_server_register_callback(p.server, echo, &a), 0);
  EXPECT_EQ(p.request("1").text, "echo:1");
  ASSERT_EQ(pavo_ipc_server_register_callback(p.server, echo, &b), 0);
  EXPECT_EQ(p.request("2").text, "echo:2");
  ASSERT_EQ(pavo_ipc_server_unregister_callback(p.server), 0);
  EXPECT_EQ(p.request("3").text, "a");
  EXPECT_EQ(a.seen(), std::vector<std::string>{"1"});
  EXPECT_EQ(b.seen(), std::vector<std::string>{"2"});
}

// One request in flight per handle: every caller gets its own reply.
TEST(Concurrency, ManyCallersOnOneHandleEachGetTheirOwnReply) {
  Pair p;
  ASSERT_EQ(pavo_ipc_server_register_callback(p.server, echo, nullptr), 0);
  constexpr int kThreads = 6, kEach = 40;
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kEach; ++i) {
        const std::string text = std::to_string(t) + "/" + std::to_string(i) + std::string(t * 700, '-');
        auto r = p.request(text);
        if (r.rc != 0 || r.text != "echo:" + text) ++wrong;
      }
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(wrong.load(), 0);
}

// A callback that outlives the stop wait is cancelled; destroy returns only
// after the thread has ended (ASan would see a use after free otherwise).
TEST(Destroy, StuckCallbackIsCancelledAndWaitedFor) {
  Pair p(0);
  static std::atomic<bool> entered;
  entered = false;
  auto stuck = [](pavo_ipc_msg*, void*) -> pavo_ipc_msg* {
    entered = true;
    for (;;) std::this_thread::sleep_for(10ms);  // a cancellation point
  };
  ASSERT_EQ(pavo_ipc_server_register_callback(p.server, stuck, nullptr), 0);
  pavo_ipc_msg m = msg_of("hang");
  ASSERT_EQ(pavo_ipc_client_send(p.client, &m), 0);
  ASSERT_TRUE(wait_until([] { return entered.load(); }));
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(pavo_ipc_server_destroy(p.server), 0);
  p.server = nullptr;
  const auto took = std::chrono::steady_clock::now() - start;
  EXPECT_GE(took, 900ms);
  EXPECT_LT(took, 3s);
}

TEST(Destroy, RemovedQueueEndsTheThreadWithoutSpinning) {
  Pair p(1);
  pavo::test::OutputCapture err(2);
  pavo::test::remove_queue(p.key());
  std::this_thread::sleep_for(200ms);
  const std::string printed = err.text();
  EXPECT_NE(printed.find("was removed"), std::string::npos) << printed;
  EXPECT_LT(printed.size(), 400u) << "the failure is reported once, not in a loop";
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(pavo_ipc_server_destroy(p.server), 0);
  p.server = nullptr;
  EXPECT_LT(std::chrono::steady_clock::now() - start, 500ms);
}

TEST(Destroy, ClientRecoversWhenTheServerRecreatesItsQueues) {
  ScopedQueues queues(unique_key());
  pavo_ipc_server* server = nullptr;
  pavo_ipc_client* client = nullptr;
  ASSERT_EQ(pavo_ipc_server_create(queues.key(), 1, 1, kN, &server), 0);
  ASSERT_EQ(pavo_ipc_server_register_callback(server, echo, nullptr), 0);
  ASSERT_EQ(pavo_ipc_client_create(queues.key(), 1, 1, kN, &client), 0);
  pavo_ipc_msg m = msg_of("one");
  pavo_ipc_msg reply{0, nullptr};
  ASSERT_EQ(pavo_ipc_client_send_sync_with_params(client, &m, &reply), 0);
  std::free(reply.data);

  pavo::test::OutputCapture err(2);
  pavo_ipc_server_destroy(server);
  pavo::test::remove_queue(queues.key());
  pavo::test::remove_queue(queues.key() + 1);
  EXPECT_EQ(pavo_ipc_client_send_sync_with_params(client, &m, &reply), -1) << "the queue is gone";
  ASSERT_EQ(pavo_ipc_server_create(queues.key(), 1, 1, kN, &server), 0);
  ASSERT_EQ(pavo_ipc_server_register_callback(server, echo, nullptr), 0);
  ASSERT_EQ(pavo_ipc_client_send_sync_with_params(client, &m, &reply), 0) << "reopened at the next send";
  EXPECT_STREQ(reply.data, "echo:one");
  std::free(reply.data);
  pavo_ipc_server_destroy(server);
  pavo_ipc_client_destroy(client);
}

}  // namespace
