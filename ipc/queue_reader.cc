#include "ipc/queue_reader.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/msg.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace pavo::ipc {
namespace {

constexpr int kPidBits = 22;  // PID_MAX_LIMIT is 2^22
constexpr uint64_t kPidMask = (uint64_t{1} << kPidBits) - 1;

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

struct ProcStat {
  char state = 0;      // R, S, D, T, Z, X, ...
  uint64_t start = 0;  // field 22: start time in clock ticks since boot
};

// Reads /proc/<pid>/stat ("pid (comm) S ppid ... starttime ..."). False when
// unreadable or not in that form.
bool read_proc_stat(pid_t pid, ProcStat* out) {
  char text[512];
  if (!read_proc_file(pid, "stat", text, sizeof text)) return false;
  // The command name may hold blanks and parentheses: the fields follow the last ')'.
  const char* p = std::strrchr(text, ')');
  if (p == nullptr || p[1] != ' ' || p[2] == '\0') return false;
  out->state = p[2];
  p += 3;
  // The state is field 3; the start time is field 22, 19 fields further on.
  for (int field = 4; field < 22; ++field) {
    p = std::strchr(p + 1, ' ');
    if (p == nullptr) return false;
  }
  char* end = nullptr;
  const unsigned long long start = std::strtoull(p + 1, &end, 10);
  if (end == p + 1) return false;
  out->start = start;
  return true;
}

bool zombie(char state) { return state == 'Z' || state == 'X'; }

// Whether `pid` exists for kill(0): it does, or it belongs to another user.
bool id_exists(pid_t pid) { return kill(pid, 0) == 0 || errno != ESRCH; }

}  // namespace

uint64_t ProcessIdentity::packed() const {
  if (pid <= 0) return 0;
  return (start << kPidBits) | (static_cast<uint64_t>(pid) & kPidMask);
}

ProcessIdentity ProcessIdentity::unpack(uint64_t word) {
  ProcessIdentity who;
  who.pid = static_cast<pid_t>(word & kPidMask);
  who.start = word >> kPidBits;
  return who;
}

bool process_identity(pid_t task, ProcessIdentity* out) {
  if (task <= 0) return false;
  char text[1024];
  ProcessIdentity who;
  who.pid = task;
  if (read_proc_file(task, "status", text, sizeof text)) {
    const char* line = std::strstr(text, "\nTgid:");
    int tgid = 0;
    if (line != nullptr && std::sscanf(line + 6, "%d", &tgid) == 1 && tgid > 0) who.pid = static_cast<pid_t>(tgid);
  } else if (!id_exists(task)) {
    return false;
  }
  // This process lives while it asks, and its own start time is not taken
  // from /proc: an emulator (qemu-user) makes up /proc/self/stat per thread.
  if (who.pid == getpid()) {
    *out = who;
    return true;
  }
  ProcStat stat;
  if (read_proc_stat(who.pid, &stat)) {
    if (zombie(stat.state)) return false;
    // Kept to the bits a packed identity holds, so that both compare alike.
    who.start = stat.start & (~uint64_t{0} >> kPidBits);
  } else if (!id_exists(who.pid)) {
    return false;
  }
  *out = who;
  return true;
}

bool process_ended(const ProcessIdentity& who) {
  if (!who.known() || who.pid == getpid()) return false;
  if (!id_exists(who.pid)) return true;
  ProcStat stat;
  if (!read_proc_stat(who.pid, &stat)) return false;  // exists, but /proc does not tell more
  if (zombie(stat.state)) return true;
  return who.start != 0 && (stat.start & (~uint64_t{0} >> kPidBits)) != who.start;
}

bool process_ended(pid_t pid) {
  ProcessIdentity who;
  return pid > 0 && !process_identity(pid, &who);
}

bool read_queue_reader(int queue_id, QueueReader* out) {
  msqid_ds ds{};
  if (msgctl(queue_id, IPC_STAT, &ds) != 0) return false;
  out->pid = ds.msg_lrpid;
  out->sender = ds.msg_lspid;
  out->queued = static_cast<unsigned long>(ds.msg_qnum);
  return true;
}

}  // namespace pavo::ipc
