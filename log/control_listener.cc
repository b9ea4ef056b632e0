// The log control listener: a detached thread that sends the module list to
// the control tool's port once a second and applies at most one control
// datagram per second.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <mutex>

#include "pavo_log.h"

char g_modules_info[PAVO_LOG_CONTROL_SIZE];

namespace pavo::log {
namespace {

constexpr size_t kTextLimit = PAVO_LOG_CONTROL_LEVEL_OFFSET;

// Several listeners may run in one process; they take turns at the shared
// record of the last control datagram, so that it holds one whole datagram.
std::mutex info_lock;

// Stores the record of the last control datagram. Its readers cannot take a
// lock of ours, so every byte is stored atomically: a reader that loads the
// bytes atomically reads well-defined values (of the previous or the new
// datagram while a store is under way).
void record_control(const char (&datagram)[PAVO_LOG_CONTROL_SIZE]) {
  std::lock_guard<std::mutex> guard(info_lock);
  for (size_t i = 0; i < sizeof datagram; ++i) {
    __atomic_store_n(&g_modules_info[i], datagram[i], __ATOMIC_RELAXED);
  }
}

sockaddr_in loopback_address(uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(port);
  return address;
}

// Owns one descriptor.
class UniqueFd {
 public:
  UniqueFd() = default;
  ~UniqueFd() { reset(-1); }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;

  int get() const { return fd_; }
  void reset(int fd) {
    if (fd_ >= 0) close(fd_);  // never retried
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

// The listener's UDP socket, or -1. Bound to the loopback address with a
// port that the system chooses, as an unbound socket would get one at its
// first send: control datagrams are accepted from any local sender, but no
// other host can reach the socket.
int open_listener_socket() {
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  const sockaddr_in local = loopback_address(0);
  if (bind(fd, reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

// Sleeps until `deadline` on the monotonic clock (the wall clock of a
// receiver jumps when broadcast time arrives), resuming after signals.
void sleep_until(const timespec& deadline) {
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline, nullptr) == EINTR) {
  }
}

timespec one_second_from_now() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  now.tv_sec += 1;
  return now;
}

void send_module_list(int fd, const sockaddr_in& tool) {
  char list[PAVO_LOG_MODULES_LIST_SIZE] = {};
  get_modules_list(list);
  // An empty table sends an empty datagram: the tool still hears the process.
  sendto(fd, list, std::strlen(list), 0, reinterpret_cast<const sockaddr*>(&tool), sizeof tool);
}

// Applies one control datagram (zero-padded to its full size). A text with
// no NUL in its first 1024 bytes is taken as those 1024 bytes, so the level
// byte never becomes part of a name.
void apply_control(const char (&datagram)[PAVO_LOG_CONTROL_SIZE]) {
  record_control(datagram);
  char text[kTextLimit + 1];
  const size_t length = strnlen(datagram, kTextLimit);
  std::memcpy(text, datagram, length);
  text[length] = '\0';
  if (std::strcmp(text, PAVO_LOG_CLEAR_COMMAND) == 0) {
    clear_modules_list();
  } else {
    insert_modules_list(text, static_cast<unsigned char>(datagram[PAVO_LOG_CONTROL_LEVEL_OFFSET]));
  }
}

void* log_control_thread(void*) {
  // The process's signals are for its own threads, not for this one.
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, nullptr);
  const sockaddr_in tool = loopback_address(PAVO_LOG_CONTROL_PORT);
  UniqueFd socket;
  for (;;) {
    // A socket that could not be made (out of descriptors, say) is tried
    // again on the next pass.
    if (socket.get() < 0) socket.reset(open_listener_socket());
    if (socket.get() >= 0) send_module_list(socket.get(), tool);
    sleep_until(one_second_from_now());
    if (socket.get() < 0) continue;
    // The sender is not examined: any local process may send control.
    char datagram[PAVO_LOG_CONTROL_SIZE] = {};
    const ssize_t received =
        recvfrom(socket.get(), datagram, sizeof datagram, MSG_DONTWAIT, nullptr, nullptr);
    if (received > 0) apply_control(datagram);
  }
  return nullptr;
}

}  // namespace
}  // namespace pavo::log

int pavo_log_initialize(int mode) {
  if (mode == 0) return 0;
  if (mode != 1) return -1;
  pthread_attr_t attributes;
  if (pthread_attr_init(&attributes) != 0) return 0;
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  pthread_t thread;
  pthread_create(&thread, &attributes, pavo::log::log_control_thread, nullptr);
  pthread_attr_destroy(&attributes);
  return 0;
}

int pavo_log_finalize(int mode) { return mode == 0 || mode == 1 ? 0 : -1; }
