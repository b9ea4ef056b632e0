#include "ipc/queue_reader.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/msg.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>

namespace pavo::ipc {
namespace {

// Reads /proc/<pid>/<name> into `text` (NUL-terminated); false when unreadable.
bool read_proc_file(pid_t pid, const char* name, char* text, std::size_t size) {
  char path[48];
  std::snprintf(path, sizeof path, "/proc/%d/%s", static_cast<int>(pid), name);
  const int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  ssize_t n;
  do {
    n = read(fd, text, size - 1);
  } while (n < 0 && errno == EINTR);
  close(fd);
  if (n <= 0) return false;
  text[n] = '\0';
  return true;
}

// The state letter of /proc/<pid>/stat ("pid (comm) S ..."); 0 when unreadable.
char process_state(pid_t pid) {
  char text[256];
  if (!read_proc_file(pid, "stat", text, sizeof text)) return 0;
  // The command name may hold blanks and parentheses: the state follows the last ')'.
  const char* end = std::strrchr(text, ')');
  return end != nullptr && end[1] == ' ' ? end[2] : 0;
}

}  // namespace

pid_t process_of(pid_t pid) {
  char text[1024];
  if (pid <= 0 || !read_proc_file(pid, "status", text, sizeof text)) return 0;
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
  return true;
}

}  // namespace pavo::ipc
