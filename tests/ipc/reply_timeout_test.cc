// The bounded wait for a reply: a silent peer costs one time-out, and a reply
// that arrives late is never taken for the reply of a later request.
#include <gtest/gtest.h>
#include <sys/msg.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "pavo_ipc.h"
#include "support/emulation.h"
#include "support/output_capture.h"
#include "support/reply_timeout_override.h"
#include "support/test_queues.h"

namespace {

using namespace std::chrono_literals;
using pavo::test::ScopedQueues;
using pavo::test::unique_key;

constexpr uint32_t kN = 1024;

class ReplyTimeout : public ::testing::Test {
 protected:
  pavo::test::ReplyTimeoutOverride short_wait_{300ms};

  struct Result {
    int rc;
    std::string text;
    std::chrono::steady_clock::duration took;
  };
  static Result request(pavo_ipc_client* client, const std::string& text) {
    pavo_ipc_msg req{static_cast<uint32_t>(text.size()), const_cast<char*>(text.data())};
    pavo_ipc_msg reply{0, reinterpret_cast<char*>(0x1)};
    const auto start = std::chrono::steady_clock::now();
    Result r{pavo_ipc_client_send_sync_with_params(client, &req, &reply), "", {}};
    r.took = std::chrono::steady_clock::now() - start;
    if (r.rc == 0) {
      r.text = reply.data;
      std::free(reply.data);
    } else {
      EXPECT_EQ(reply.data, nullptr);
    }
    return r;
  }
};

// The server answers its first request only after the client gave up.
pavo_ipc_msg* slow_first_answer(pavo_ipc_msg* m, void* user) {
  auto* calls = static_cast<std::atomic<int>*>(user);
  if (calls->fetch_add(1) == 0) std::this_thread::sleep_for(500ms);
  auto* reply = new pavo_ipc_msg;
  const std::string text = std::string("reply to ") + m->data;
  reply->data = strdup(text.c_str());
  reply->len = static_cast<uint32_t>(text.size());
  return reply;
}

TEST_F(ReplyTimeout, SilentPeerCostsOneTimeOut) {
  ScopedQueues queues(unique_key());
  ASSERT_GE(msgget(queues.key(), IPC_CREAT | 0666), 0);  // queues exist, nobody reads
  ASSERT_GE(msgget(queues.key() + 1, IPC_CREAT | 0666), 0);
  pavo_ipc_client* client = nullptr;
  ASSERT_EQ(pavo_ipc_client_create(queues.key(), 1, 1, kN, &client), 0);
  pavo::test::OutputCapture err(2);
  for (int i = 0; i < 2; ++i) {
    Result r = request(client, "hello?");
    EXPECT_EQ(r.rc, -1);
    EXPECT_GE(r.took, 290ms);
    EXPECT_LT(r.took, 2s);
  }
  EXPECT_NE(err.text().find("no reply on queue key"), std::string::npos);
  pavo_ipc_client_destroy(client);
}

TEST_F(ReplyTimeout, LateReplyIsNeverTakenForTheNextOne) {
  ScopedQueues queues(unique_key());
  pavo_ipc_server* server = nullptr;
  pavo_ipc_client* client = nullptr;
  std::atomic<int> calls{0};
  ASSERT_EQ(pavo_ipc_server_create(queues.key(), 1, 1, kN, &server), 0);
  ASSERT_EQ(pavo_ipc_server_register_callback(server, slow_first_answer, &calls), 0);
  ASSERT_EQ(pavo_ipc_client_create(queues.key(), 1, 1, kN, &client), 0);

  pavo::test::OutputCapture err(2);
  EXPECT_EQ(request(client, "first").rc, -1);
  std::this_thread::sleep_for(400ms);  // the late reply is in the queue now
  Result second = request(client, "second");
  EXPECT_EQ(second.rc, 0);
  EXPECT_EQ(second.text, "reply to second");
  EXPECT_EQ(request(client, "third").text, "reply to third");
  EXPECT_EQ(pavo::test::queued_messages(queues.key() + 1), 0);

  pavo_ipc_server_destroy(server);
  pavo_ipc_client_destroy(client);
}

// The deadline frame that loses the race against a real reply is drained too.
TEST_F(ReplyTimeout, ReplyJustAtTheDeadlineLeavesNothingBehind) {
  ScopedQueues queues(unique_key());
  pavo_ipc_server* server = nullptr;
  pavo_ipc_client* client = nullptr;
  ASSERT_EQ(pavo_ipc_server_create(queues.key(), 1, 1, kN, &server), 0);
  auto near_deadline = [](pavo_ipc_msg* m, void*) {
    int delay_ms = 0;
    if (std::sscanf(m->data, "slow %d", &delay_ms) == 1) {
      std::this_thread::sleep_for(std::chrono::milliseconds(delay_ms));
    }
    auto* reply = new pavo_ipc_msg;
    reply->data = strdup(m->data);
    reply->len = static_cast<uint32_t>(std::strlen(m->data));
    return reply;
  };
  ASSERT_EQ(pavo_ipc_server_register_callback(server, near_deadline, nullptr), 0);
  ASSERT_EQ(pavo_ipc_client_create(queues.key(), 1, 1, kN, &client), 0);
  pavo::test::OutputCapture err(2);
  for (int i = 0; i < 6; ++i) {
    // Replies from just before to just after the deadline: either outcome of
    // the race is fine, but what follows must be right.
    request(client, "slow " + std::to_string(285 + 6 * i));
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(request(client, "quick " + std::to_string(i)).text, "quick " + std::to_string(i));
  }
  pavo_ipc_server_destroy(server);
  pavo_ipc_client_destroy(client);
}

// A forked child starts its own watchdog: its waits are bounded too.
TEST_F(ReplyTimeout, ForkedChildWaitsAreBounded) {
#if defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "ThreadSanitizer does not support threads in the child of a multi-threaded fork";
#endif
  if (pavo::test::under_emulator()) {
    GTEST_SKIP() << "qemu-user cannot start threads in the child of a multi-threaded fork";
  }
  ScopedQueues queues(unique_key());
  ASSERT_GE(msgget(queues.key(), IPC_CREAT | 0666), 0);
  ASSERT_GE(msgget(queues.key() + 1, IPC_CREAT | 0666), 0);
  pavo_ipc_client* client = nullptr;
  ASSERT_EQ(pavo_ipc_client_create(queues.key(), 1, 1, kN, &client), 0);
  pavo::test::OutputCapture err(2);
  EXPECT_EQ(request(client, "parent").rc, -1);  // the parent's watchdog runs now
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    alarm(10);
    _exit(request(client, "child").rc == -1 ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
  pavo_ipc_client_destroy(client);
}

}  // namespace
