// Client and server ends: exchanges, the no-reply answer, stop orders, late
// clients, the bounded wait for a reply and the failure paths of the receive
// thread. (Many callers on one handle: tests/mediaplayer_ipc/events_test.cc.)
#include <gtest/gtest.h>
#include <sys/msg.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "pavo_ipc.h"
#include "support/emulation.h"
#include "support/output_capture.h"
#include "support/reply_timeout_override.h"
#include "support/test_queues.h"

namespace {

using pavo::test::OutputCapture;
using pavo::test::ScopedQueues;
using pavo::test::unique_key;
using pavo::test::wait_until;
using pavo::test::WireFrame;
using namespace std::chrono_literals;

constexpr uint32_t kN = pavo::test::kWireChunk;
char* const kUntouched = reinterpret_cast<char*>(0x1);

// The message refers to the text: literals, or strings that outlive it.
pavo_ipc_msg msg_of(const char* literal) {
  return pavo_ipc_msg{static_cast<uint32_t>(std::strlen(literal)), const_cast<char*>(literal)};
}
pavo_ipc_msg msg_of(std::string& s) { return pavo_ipc_msg{static_cast<uint32_t>(s.size()), s.data()}; }

pavo_ipc_msg* make_reply(const std::string& text) {
  return new pavo_ipc_msg{static_cast<uint32_t>(text.size()), strdup(text.c_str())};
}

// What a server callback saw: exactly `len` bytes of each message.
struct Recorder {
  std::mutex mu;
  std::vector<std::string> texts;
  std::vector<std::string> seen() {
    std::lock_guard<std::mutex> lock(mu);
    return texts;
  }
};

pavo_ipc_msg* record(pavo_ipc_msg* m, void* user) {
  auto* rec = static_cast<Recorder*>(user);
  std::lock_guard<std::mutex> lock(rec->mu);
  rec->texts.emplace_back(m->data, m->len);
  return nullptr;
}

// Answers "echo:<text>"; for a text "slow N", only after N ms. For a one-way
// message (its text starts with '~') it returns a record of its own, which
// the server must ignore, not release.
pavo_ipc_msg* echo(pavo_ipc_msg* m, void* user) {
  if (user) record(m, user);
  static char kept_text[] = "kept";
  static pavo_ipc_msg kept{4, kept_text};
  if (m->data[0] == '~') return &kept;
  int delay_ms = 0;
  if (std::sscanf(m->data, "slow %d", &delay_ms) == 1) std::this_thread::sleep_for(delay_ms * 1ms);
  return make_reply(std::string("echo:") + m->data);  // relies on the terminating NUL
}

struct Result {
  int rc;
  std::string text;  // the reply; on failure "<rc null>" or "<rc untouched>" for reply_out->data
  uint32_t len;
  std::chrono::steady_clock::duration took;
};

Result request(pavo_ipc_client* client, std::string text, uint32_t preset_len = 7777) {
  pavo_ipc_msg req = msg_of(text), reply{preset_len, kUntouched};
  const auto start = std::chrono::steady_clock::now();
  Result r{pavo_ipc_client_send_sync_with_params(client, &req, &reply), "", 0, {}};
  r.took = std::chrono::steady_clock::now() - start;
  r.len = reply.len;
  if (r.rc == 0) {
    r.text = reply.data;
    std::free(reply.data);
  } else {
    r.text = "<" + std::to_string(r.rc) +
             (reply.data == nullptr ? " null>" : reply.data == kUntouched ? " untouched>" : " garbage>");
  }
  return r;
}

// Puts one final frame straight on queue `key`, claiming `total_len` bytes.
void put_frame(key_t key, uint32_t kind, const std::string& text, uint32_t total_len) {
  WireFrame f{1, kind, total_len, 1, 1, 1, 0, static_cast<uint32_t>(text.size()), {}};
  std::memcpy(f.payload, text.data(), text.size());
  ASSERT_EQ(msgsnd(msgget(key, 0), &f, kN + 32, 0), 0);
}

// A server and a client of one key pair, torn down in the right order. A
// server without sync ignores requests.
struct Pair {
  explicit Pair(int sync = 1) : queues(unique_key()) {
    EXPECT_EQ(pavo_ipc_server_create(queues.key(), 1, sync, kN, &server), 0);
    EXPECT_EQ(pavo_ipc_client_create(queues.key(), 1, sync, kN, &client), 0);
  }
  ~Pair() {
    if (server) pavo_ipc_server_destroy(server);
    pavo_ipc_client_destroy(client);
  }
  key_t key() const { return queues.key(); }
  ScopedQueues queues;
  pavo_ipc_server* server = nullptr;
  pavo_ipc_client* client = nullptr;
};

// One-way messages and requests of every size, up to a reply of the longest
// message, reach the callback in the order sent, and each reply comes back
// with its length; what the callback returns for a one-way message is
// ignored. A reply time-out of 0 waits without limit (no deadline thread).
TEST(Exchange, MessagesAndRepliesOfEverySizeInOrder) {
  pavo::test::ReplyTimeoutOverride no_limit(0ms);
  Pair p;
  Recorder rec;
  ASSERT_EQ(pavo_ipc_server_register_callback(p.server, echo, &rec), 0);
  std::vector<std::string> sent;
  for (size_t len : {1, 1025, 1026, 9000, 16379}) {
    for (int i = 0; i < 5; ++i) {
      sent.push_back("~" + std::to_string(i) + std::string(len, '.'));
      pavo_ipc_msg m = msg_of(sent.back());
      EXPECT_EQ(pavo_ipc_client_send(p.client, &m), 0);
    }
    sent.emplace_back(len, 'q');
    const Result r = request(p.client, sent.back());
    EXPECT_EQ(r.text, "echo:" + sent.back());
    EXPECT_EQ(r.len, len + 5);
  }
  EXPECT_EQ(rec.seen(), sent);
}

// No callback, a null reply, a reply too long to send, a callback that
// throws, an unregistered callback: the requester gets the no-reply answer
// "a" with its len untouched, and the receive thread goes on. Registration
// replaces the callback and its user data.
TEST(Exchange, EveryMissingReplyGivesTheNoReplyAnswer) {
  Pair p;
  // On the wire: one kind-4 frame of "a" and its NUL, of the request's mtype.
  put_frame(p.key(), 2, "hi", 2);
  WireFrame f{};
  ASSERT_EQ(msgrcv(msgget(p.key() + 1, 0), &f, kN + 32, 0, 0), ssize_t{kN + 32});
  EXPECT_EQ(f.mtype, 1);
  EXPECT_EQ(f.header(), (std::vector<uint32_t>{4, 2, 1, 1, 1, 0, 2}));
  EXPECT_EQ(std::memcmp(f.payload, "a\0\0", 3), 0);

  Recorder a, b;
  const struct {
    pavo_ipc_server_callback callback;
    Recorder* user;
    const char* reply;
  } steps[] = {
      {nullptr, nullptr, "a"},
      {[](pavo_ipc_msg*, void*) -> pavo_ipc_msg* { return nullptr; }, nullptr, "a"},
      {[](pavo_ipc_msg*, void*) { return make_reply(std::string(16385, 'z')); }, nullptr, "a"},
      {[](pavo_ipc_msg*, void*) -> pavo_ipc_msg* { throw std::runtime_error("boom"); }, nullptr, "a"},
      {echo, &a, "echo:1"},
      {echo, &a, "echo:2"},  // the same registration again
      {echo, &b, "echo:3"},
      {nullptr, nullptr, "a"},  // unregistered again
  };
  static std::string seen;
  auto on_reply = [](pavo_ipc_msg* reply, int status) {
    seen = std::string(reply->data, reply->len) + "/" + std::to_string(status);
    return 0;
  };
  OutputCapture err(2);
  int i = 0;
  for (const auto& step : steps) {
    SCOPED_TRACE(++i);
    ASSERT_EQ(step.callback ? pavo_ipc_server_register_callback(p.server, step.callback, step.user)
                            : pavo_ipc_server_unregister_callback(p.server),
              0);
    const Result r = request(p.client, std::to_string(i - 4), 41);
    EXPECT_EQ(r.text, step.reply);
    EXPECT_EQ(r.len, r.text == "a" ? 41u : 6u) << "a no-reply answer leaves len as the caller set it";
    seen.clear();
    std::string text = std::to_string(i - 4);
    pavo_ipc_msg req = msg_of(text);
    EXPECT_EQ(pavo_ipc_client_send_sync_with_callback(p.client, &req, on_reply), 0);
    EXPECT_EQ(seen, r.text == "a" ? "" : r.text + "/0") << "the callback sees real replies only";
  }
  EXPECT_EQ(a.seen(), (std::vector<std::string>{"1", "1", "2", "2"}));
  EXPECT_EQ(b.seen(), (std::vector<std::string>{"3", "3"}));
  ASSERT_EQ(pavo_ipc_server_register_callback(p.server, echo, nullptr), 0);
  pavo_ipc_msg req = msg_of("x");
  EXPECT_EQ(pavo_ipc_client_send_sync_with_callback(p.client, &req, nullptr), 0);
  auto throws = [](pavo_ipc_msg*, int) -> int { throw std::runtime_error("reply callback"); };
  EXPECT_EQ(pavo_ipc_client_send_sync_with_callback(p.client, &req, throws), -1);
  EXPECT_EQ(request(p.client, "next").text, "echo:next") << "the handle is free again";
}

TEST(Exchange, BadArgumentsAreRefusedBeforeAnythingIsSent) {
  Pair p;
  Recorder rec;
  ASSERT_EQ(pavo_ipc_server_register_callback(p.server, record, &rec), 0);
  std::string big(16385, 'b');
  pavo_ipc_msg none = msg_of(""), one = msg_of("x"), too_big = msg_of(big), reply{0, kUntouched};
  pavo_ipc_client* one_way = nullptr;
  ASSERT_EQ(pavo_ipc_client_create(p.key(), 1, 0, kN, &one_way), 0);
  const int codes[] = {
      pavo_ipc_client_send(p.client, &none),
      pavo_ipc_client_send(nullptr, &one),
      pavo_ipc_client_send(p.client, nullptr),
      pavo_ipc_client_send(p.client, &too_big),
      pavo_ipc_client_send_sync_with_params(p.client, &none, &reply),
      pavo_ipc_client_send_sync_with_params(p.client, &one, nullptr),
      pavo_ipc_client_send_sync_with_params(one_way, &one, &reply),  // client without sync
      pavo_ipc_client_send_sync_with_params(p.client, &too_big, &reply),
      pavo_ipc_client_send_sync_with_callback(nullptr, &one, nullptr),
      pavo_ipc_client_send_sync_with_callback(p.client, &none, nullptr),
      pavo_ipc_client_create(p.key(), 1, 1, kN, nullptr),
      pavo_ipc_client_destroy(nullptr),
      pavo_ipc_server_create(p.key(), 1, 1, kN, nullptr),
      pavo_ipc_server_destroy(nullptr),
      pavo_ipc_server_register_callback(nullptr, echo, nullptr),
      pavo_ipc_server_unregister_callback(nullptr),
  };
  EXPECT_EQ(std::vector<int>(std::begin(codes), std::end(codes)),
            (std::vector<int>{-3, -3, -3, -1, -3, -3, -3, -1, -3, -3, -3, -3, -3, -3, -3, -3}));
  EXPECT_EQ(reply.data, kUntouched) << "a request that was never sent leaves the reply alone";
  pavo_ipc_client_destroy(one_way);
  std::this_thread::sleep_for(50ms);
  EXPECT_TRUE(rec.seen().empty()) << "nothing refused may reach the server";
}

// A client may come before its server and outlive it: its queues are opened
// at the first send that finds them. Queues removed from the system are
// found again by both ends without a restart: the receive thread makes its
// queues anew (reporting the removal once, not in a loop), and a client send
// that finds its queue removed reopens it and sends once more, with the
// interface's result. With no queue to reopen a send fails with -3.
TEST(Lifecycle, ClientBeforeItsServerAndRemovedQueuesFoundAgain) {
  ScopedQueues queues(unique_key());
  pavo_ipc_client* client = nullptr;
  ASSERT_EQ(pavo_ipc_client_create(queues.key(), 1, 1, kN, &client), 0);
  pavo_ipc_msg early = msg_of("~early");
  EXPECT_EQ(pavo_ipc_client_send(client, &early), -3);
  EXPECT_EQ(request(client, "early").text, "<-3 untouched>");

  OutputCapture err(2);
  Recorder rec;
  pavo_ipc_server* server = nullptr;
  ASSERT_EQ(pavo_ipc_server_create(queues.key(), 1, 1, kN, &server), 0);
  ASSERT_EQ(pavo_ipc_server_register_callback(server, echo, &rec), 0);
  for (int round = 0; round < 3; ++round) {
    SCOPED_TRACE(round);
    EXPECT_EQ(pavo_ipc_client_send(client, &early), 0);
    EXPECT_EQ(request(client, "early").text, "echo:early");
    pavo::test::remove_queue(queues.key() + 1);
    pavo::test::remove_queue(queues.key());
    ASSERT_TRUE(wait_until([&] {
      return pavo::test::queued_messages(queues.key()) == 0 && pavo::test::queued_messages(queues.key() + 1) == 0;
    }));
  }
  std::this_thread::sleep_for(100ms);
  const std::string printed = err.text();
  EXPECT_LT(printed.size(), 600u) << printed;
  EXPECT_NE(printed.find("was removed"), std::string::npos);
  EXPECT_EQ(rec.seen(), (std::vector<std::string>{"~early", "early", "~early", "early", "~early", "early"}));
  EXPECT_EQ(pavo_ipc_server_destroy(server), 0);
  pavo::test::remove_queue(queues.key());
  EXPECT_EQ(pavo_ipc_client_send(client, &early), -3) << "no queue to reopen";
  pavo_ipc_client_destroy(client);
}

// The thread ends after delivering a one-way message that starts with "exit",
// or at a stop frame (kind 0) without text; a stop frame with text and a
// request to a server without sync are ignored. The callback sees no more
// than the bytes that arrived, whatever total_len claims. Destroying a server
// whose thread ended returns at once and sends no stop frame.
TEST(Lifecycle, ExitMessageOrEmptyStopFrameEndsTheThread) {
  for (const bool by_exit : {true, false}) {
    SCOPED_TRACE(by_exit ? "exit" : "stop");
    Pair p(0);
    Recorder rec;
    ASSERT_EQ(pavo_ipc_server_register_callback(p.server, record, &rec), 0);
    put_frame(p.key(), 0, "x", 1);
    put_frame(p.key(), 2, "request", 7);
    put_frame(p.key(), 1, "alive", 9999);
    put_frame(p.key(), by_exit ? 1 : 0, by_exit ? "exit now" : "", by_exit ? 8 : 0);
    put_frame(p.key(), 1, "after", 5);
    ASSERT_TRUE(wait_until([&] { return pavo::test::queued_messages(p.key()) <= 1; }));
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(rec.seen(), (by_exit ? std::vector<std::string>{"alive", "exit now"}
                                   : std::vector<std::string>{"alive"}));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(pavo_ipc_server_destroy(p.server), 0);
    p.server = nullptr;
    EXPECT_LT(std::chrono::steady_clock::now() - start, 500ms);
    EXPECT_EQ(pavo::test::queued_messages(p.key()), 1) << "only \"after\", no stop frame";
  }
}

// A callback that outlives the stop wait is cancelled; destroy returns only
// after the thread has ended (ASan would see a use after free otherwise).
TEST(Destroy, StuckCallbackIsCancelledAndWaitedFor) {
  Pair p(0);
  static std::atomic<bool> entered{false};
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

// Frames carry no request number, so a reply that comes after its request's
// time-out is owed. A wait that ended without its reply makes the handle
// fail at once without sending (the service is silent, with the reply data
// nulled) until the owed reply has come; the caller after it discards it and
// sends. Replies from just before to just after the deadline (either outcome
// of the race) never shift the replies that follow. A forked child starts
// its own deadline watchdog.
TEST(ReplyTimeout, AnOwedReplyIsTakenOffBeforeTheNextRequestGoesOut) {
  pavo::test::ReplyTimeoutOverride short_wait(300ms);
  Recorder rec;  // outlives the server, whose thread may still be in a slow answer
  Pair p;
  ASSERT_EQ(pavo_ipc_server_register_callback(p.server, echo, &rec), 0);
  OutputCapture err(2);
  const auto owed_reply_came = [&] {
    return wait_until([&] { return pavo::test::queued_messages(p.key() + 1) > 0; }, 2s);
  };
  const Result slow = request(p.client, "slow 450");
  EXPECT_EQ(slow.text, "<-1 null>");
  EXPECT_GE(slow.took, 290ms);
  EXPECT_LT(slow.took, 600ms);
  const Result busy = request(p.client, "never sent");
  EXPECT_EQ(busy.text, "<-1 null>") << "the service is still busy";
  EXPECT_LT(busy.took, 100ms);
  ASSERT_TRUE(owed_reply_came());
  EXPECT_EQ(request(p.client, "second").text, "echo:second");
  EXPECT_EQ(rec.seen(), (std::vector<std::string>{"slow 450", "second"}));
  for (int i = 0; i < 6; ++i) {
    if (request(p.client, "slow " + std::to_string(285 + 6 * i)).rc != 0) {
      ASSERT_TRUE(owed_reply_came());
    }
    EXPECT_EQ(request(p.client, "quick " + std::to_string(i)).text, "echo:quick " + std::to_string(i));
  }
  EXPECT_EQ(pavo::test::queued_messages(p.key() + 1), 0);
#if !defined(__SANITIZE_THREAD__)  // TSan does not support threads in the child of a threaded fork,
  if (pavo::test::under_emulator()) return;  // nor does qemu-user
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    alarm(10);
    _exit(request(p.client, "slow 400").text == "<-1 null>" ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
#endif
}

// A deadline frame of another wait on the reply queue, before a handle's
// first request (left by a process that ended during a wait, beside a late
// reply) or between its requests, is never taken for a reply.
TEST(ReplyTimeout, AStaleDeadlineFrameIsNeverTakenForAReply) {
  Pair p;
  ASSERT_EQ(pavo_ipc_server_register_callback(p.server, echo, nullptr), 0);
  for (const bool before_first : {true, false}) {
    SCOPED_TRACE(before_first);
    pavo_ipc_client* client = nullptr;
    ASSERT_EQ(pavo_ipc_client_create(p.key(), 1, 1, kN, &client), 0);
    if (!before_first) {
      EXPECT_EQ(request(client, "open").text, "echo:open");
    }
    put_frame(p.key() + 1, 5, std::string("\x11\x22\x33\x44\x55\x66\x77\x08", 8), 8);
    if (before_first) put_frame(p.key() + 1, 3, "late", 4);
    EXPECT_EQ(request(client, "first").text, "echo:first");
    EXPECT_EQ(pavo::test::queued_messages(p.key() + 1), 0);
    pavo_ipc_client_destroy(client);
  }
}

// A reply longer than 16384 bytes fails its request, and the rest of its
// frames is taken off the queue: the requests after it get their own
// replies, not its tail or each other's. (The other ways a message is cut
// short share the same reassembly: framing_test.cc.)
TEST(Exchange, AReplyCutShortLeavesNothingForTheNextRequest) {
  pavo::test::ReplyTimeoutOverride short_wait(300ms);  // a reply taken for owed fails fast
  ScopedQueues queues(unique_key());
  const int requests = msgget(queues.key(), IPC_CREAT | 0666);
  const int replies = msgget(queues.key() + 1, IPC_CREAT | 0666);
  std::thread service([&] {  // the transport's framing without its length check
    WireFrame f;
    uint32_t capacity = kN + 1;
    char* text = static_cast<char*>(std::malloc(capacity));
    for (int i = 0; i < 3 && ipc_rcv_internal(requests, 1, kN, &f, &text, &capacity) == 0; ++i) {
      std::string reply = i == 0 ? std::string(17 * (kN + 1), 'r') : std::string("re:") + text;
      pavo_ipc_msg m = msg_of(reply);
      EXPECT_EQ(ipc_snd_internal(replies, 1, kN, &m, 3), 0);
    }
    std::free(text);
  });
  pavo_ipc_client* client = nullptr;
  ASSERT_EQ(pavo_ipc_client_create(queues.key(), 1, 1, kN, &client), 0);
  OutputCapture err(2);
  EXPECT_EQ(request(client, "long").text, "<-1 null>");
  EXPECT_EQ(request(client, "two").text, "re:two");
  EXPECT_EQ(request(client, "three").text, "re:three");
  pavo::test::remove_queue(queues.key());  // ends the service's receive in any case
  service.join();
  EXPECT_EQ(pavo::test::queued_messages(queues.key() + 1), 0);
  pavo_ipc_client_destroy(client);
}

}  // namespace
