// Client and server in two real processes, as in the field.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "pavo_ipc.h"
#include "support/test_queues.h"

namespace {

constexpr uint32_t kN = 1024;

pavo_ipc_msg* reverse_echo(pavo_ipc_msg* m, void*) {
  std::string text(m->data, m->len);
  text.assign(text.rbegin(), text.rend());
  auto* reply = new pavo_ipc_msg;
  reply->data = strdup(text.c_str());
  reply->len = static_cast<uint32_t>(text.size());
  return reply;
}

// Runs a reversing echo server in a child process.
pid_t start_server(key_t key, int sync_pipe_write) {
  const pid_t pid = fork();
  if (pid != 0) return pid;
  alarm(30);
  pavo_ipc_server* server = nullptr;
  if (pavo_ipc_server_create(key, 7, 1, kN, &server) != 0) _exit(2);
  pavo_ipc_server_register_callback(server, reverse_echo, nullptr);
  char ready = 'r';
  if (write(sync_pipe_write, &ready, 1) != 1) _exit(3);
  for (;;) pause();  // serve until the parent kills this process
}

TEST(TwoProcesses, RequestsOfEverySizeCrossAndComeBack) {
  pavo::test::ScopedQueues queues(pavo::test::unique_key());
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  const pid_t child = start_server(queues.key(), fds[1]);
  ASSERT_GT(child, 0);
  close(fds[1]);  // a child that dies before it is ready ends the read
  char ready = 0;
  ASSERT_EQ(read(fds[0], &ready, 1), 1) << "the server process did not start";

  pavo_ipc_client* client = nullptr;
  ASSERT_EQ(pavo_ipc_client_create(queues.key(), 7, 1, kN, &client), 0);
  for (size_t len : {size_t{1}, size_t{1025}, size_t{1026}, size_t{9000}, size_t{16384}}) {
    std::string text(len, '\0');
    for (size_t i = 0; i < len; ++i) text[i] = static_cast<char>('a' + i % 26);
    pavo_ipc_msg req{static_cast<uint32_t>(len), text.data()};
    pavo_ipc_msg reply{0, nullptr};
    ASSERT_EQ(pavo_ipc_client_send_sync_with_params(client, &req, &reply), 0) << len;
    EXPECT_EQ(reply.len, len);
    EXPECT_EQ(std::string(reply.data), std::string(text.rbegin(), text.rend()));
    std::free(reply.data);
  }
  pavo_ipc_client_destroy(client);
  kill(child, SIGKILL);
  int status = 0;
  waitpid(child, &status, 0);
  close(fds[0]);
}

}  // namespace
