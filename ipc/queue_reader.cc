#include "ipc/queue_reader.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/msg.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace pavo::ipc {
namespace {

// The state letter of /proc/<pid>/stat ("pid (comm) S ..."); 0 when unreadable.
char process_state(pid_t pid) {
  char path[32];
  std::snprintf(path, sizeof path, "/proc/%d/stat", static_cast<int>(pid));
  const int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return 0;
  char text[256];
  ssize_t n;
  do {
    n = read(fd, text, sizeof text - 1);
  } while (n < 0 && errno == EINTR);
  close(fd);
  if (n <= 0) return 0;
  text[n] = '\0';
  // The command name may hold blanks and parentheses: the state follows the last ')'.
  const char* end = std::strrchr(text, ')');
  return end != nullptr && end[1] == ' ' ? end[2] : 0;
}

}  // namespace

pid_t process_of(pid_t pid) {
  if (pid <= 0) return 0;
  char path[32];
  std::snprintf(path, sizeof path, "/proc/%d/status", static_cast<int>(pid));
  const int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return 0;
  char text[1024];
  ssize_t n;
  do {
    n = read(fd, text, sizeof text - 1);
  } while (n < 0 && errno == EINTR);
  close(fd);
  if (n <= 0) return 0;
  text[n] = '\0';
  const char* line = std::strstr(text, "\nTgid:");
  int tgid = 0;
  if (line == nullptr || std::sscanf(line + 6, "%d", &tgid) != 1 || tgid <= 0) return 0;
  return static_cast<pid_t>(tgid);
}

bool process_ended(pid_t pid) {
  if (pid <= 0) return false;
  if (kill(pid, 0) != 0) return errno == ESRCH;
  const char state = process_state(pid);
  return state == 'Z' || state == 'X';
}

bool read_queue_reader(int queue_id, QueueReader* out) {
  msqid_ds ds{};
  if (msgctl(queue_id, IPC_STAT, &ds) != 0) return false;
  out->pid = ds.msg_lrpid;
  out->queued = static_cast<unsigned long>(ds.msg_qnum);
  out->gone = process_ended(ds.msg_lrpid);
  return true;
}

}  // namespace pavo::ipc
