// UDP on 127.0.0.1 for the log control tests.
#ifndef PAVO_TESTS_LOG_LOOPBACK_H
#define PAVO_TESTS_LOG_LOOPBACK_H

#include <arpa/inet.h>
#include <poll.h>
#include <unistd.h>

#include <string>

#include "pavo_log.h"

namespace pavo::test {

// A UDP socket bound to 127.0.0.1:`port` (0: the system picks the port).
struct LoopbackSocket {
  static sockaddr_in address(int port) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(static_cast<uint16_t>(port));
    return a;
  }
  explicit LoopbackSocket(int bind_port) : fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    const sockaddr_in a = address(bind_port);
    bound = bind(fd, reinterpret_cast<const sockaddr*>(&a), sizeof a) == 0;
    sockaddr_in local{};
    socklen_t n = sizeof local;
    getsockname(fd, reinterpret_cast<sockaddr*>(&local), &n);
    port = ntohs(local.sin_port);
  }
  ~LoopbackSocket() { close(fd); }
  LoopbackSocket(const LoopbackSocket&) = delete;
  LoopbackSocket& operator=(const LoopbackSocket&) = delete;

  // One datagram within `ms` milliseconds into `bytes`; its sender's port, or 0.
  int receive(std::string& bytes, int ms) {
    pollfd p{fd, POLLIN, 0};
    char buffer[4096];
    sockaddr_in from{};
    socklen_t n = sizeof from;
    if (poll(&p, 1, ms) != 1) return 0;
    const ssize_t got = recvfrom(fd, buffer, sizeof buffer, 0, reinterpret_cast<sockaddr*>(&from), &n);
    bytes.assign(buffer, got > 0 ? static_cast<size_t>(got) : 0);
    return got < 0 ? 0 : ntohs(from.sin_port);
  }
  bool send_to(int to, const std::string& bytes) {
    const sockaddr_in a = address(to);
    return sendto(fd, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&a), sizeof a) ==
           static_cast<ssize_t>(bytes.size());
  }

  int fd;
  bool bound;
  int port;
};

// `text` NUL-padded to a whole control datagram with `level` as its last byte.
inline std::string control_datagram(std::string text, unsigned char level) {
  text.resize(PAVO_LOG_CONTROL_SIZE, '\0');
  text[PAVO_LOG_CONTROL_LEVEL_OFFSET] = static_cast<char>(level);
  return text;
}

}  // namespace pavo::test

#endif  // PAVO_TESTS_LOG_LOOPBACK_H
