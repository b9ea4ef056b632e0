#include "tools/logctl/control_socket.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "pavo_log.h"

namespace pavo::logctl {
namespace {

sockaddr_in loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<uint16_t>(port));
  return address;
}

std::vector<std::string> split_names(const char* text, size_t length) {
  std::vector<std::string> names;
  size_t start = 0;
  for (size_t i = 0; i <= length; ++i) {
    if (i == length || text[i] == '|') {
      if (i > start) names.emplace_back(text + start, i - start);
      start = i + 1;
    }
  }
  return names;
}

}  // namespace

ControlSocket::~ControlSocket() {
  if (fd_ >= 0) close(fd_);
}

bool ControlSocket::open(std::string& error) {
  fd_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd_ < 0) {
    error = std::strerror(errno);
    return false;
  }
  const sockaddr_in address = loopback(PAVO_LOG_CONTROL_PORT);
  if (bind(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    error = std::strerror(errno);
    return false;
  }
  return true;
}

bool ControlSocket::receive(Clock::time_point deadline, ModuleList& list) {
  for (;;) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    if (left <= 0) return false;
    pollfd waiting{fd_, POLLIN, 0};
    const int ready = poll(&waiting, 1, static_cast<int>(std::min<long long>(left, 60000)));
    if (ready <= 0) continue;  // time-out slice, or a signal: look at the clock again
    // A module list is at most 659 bytes; anything longer is cut here.
    char text[2048];
    sockaddr_in from{};
    socklen_t from_length = sizeof from;
    const ssize_t received = recvfrom(fd_, text, sizeof text, MSG_DONTWAIT,
                                      reinterpret_cast<sockaddr*>(&from), &from_length);
    if (received < 0 || from.sin_family != AF_INET) continue;
    list.port = ntohs(from.sin_port);
    list.modules = split_names(text, static_cast<size_t>(received));
    return true;
  }
}

bool ControlSocket::send_control(int port, const std::string& text, uint8_t level) {
  char datagram[PAVO_LOG_CONTROL_SIZE] = {};
  std::memcpy(datagram, text.data(), std::min<size_t>(text.size(), PAVO_LOG_CONTROL_LEVEL_OFFSET - 1));
  datagram[PAVO_LOG_CONTROL_LEVEL_OFFSET] = static_cast<char>(level);
  const sockaddr_in to = loopback(port);
  return sendto(fd_, datagram, sizeof datagram, 0, reinterpret_cast<const sockaddr*>(&to),
                sizeof to) == static_cast<ssize_t>(sizeof datagram);
}

}  // namespace pavo::logctl
