// UDP on 127.0.0.1 and the control datagram, for the log control tests.
#ifndef PAVO_TESTS_LOG_LOOPBACK_H
#define PAVO_TESTS_LOG_LOOPBACK_H

#include <arpa/inet.h>
#include <poll.h>
#include <unistd.h>

#include <string>

#include "pavo_log.h"

namespace pavo::test {

inline sockaddr_in loopback(int port) {
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  a.sin_port = htons(static_cast<uint16_t>(port));
  return a;
}

// A UDP socket bound to 127.0.0.1:`bind_port` (0: the system picks the port).
struct LoopbackSocket {
  explicit LoopbackSocket(int bind_port) : fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in a = loopback(bind_port);
    socklen_t n = sizeof a;
    const bool bound = bind(fd, reinterpret_cast<sockaddr*>(&a), n) == 0 &&
                       getsockname(fd, reinterpret_cast<sockaddr*>(&a), &n) == 0;
    port = bound ? ntohs(a.sin_port) : 0;
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
    const ssize_t got =
        poll(&p, 1, ms) == 1 ? recvfrom(fd, buffer, sizeof buffer, 0, reinterpret_cast<sockaddr*>(&from), &n) : -1;
    bytes.assign(buffer, got > 0 ? static_cast<size_t>(got) : 0);
    return got < 0 ? 0 : ntohs(from.sin_port);
  }
  bool send_to(int to, const std::string& bytes) {
    const sockaddr_in a = loopback(to);
    return sendto(fd, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&a), sizeof a) ==
           static_cast<ssize_t>(bytes.size());
  }

  int fd;
  int port;  // 0: not bound
};

// `text` NUL-padded to a whole control datagram with `level` as its last byte.
inline std::string control_datagram(std::string text, unsigned char level) {
  text.resize(PAVO_LOG_CONTROL_SIZE, '\0');
  text[PAVO_LOG_CONTROL_LEVEL_OFFSET] = static_cast<char>(level);
  return text;
}

// The last control datagram a listener of this process received, read the
// way its writer stores it.
inline std::string control_record() {
  std::string record(sizeof g_modules_info, '\0');
  for (size_t i = 0; i < record.size(); ++i) record[i] = __atomic_load_n(&g_modules_info[i], __ATOMIC_RELAXED);
  return record;
}

}  // namespace pavo::test

#endif  // PAVO_TESTS_LOG_LOOPBACK_H
