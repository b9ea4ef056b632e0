// pavo-logctl's end of the loopback exchange with the log control listeners.
#ifndef PAVO_TOOLS_LOGCTL_CONTROL_SOCKET_H
#define PAVO_TOOLS_LOGCTL_CONTROL_SOCKET_H

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace pavo::logctl {

using Clock = std::chrono::steady_clock;

// One module list as a listener sent it.
struct ModuleList {
  int port = 0;                       // the listener's local port
  std::vector<std::string> modules;  // in the order sent
};

// The UDP socket bound to 127.0.0.1:54321. Owns its descriptor.
class ControlSocket {
 public:
  ControlSocket() = default;
  ~ControlSocket();
  ControlSocket(const ControlSocket&) = delete;
  ControlSocket& operator=(const ControlSocket&) = delete;

  // Binds the socket. Returns false, with the reason in `error`, when the
  // address cannot be bound (another tool holds it, say).
  bool open(std::string& error);

  // Waits until `deadline` for a module list. Returns false when none came.
  bool receive(Clock::time_point deadline, ModuleList& list);

  // Sends a control datagram to the listener at `port`: `text` (at most 1023
  // bytes) NUL-padded, and `level` in the last byte. Returns false when the
  // datagram could not be sent.
  bool send_control(int port, const std::string& text, uint8_t level);

 private:
  int fd_ = -1;
};

}  // namespace pavo::logctl

#endif  // PAVO_TOOLS_LOGCTL_CONTROL_SOCKET_H
