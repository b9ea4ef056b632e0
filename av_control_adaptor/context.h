// The A/V control object behind the plug-in's `void*` handle, its two locks
// and the process-wide handle lookup.
#ifndef PAVO_AV_CONTROL_ADAPTOR_CONTEXT_H
#define PAVO_AV_CONTROL_ADAPTOR_CONTEXT_H

#include <pthread.h>
#include <sched.h>

#include <atomic>
#include <cstdint>

#include "pavo_avctrl_types.h"

// Last playback command issued (`last_command`); the event translation uses
// it to filter the service's state reports.
enum : int32_t {
  AVCTRL_CMD_PLAY = 0,
  AVCTRL_CMD_PAUSE = 1,
  AVCTRL_CMD_SEEK = 2,
  AVCTRL_CMD_NONE = 3,
};

// `pending_speed` when no speed report is held back.
constexpr double PAVO_AVCTRL_PENDING_NONE = 9999.0;

// The event translation's answer for a service state that it ignores.
constexpr int32_t PAVO_AVCTRL_PLAYSTATE_IGNORE = 99;

// The plug-in's callback and the user data handed back to it. Changed only
// under the object's `cb_mutex`; read under it by the locked posts and
// without any lock by the unlocked ones (the speed changes of Play, Pause and
// the held-back speed). A sequence count lets an unlocked read see one whole
// pair, never the callback of one registration with the user data of
// another; readers never block the writer.
class CallbackPair {
 public:
  struct Value {
    PavoAVCtrlCallback callback;
    const void* user_data;
  };

  // REQUIRES: cb_mutex held (one writer at a time).
  void store(PavoAVCtrlCallback callback, const void* user_data) {
    // Sequentially consistent accesses throughout: a reader that sees either
    // new member also sees the odd count that precedes it.
    sequence_.fetch_add(1);  // odd: being changed
    callback_.store(callback);
    user_data_.store(user_data);
    sequence_.fetch_add(1);
  }

  Value load() const {
    for (;;) {
      const unsigned before = sequence_.load();
      const Value value{callback_.load(), user_data_.load()};
      if ((before & 1u) == 0 && sequence_.load() == before) return value;
      sched_yield();  // a writer is between its stores
    }
  }

 private:
  std::atomic<unsigned> sequence_{0};
  std::atomic<PavoAVCtrlCallback> callback_{nullptr};
  std::atomic<const void*> user_data_{nullptr};
};

// One A/V control object; it owns one service player (`player_id`).
//
// Locks: `op_mutex` serialises the object's requests to the service and
// guards the play-state and seek bookkeeping; `cb_mutex` is held while the
// plug-in's callback is called and while the callback pair changes. Where
// both are held, `op_mutex` is taken first, and `op_mutex` is never held
// while the plug-in's callback runs. `cb_mutex` is recursive so that the
// callback may call back into its own object (unregister itself, set the
// play state) on the thread that holds it.
//
// Several fields are read or written without a lock on some path, as the
// design has it: the speed and error reports of the event thread, the
// getters, the speed posts of Play and Pause, and Pavo_AVCtrl_SetPlayState.
// Those fields are atomics: each access is then well defined, with the same
// outcomes the unlocked design allows; what must hold across several fields
// is still kept under `op_mutex`.
struct PavoAVCtrlContext {
  pthread_mutex_t op_mutex;
  pthread_mutex_t cb_mutex;
  CallbackPair callback;   // the callback and its user data
  unsigned player_id = 0;  // written by Create before the object is published
  std::atomic<int32_t> error{PAVO_AVCTRL_ERROR_FORMAT};
  std::atomic<double> speed{1.0};
  std::atomic<int32_t> prev_state{PAVO_AVCTRL_PLAYSTATE_STOPPED};
  std::atomic<int32_t> play_state{PAVO_AVCTRL_PLAYSTATE_STOPPED};
  std::atomic<int32_t> last_command{AVCTRL_CMD_NONE};
  std::atomic<double> pending_speed{0.0};
  std::atomic<bool> seeking{false};  // also cleared under cb_mutex by a refused seek
  bool seek_pending = false;         // guarded by op_mutex
  double pending_seek_pos = 0.0;     // guarded by op_mutex; milliseconds
};

static_assert(std::atomic<double>::is_always_lock_free, "speed fields need lock-free doubles");

// Holds a pthread mutex for its scope.
class MutexLock {
 public:
  explicit MutexLock(pthread_mutex_t* mutex) : mutex_(mutex) { pthread_mutex_lock(mutex_); }
  ~MutexLock() { pthread_mutex_unlock(mutex_); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  pthread_mutex_t* mutex_;
};

inline PavoAVCtrlContext* avctrl_context(void* handle) {
  return static_cast<PavoAVCtrlContext*>(handle);
}

// Process-wide handle lookup (Pavo_AVCtrl_GetHandle): the number of objects
// alive, and the object made last (null after any destruction). Changed by
// Create and Destroy only; atomics, because the platform callbacks and the
// event translation read them on other threads.
extern std::atomic<int32_t> g_avctrl_count;
extern std::atomic<PavoAVCtrlContext*> g_avctrl_handle;

#endif  // PAVO_AV_CONTROL_ADAPTOR_CONTEXT_H
