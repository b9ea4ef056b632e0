// Who reads and who writes a queue, and whether a process still lives: the
// signals by which a client tells a dead service from a slow one, and a
// restarted service from a bystander.
//
// The kernel records, per queue, the process that last took a message off
// it (msg_lrpid) and the one that last put one on it (msg_lspid); depending
// on the kernel these name the thread or its process. A service that serves
// the request queue is its last reader from its first request on, and the
// last sender on the reply queue once it has answered. Any local process can
// become either by taking or putting messages of its own, so these are hints:
// the client trusts them only as far as ipc/client.cc states.
//
// A process id alone does not name a process for long: once a process has
// ended its id may be given to another. A ProcessIdentity adds the process's
// start time (/proc/<pid>/stat, field 22, in clock ticks since boot), which
// a later holder of the id does not share.
//
// Thread-safe (no state). read_queue_reader is one system call (it runs
// after every reply); the /proc lookups read one or two small files and run
// only where a wait, a silent handle or a changed reader needs them.
#ifndef PAVO_IPC_QUEUE_READER_H
#define PAVO_IPC_QUEUE_READER_H

#include <sys/types.h>

#include <cstdint>

namespace pavo::ipc {

struct QueueReader {
  pid_t pid = 0;             // last reader; 0 when nobody has read yet
  pid_t sender = 0;          // last sender; 0 when nobody has sent yet
  unsigned long queued = 0;  // messages (frames) waiting, of every type
};

// Reads the state of queue `queue_id`. Returns false (and leaves *out
// untouched) when the queue cannot be read (removed, no permission).
bool read_queue_reader(int queue_id, QueueReader* out);

// A process as it was when looked up: its id and start time. `start` is 0
// when /proc could not tell it (another user's process under a restrictive
// /proc): such an identity is compared by id alone.
struct ProcessIdentity {
  pid_t pid = 0;
  uint64_t start = 0;

  bool known() const { return pid > 0; }
  bool operator==(const ProcessIdentity& other) const { return pid == other.pid && start == other.start; }
  bool operator!=(const ProcessIdentity& other) const { return !(*this == other); }

  // One 64-bit word (for a lock-free atomic): the id in the low 22 bits
  // (ids stay below 2^22), the start time above. 0 for an unknown identity.
  uint64_t packed() const;
  static ProcessIdentity unpack(uint64_t word);
};

// Looks up the process of task `task` (a thread or process id, as the kernel
// names a queue's reader or sender). Returns true and writes *out when it
// lives; false (leaving *out untouched) when it has ended, is a zombie, or
// never was (task <= 0).
bool process_identity(pid_t task, ProcessIdentity* out);

// Whether the process `who` has ended: its id no longer exists, names a
// zombie, or names a process that started at another time (the id was given
// to another process). A process of another user exists (EPERM). Never true
// for an unknown identity. A kill(0) and, while the id exists, one /proc read.
bool process_ended(const ProcessIdentity& who);

// Whether process `pid` has ended, whoever holds the id now: it does not
// exist (ESRCH), or it is a zombie. Never true for pid <= 0.
bool process_ended(pid_t pid);

}  // namespace pavo::ipc

#endif  // PAVO_IPC_QUEUE_READER_H
