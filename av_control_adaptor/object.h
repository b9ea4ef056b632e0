// The A/V control object behind the plug-in's `void*` handle: its fields and
// its two locks.
#ifndef PAVO_AV_CONTROL_ADAPTOR_OBJECT_H
#define PAVO_AV_CONTROL_ADAPTOR_OBJECT_H

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "base/mutex_lock.h"
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

namespace pavo::avctrl {
struct PostInFlight;  // plugin_callback.h
}  // namespace pavo::avctrl

// One A/V control object; it owns one service player (`player_id`).
//
// Locks, both plain mutexes: `op_mutex` serialises the object's requests to
// the service and guards the play-state and seek bookkeeping; `cb_mutex`
// guards the callback pair and the list of posts in flight. Where both are held, `op_mutex` is taken first.
// Neither is held while the plug-in's callback runs: a post copies the pair
// under `cb_mutex` and calls without it (plugin_callback.h).
//
// Lifetime: the plug-in's handle is one reference, and every event
// translation and every post holds one more while it uses the object.
// Pavo_AVCtrl_Destroy drops the handle's reference and waits for no
// translation or post; whoever drops the last one destroys the player and
// frees the object (object_lifetime.h).
//
// Several fields are read or written without a lock on some path, as the
// design has it: the speed and error reports of the event thread, the
// getters, Pause before playback and Pavo_AVCtrl_SetPlayState. Those fields
// are atomics: each access is then well defined, with the same outcomes the
// unlocked design allows; what must hold across several fields is still kept
// under `op_mutex`.
struct PavoAVCtrlContext {
  pthread_mutex_t op_mutex;
  pthread_mutex_t cb_mutex;
  PavoAVCtrlCallback callback = nullptr;  // guarded by cb_mutex
  const void* user_data = nullptr;        // guarded by cb_mutex
  // The service player. Written by Create before the object is published,
  // and by a Load that replaces a lost player (under op_mutex).
  std::atomic<unsigned> player_id{0};
  // The object has no living player (its service ended, or it could not be
  // created): its id is not destroyed and no request is sent with it; the
  // next Load creates a new player first. Set by Create and the player-lost
  // handler, cleared by Load under op_mutex. The object's event routine is
  // registered under `player_id` exactly while it has a player whose
  // service still runs (mediaplayer_adaptor/player_registration.h): from
  // the moment the client learns that the service is gone, the registration
  // is dead, before this flag is set, and no request is sent either.
  std::atomic<bool> player_lost{false};
  std::atomic<int32_t> error{PAVO_AVCTRL_ERROR_FORMAT};
  std::atomic<double> speed{1.0};
  std::atomic<int32_t> prev_state{PAVO_AVCTRL_PLAYSTATE_STOPPED};
  std::atomic<int32_t> play_state{PAVO_AVCTRL_PLAYSTATE_STOPPED};
  std::atomic<int32_t> last_command{AVCTRL_CMD_NONE};
  std::atomic<double> pending_speed{0.0};
  std::atomic<bool> seeking{false};  // also cleared without op_mutex by a refused seek
  bool seek_pending = false;         // guarded by op_mutex
  double pending_seek_pos = 0.0;     // guarded by op_mutex; milliseconds

  pthread_cond_t post_returned;                 // with cb_mutex: signalled when a post ends
  pavo::avctrl::PostInFlight* posts = nullptr;  // guarded by cb_mutex: calling the callback now
  // Twice the number of references (the handle's, plus one per translation
  // and post using the object), plus 1 once the object is destroyed (after
  // which no reference is added). See object_lifetime.h.
  std::atomic<unsigned> lifetime{2};
};

static_assert(std::atomic<double>::is_always_lock_free, "speed fields need lock-free doubles");

inline PavoAVCtrlContext* avctrl_context(void* handle) {
  return static_cast<PavoAVCtrlContext*>(handle);
}

#endif  // PAVO_AV_CONTROL_ADAPTOR_OBJECT_H
