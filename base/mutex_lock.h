// Scoped lock for a pthread_mutex_t that an interface record mandates (where
// the mutex is ours to choose, use std::mutex with std::lock_guard).
#ifndef PAVO_BASE_MUTEX_LOCK_H
#define PAVO_BASE_MUTEX_LOCK_H

#include <pthread.h>

namespace pavo {

// Locks `mutex` for the lifetime of the object. Not copyable.
// REQUIRES: `mutex` initialised and not held by the calling thread.
class MutexLock {
 public:
  explicit MutexLock(pthread_mutex_t* mutex) : mutex_(mutex) { pthread_mutex_lock(mutex_); }
  ~MutexLock() { pthread_mutex_unlock(mutex_); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  pthread_mutex_t* const mutex_;
};

}  // namespace pavo

#endif  // PAVO_BASE_MUTEX_LOCK_H
