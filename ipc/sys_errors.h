// errno values grouped by what they mean to the transport.
#ifndef PAVO_IPC_SYS_ERRORS_H
#define PAVO_IPC_SYS_ERRORS_H

#include <cerrno>

namespace pavo::ipc {

// The call was interrupted by a signal: msgsnd/msgrcv are never restarted
// automatically, so the caller repeats it.
inline bool interrupted(int err) { return err == EINTR; }

// The queue is full (a send) or empty (a non-blocking receive): "not now".
inline bool not_now(int err) { return err == EAGAIN || err == ENOMSG; }

// The queue was removed from the system (or never was one): waiting on it
// again can only fail again.
inline bool queue_gone(int err) { return err == EIDRM || err == EINVAL; }

}  // namespace pavo::ipc

#endif  // PAVO_IPC_SYS_ERRORS_H
