// Who the service is: services, bystanders and reused process ids as
// processes of the test's own. A process that only reads the request queue
// never counts as a restarted service, and a process that got the id of the
// service that ended is not taken for it.
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/msg.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>

#include "ipc/peer_generation.h"
#include "pavo_ipc.h"
#include "support/emulation.h"
#include "support/reply_timeout_override.h"
#include "support/test_queues.h"

namespace {

using namespace std::chrono_literals;
using pavo::ipc::client_peer_ended;
using pavo::ipc::client_peer_generation;

constexpr uint32_t kN = pavo::test::kWireChunk;
constexpr long kBystanderType = 99;

pid_t spawn(const std::function<void()>& body) {
  std::fflush(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    body();
    _exit(0);
  }
  return pid;
}

void make_queues(key_t key) {
  msgget(key, IPC_CREAT | 0666);
  msgget(key + 1, IPC_CREAT | 0666);
}

void end_process(pid_t pid) {
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
}

// A process that only reads the request queue: it takes its own messages
// (type 99) off it whenever one comes.
pid_t start_bystander(key_t key) {
  return spawn([key] {
    const int requests = msgget(key, IPC_CREAT | 0666);
    long message[2];
    for (;;) msgrcv(requests, message, sizeof message - sizeof(long), kBystanderType, MSG_NOERROR);
  });
}

// A service process named `name`: answers each request "<name>:<text>". For
// "bystander" it first has the bystander read the request queue (so that
// the bystander is its last reader when the reply arrives); at "exit" it
// ends without answering.
pid_t start_service(key_t key, char name) {
  return spawn([key, name] {
    const int requests = msgget(key, IPC_CREAT | 0666);
    const int replies = msgget(key + 1, IPC_CREAT | 0666);
    pavo::test::WireFrame frame;
    uint32_t capacity = kN + 1;
    char* text = static_cast<char*>(std::malloc(capacity));
    while (ipc_rcv_internal(requests, 1, kN, &frame, &text, &capacity) == 0) {
      if (std::strcmp(text, "exit") == 0) _exit(0);
      if (std::strcmp(text, "bystander") == 0) {
        long message[2] = {kBystanderType, 0};
        msgsnd(requests, message, sizeof message - sizeof(long), 0);
        msqid_ds ds{};
        for (int i = 0; i < 2000 && msgctl(requests, IPC_STAT, &ds) == 0 && ds.msg_lrpid == getpid(); ++i) {
          usleep(1000);
        }
      }
      std::string reply = std::string(1, name) + ":" + text;
      pavo_ipc_msg m{static_cast<uint32_t>(reply.size()), reply.data()};
      ipc_snd_internal(replies, 1, kN, &m, 3);
    }
    _exit(0);
  });
}

std::string request(pavo_ipc_client* client, std::string text) {
  pavo_ipc_msg req{static_cast<uint32_t>(text.size()), text.data()}, reply{0, nullptr};
  const int rc = pavo_ipc_client_send_sync_with_params(client, &req, &reply);
  if (rc != 0) return "<" + std::to_string(rc) + ">";
  std::string answer = reply.data;
  std::free(reply.data);
  return answer;
}

// A service restart counts only when the service that answered before has
// ended and another process answers; a bystander that reads the request
// queue (while the service lives, or in the instant of a restarted
// service's first answer) is never taken for the service.
TEST(HostilePeers, AReaderOfTheRequestQueueIsNotARestart) {
  pavo::test::ScopedQueues queues(pavo::test::unique_key());
  make_queues(queues.key());
  const pid_t bystander = start_bystander(queues.key());
  pid_t service = 0;
  char name = 0;
  pavo_ipc_client* client = nullptr;
  ASSERT_EQ(pavo_ipc_client_create(queues.key(), 1, 1, kN, &client), 0);
  const struct {
    char start;  // a service to start first, after killing the one before
    const char* text;
    unsigned generation;
    bool confirmed;  // the answering service is known: it has not ended
  } steps[] = {
      {'A', "one", 0, true},
      {0, "bystander", 0, true},   // read while the service lives
      {'B', "two", 1, true},       // the service restarted
      {'C', "bystander", 1, false},  // read while a restarted service answers for the first time
      {0, "three", 2, true},
      {0, "bystander", 2, true},
  };
  for (const auto& step : steps) {
    SCOPED_TRACE(step.text);
    if (step.start != 0) {
      if (service != 0) {
        end_process(service);
        EXPECT_TRUE(client_peer_ended(client)) << "the service that answered has ended";
      }
      service = start_service(queues.key(), name = step.start);
    }
    EXPECT_EQ(request(client, step.text), std::string(1, name) + ":" + step.text);
    EXPECT_EQ(client_peer_generation(client), step.generation);
    if (step.confirmed) {
      EXPECT_FALSE(client_peer_ended(client));
    }
  }
  end_process(bystander);
  EXPECT_FALSE(client_peer_ended(client)) << "the bystander was never the service";
  end_process(service);
  EXPECT_TRUE(client_peer_ended(client));
  pavo_ipc_client_destroy(client);
}

// Run as the init process of a private pid namespace: the service dies in
// the middle of a request and an unrelated process is given its process id.
// The service that ended is still told ended, and a new service is found at
// the next call. Returns what it saw, as one line.
std::string reuse_the_ended_service_id(key_t key) {
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
      mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) != 0) {
    return "no /proc of its own";
  }
  make_queues(key);
  pavo_ipc_client* client = nullptr;
  if (pavo_ipc_client_create(key, 1, 1, kN, &client) != 0) return "no client";
  const pid_t first = start_service(key, 'A');
  std::string seen = request(client, "one");
  seen += " " + request(client, "exit");
  waitpid(first, nullptr, 0);
  FILE* last_pid = std::fopen("/proc/sys/kernel/ns_last_pid", "w");
  if (last_pid == nullptr) return "ns_last_pid cannot be written";
  std::fprintf(last_pid, "%d", static_cast<int>(first) - 1);
  std::fclose(last_pid);
  if (spawn([] { pause(); }) != first) return "the id was not given again";
  seen += client_peer_ended(client) ? " ended" : " lives";
  start_service(key, 'B');
  seen += " " + request(client, "two");
  seen += " " + std::to_string(client_peer_generation(client));
  seen += client_peer_ended(client) ? " ended" : " lives";
  return seen;  // the namespace's processes end with its init
}

TEST(HostilePeers, AnEndedServiceIsNotConfusedWithTheNextHolderOfItsId) {
#if defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "ThreadSanitizer does not support threads in the child of a threaded fork";
#endif
  if (pavo::test::under_emulator()) GTEST_SKIP() << "no pid namespaces under the emulator";
  pavo::test::ReplyTimeoutOverride bound(2s);
  pavo::test::ScopedQueues queues(pavo::test::unique_key());
  int out[2];
  ASSERT_EQ(pipe(out), 0);
  const key_t key = queues.key();
  const pid_t child = spawn([&] {
    close(out[0]);
    std::string seen = "no pid namespace (not root?)";
    if (unshare(CLONE_NEWPID | CLONE_NEWNS) == 0) {
      const pid_t init = spawn([&] {
        seen = reuse_the_ended_service_id(key);
        if (write(out[1], seen.data(), seen.size())) _exit(0);
      });
      waitpid(init, nullptr, 0);
    } else if (write(out[1], seen.data(), seen.size())) {
      _exit(0);
    }
  });
  close(out[1]);
  std::string seen;
  char buffer[256];
  for (ssize_t n; (n = read(out[0], buffer, sizeof buffer)) > 0;) seen.append(buffer, static_cast<std::size_t>(n));
  close(out[0]);
  waitpid(child, nullptr, 0);
  if (seen.rfind("no ", 0) == 0) GTEST_SKIP() << seen;
  EXPECT_EQ(seen, "A:one <-1> ended B:two 1 lives");
}

}  // namespace
