// pavo-ipc-demo: a server and a client of the message-queue transport in two
// processes. The child process runs a server that answers every request with
// a summary of what it received; the parent sends one-way messages and
// synchronous requests of several sizes and prints what crossed, with the
// frame counts and round-trip times.
//
// Usage: pavo-ipc-demo [--key 0xKEY] [--rounds N]
// Exit status: 0 when every message crossed intact, 1 otherwise, 2 for bad usage.
#include <sys/msg.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "pavo_ipc.h"

namespace {

constexpr uint32_t kChunkSize = 1024;
constexpr int kMsgType = 1;

// FNV-1a: a short fingerprint of a text, so both sides can show they agree.
uint32_t fingerprint(const char* data, size_t len) {
  uint32_t h = 2166136261u;
  for (size_t i = 0; i < len; ++i) h = (h ^ static_cast<unsigned char>(data[i])) * 16777619u;
  return h;
}

size_t frames_for(size_t len) { return std::max<size_t>(1, (len + kChunkSize) / (kChunkSize + 1)); }

// Server side: answers "<bytes> bytes, fingerprint <hex>"; prints one-way messages.
pavo_ipc_msg* answer(pavo_ipc_msg* message, void*) {
  char text[96];
  std::snprintf(text, sizeof text, "%u bytes, fingerprint %08x", message->len,
                fingerprint(message->data, message->len));
  auto* reply = new pavo_ipc_msg;
  reply->data = strdup(text);
  reply->len = static_cast<uint32_t>(std::strlen(text));
  return reply;
}

pavo_ipc_msg* show(pavo_ipc_msg* message, void*) {
  std::printf("  [server pid %d] one-way message of %u bytes: \"%.40s\"\n", getpid(), message->len,
              message->data);
  std::fflush(stdout);
  return nullptr;
}

// Serves until the parent closes its end of the stop pipe.
[[noreturn]] void run_server(key_t key, int ready_fd, int stop_fd) {
  pavo_ipc_server* requests = nullptr;
  pavo_ipc_server* notices = nullptr;
  int rc = pavo_ipc_server_create(key, kMsgType, 1, kChunkSize, &requests);
  if (rc == 0) rc = pavo_ipc_server_create(key + 2, kMsgType, 0, kChunkSize, &notices);
  if (rc != 0) {
    std::fprintf(stderr, "server: cannot create the queues (%d)\n", rc);
    _exit(1);
  }
  pavo_ipc_server_register_callback(requests, answer, nullptr);
  pavo_ipc_server_register_callback(notices, show, nullptr);
  const char ready = 'r';
  if (write(ready_fd, &ready, 1) != 1) _exit(1);
  char stop = 0;
  while (read(stop_fd, &stop, 1) > 0) {
  }
  pavo_ipc_server_destroy(requests);
  pavo_ipc_server_destroy(notices);
  _exit(0);
}

void remove_queue(key_t key) {
  const int id = msgget(key, 0);
  if (id >= 0) msgctl(id, IPC_RMID, nullptr);
}

std::string sample_text(size_t len) {
  std::string s(len, ' ');
  const char words[] = "broadband media over message queues ";
  for (size_t i = 0; i < len; ++i) s[i] = words[i % (sizeof words - 1)];
  return s;
}

}  // namespace

int main(int argc, char** argv) {
  key_t key = 0x7a1f0000 + (getpid() & 0xfff) * 4;
  int rounds = 200;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--key") == 0 && i + 1 < argc) {
      key = static_cast<key_t>(std::strtoul(argv[++i], nullptr, 0));
    } else if (std::strcmp(argv[i], "--rounds") == 0 && i + 1 < argc) {
      rounds = std::max(1, std::atoi(argv[++i]));
    } else {
      std::fprintf(stderr, "usage: %s [--key 0xKEY] [--rounds N]\n", argv[0]);
      return 2;
    }
  }

  int ready_pipe[2];
  int stop_pipe[2];
  if (pipe(ready_pipe) != 0 || pipe(stop_pipe) != 0) return 1;
  std::printf("pavo-ipc-demo: queue keys 0x%x (requests), 0x%x (replies), 0x%x (one-way)\n", key,
              key + 1, key + 2);
  std::fflush(stdout);  // the child must not inherit unwritten output
  const pid_t child = fork();
  if (child == 0) {
    close(ready_pipe[0]);
    close(stop_pipe[1]);
    run_server(key, ready_pipe[1], stop_pipe[0]);
  }
  close(ready_pipe[1]);
  close(stop_pipe[0]);
  char ready = 0;
  if (child < 0 || read(ready_pipe[0], &ready, 1) != 1) {
    std::fprintf(stderr, "the server process did not start\n");
    return 1;
  }
  std::printf("server process %d is up; client process %d sends\n\n", child, getpid());

  pavo_ipc_client* client = nullptr;
  pavo_ipc_client* notifier = nullptr;
  pavo_ipc_client_create(key, kMsgType, 1, kChunkSize, &client);
  pavo_ipc_client_create(key + 2, kMsgType, 0, kChunkSize, &notifier);

  bool all_ok = true;
  std::string hello = "hello from the client";
  pavo_ipc_msg notice{static_cast<uint32_t>(hello.size()), hello.data()};
  std::printf("one-way message, %zu bytes, 1 frame -> result %d\n", hello.size(),
              pavo_ipc_client_send(notifier, &notice));
  usleep(100000);

  std::printf("\nsynchronous requests (chunk size %u: up to %u payload bytes per frame):\n", kChunkSize,
              kChunkSize + 1);
  std::printf("  %7s %7s  %-42s %10s %10s\n", "bytes", "frames", "server's answer", "median us",
              "best us");
  for (size_t len : {size_t{3}, size_t{1025}, size_t{1026}, size_t{4000}, size_t{16384}}) {
    std::string text = sample_text(len);
    pavo_ipc_msg request{static_cast<uint32_t>(len), text.data()};
    std::vector<double> micros;
    std::string answer_text;
    for (int r = 0; r < rounds; ++r) {
      pavo_ipc_msg reply{0, nullptr};
      const auto start = std::chrono::steady_clock::now();
      const int rc = pavo_ipc_client_send_sync_with_params(client, &request, &reply);
      micros.push_back(std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start)
                           .count());
      if (rc != 0) {
        std::printf("  request of %zu bytes failed: %d\n", len, rc);
        all_ok = false;
        break;
      }
      answer_text = reply.data;
      std::free(reply.data);
    }
    char expected[96];
    std::snprintf(expected, sizeof expected, "%zu bytes, fingerprint %08x", len,
                  fingerprint(text.data(), text.size()));
    if (answer_text != expected) all_ok = false;
    std::sort(micros.begin(), micros.end());
    std::printf("  %7zu %7zu  %-42s %10.1f %10.1f\n", len, frames_for(len), answer_text.c_str(),
                micros[micros.size() / 2], micros.front());
  }

  std::string too_long(PAVO_IPC_MAX_MESSAGE + 1, 'x');
  pavo_ipc_msg refused{static_cast<uint32_t>(too_long.size()), too_long.data()};
  pavo_ipc_msg reply{0, nullptr};
  std::printf("\na request of %zu bytes is refused: result %d\n", too_long.size(),
              pavo_ipc_client_send_sync_with_params(client, &refused, &reply));

  close(stop_pipe[1]);  // stop order for the server process
  int status = 0;
  waitpid(child, &status, 0);
  pavo_ipc_client_destroy(client);
  pavo_ipc_client_destroy(notifier);
  for (key_t k : {key, key + 1, key + 2}) remove_queue(k);
  std::printf("%s\n", all_ok ? "every message crossed intact" : "SOME MESSAGES DID NOT CROSS INTACT");
  return all_ok ? 0 : 1;
}
