// Whether anybody still reads a queue: the signal by which a client tells a
// dead service from a slow one.
//
// The kernel records, per queue, the process that last took a message off
// it (msg_lrpid of msgctl IPC_STAT). A service that serves the queue is that
// process from its first request on. When that process no longer exists (or
// has ended and waits to be reaped), nobody will answer what is queued now;
// a restarted service shows itself by reading the queue, which makes it the
// last reader.
//
// Thread-safe (no state). read_queue_reader is one system call (it runs
// after every reply); process_ended is a kill(0) plus, when the process
// still exists, a read of /proc/<pid>/stat, and runs only where a wait or a
// silent handle needs it.
#ifndef PAVO_IPC_QUEUE_READER_H
#define PAVO_IPC_QUEUE_READER_H

#include <sys/types.h>

namespace pavo::ipc {

struct QueueReader {
  pid_t pid = 0;            // last reader; 0 when nobody has read yet
  unsigned long queued = 0;  // messages (frames) waiting
};

// Reads the state of queue `queue_id`. Returns false (and leaves *out
// untouched) when the queue cannot be read (removed, no permission).
bool read_queue_reader(int queue_id, QueueReader* out);

// Whether process `pid` has ended: it does not exist (ESRCH), or it is a
// zombie. A process of another user (EPERM) exists. Never true for pid <= 0.
bool process_ended(pid_t pid);

// The process (thread group) of task `pid`. The kernel records the reading
// thread as msg_lrpid, so two threads of one service show as different
// readers. Returns 0 when the task has ended or /proc cannot be read.
pid_t process_of(pid_t pid);

}  // namespace pavo::ipc

#endif  // PAVO_IPC_QUEUE_READER_H
