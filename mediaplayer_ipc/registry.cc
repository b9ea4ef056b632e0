#include "mediaplayer_ipc/registry.h"

#include <condition_variable>
#include <list>
#include <map>
#include <mutex>
#include <new>
#include <thread>
#include <utility>
#include <vector>

#include "base/callback_guard.h"
#include "base/player_lost.h"
#include "pavo_mediaplayer_ipc.h"

// Exported callback slots; see registry.h for how they are accessed.
PavoMediaPlayerCallback g_mediaplayer_cb = nullptr;
PavoMediaSyncCallback g_mediasync_cb = nullptr;

namespace pavo::mediaplayer {
namespace {

enum class Family { kPlayer, kMediaSync, kDrm };

// A dispatch between copying its registration and the callback's return.
// Lives on the dispatching thread's stack.
struct InFlight {
  Family family;
  unsigned player_id;  // kPlayer only
  std::thread::id thread;
  InFlight* next;
};

// A registered player: its user data, and the service generation in which
// it was registered (its player was created in that service or an earlier
// one).
struct Entry {
  void* user_data;
  unsigned generation;
};

struct State {
  std::mutex mutex;
  std::condition_variable dispatch_returned;
  // All guarded by mutex (the exported slots are also written under it).
  std::map<unsigned, Entry> registry;  // player id -> user data
  unsigned generation = 0;              // the newest service generation seen
  const void* mediasync_userdata = nullptr;
  PavoDrmCallback drmagent_cb = nullptr;
  InFlight* in_flight = nullptr;
};

// Created at first use and never destroyed: a receive thread that still runs
// while the process exits must not find it gone.
State& state() {
  static State* const s = new State;
  return *s;
}

// Marks a dispatch in flight for its scope. Constructed with the mutex held;
// the destructor takes the mutex itself, so the mutex must be released by
// then (the callback runs in between).
class InFlightMark {
 public:
  InFlightMark(State& s, Family family, unsigned player_id)
      : s_(s), node_{family, player_id, std::this_thread::get_id(), s.in_flight} {
    s_.in_flight = &node_;
  }
  ~InFlightMark() {
    {
      std::lock_guard<std::mutex> lock(s_.mutex);
      for (InFlight** p = &s_.in_flight; *p != nullptr; p = &(*p)->next) {
        if (*p == &node_) {
          *p = node_.next;
          break;
        }
      }
    }
    s_.dispatch_returned.notify_all();
  }
  InFlightMark(const InFlightMark&) = delete;
  InFlightMark& operator=(const InFlightMark&) = delete;

 private:
  State& s_;
  InFlight node_;
};

// Waits until no other thread dispatches what `matches` selects.
template <typename Matches>
void wait_for_dispatches(State& s, std::unique_lock<std::mutex>& lock, Matches&& matches) {
  const std::thread::id self = std::this_thread::get_id();
  s.dispatch_returned.wait(lock, [&] {
    for (const InFlight* n = s.in_flight; n != nullptr; n = n->next) {
      if (n->thread != self && matches(*n)) return false;
    }
    return true;
  });
}

template <typename T>
void publish(T* slot, T value) {
  __atomic_store_n(slot, value, __ATOMIC_RELEASE);
}

template <typename Call>
Dispatch call(const char* what, Call&& callback) {
  return pavo::call_guarded(what, callback) ? Dispatch::kDelivered : Dispatch::kCallbackThrew;
}

}  // namespace

bool register_player(unsigned player_id, PavoMediaPlayerCallback callback, void* user_data) {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  try {
    s.registry[player_id] = Entry{user_data, s.generation};
  } catch (const std::bad_alloc&) {
    return false;
  }
  publish(&g_mediaplayer_cb, callback);
  return true;
}

void unregister_player(unsigned player_id) {
  State& s = state();
  std::unique_lock<std::mutex> lock(s.mutex);
  s.registry.erase(player_id);
  wait_for_dispatches(s, lock, [player_id](const InFlight& n) {
    return n.family == Family::kPlayer && n.player_id == player_id;
  });
}

void clear_players() {
  State& s = state();
  std::unique_lock<std::mutex> lock(s.mutex);
  s.registry.clear();
  s.generation = 0;
  wait_for_dispatches(s, lock, [](const InFlight& n) { return n.family == Family::kPlayer; });
}

std::optional<void*> player_user_data(unsigned player_id) {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  auto it = s.registry.find(player_id);
  if (it == s.registry.end()) return std::nullopt;
  return it->second.user_data;
}

std::size_t player_count() {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  return s.registry.size();
}

void set_media_sync(PavoMediaSyncCallback callback, const void* user_data) {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.mediasync_userdata = user_data;
  publish(&g_mediasync_cb, callback);
}

void clear_media_sync() {
  State& s = state();
  std::unique_lock<std::mutex> lock(s.mutex);
  s.mediasync_userdata = nullptr;
  publish(&g_mediasync_cb, PavoMediaSyncCallback{nullptr});
  wait_for_dispatches(s, lock, [](const InFlight& n) { return n.family == Family::kMediaSync; });
}

bool media_sync_registered() {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  return g_mediasync_cb != nullptr && s.mediasync_userdata != nullptr;
}

void set_drm_callback(PavoDrmCallback callback) {
  State& s = state();
  std::unique_lock<std::mutex> lock(s.mutex);
  s.drmagent_cb = callback;
  if (callback == nullptr) {
    wait_for_dispatches(s, lock, [](const InFlight& n) { return n.family == Family::kDrm; });
  }
}

Dispatch dispatch_player_event(unsigned player_id, PavoMediaPluginEvent event, PavoMediaError error,
                               int data1, double data2) {
  State& s = state();
  std::unique_lock<std::mutex> lock(s.mutex);
  const PavoMediaPlayerCallback callback = g_mediaplayer_cb;
  if (callback == nullptr) return Dispatch::kNoCallback;
  const auto it = s.registry.find(player_id);
  if (it == s.registry.end()) return Dispatch::kNoEntry;
  const void* const user_data = it->second.user_data;
  InFlightMark mark(s, Family::kPlayer, player_id);
  lock.unlock();
  return call("player callback", [&] { callback(event, error, user_data, data1, data2); });
}

bool advance_generation(unsigned generation) {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  if (generation <= s.generation) return false;
  s.generation = generation;
  return true;
}

std::size_t dispatch_players_lost(unsigned generation) {
  State& s = state();
  // Declared before the lock: the marks unlink themselves (taking the mutex)
  // after it is released.
  std::list<InFlightMark> marks;
  std::vector<std::pair<unsigned, void*>> lost;
  std::unique_lock<std::mutex> lock(s.mutex);
  const PavoMediaPlayerCallback callback = g_mediaplayer_cb;
  if (callback == nullptr) return 0;
  try {
    lost.reserve(s.registry.size());  // the copies below cannot fail then
    for (auto it = s.registry.begin(); it != s.registry.end();) {
      if (it->second.generation >= generation) {
        ++it;
        continue;
      }
      marks.emplace_back(s, Family::kPlayer, it->first);
      lost.emplace_back(it->first, it->second.user_data);
      it = s.registry.erase(it);
    }
  } catch (const std::bad_alloc&) {
    // Those not copied stay registered; they are told at the next restart.
  }
  lock.unlock();
  for (const auto& player : lost) {
    call("player callback", [&] {
      callback(static_cast<PavoMediaPluginEvent>(pavo::kPlayerLostEvent), PAVO_MEDIA_ERR_NETWORK,
               player.second, 0, 0.0);
    });
    marks.pop_front();  // this player's dispatch has returned
  }
  return lost.size();
}

Dispatch dispatch_media_sync(PavoMediaSyncMsgType type, const PavoMSEventInfo& info) {
  State& s = state();
  std::unique_lock<std::mutex> lock(s.mutex);
  const PavoMediaSyncCallback callback = g_mediasync_cb;
  const void* const user_data = s.mediasync_userdata;
  if (callback == nullptr || user_data == nullptr) return Dispatch::kNoCallback;
  InFlightMark mark(s, Family::kMediaSync, 0);
  lock.unlock();
  return call("media-sync callback", [&] { callback(type, &info, user_data); });
}

Dispatch dispatch_drm(PavoDrmEvent event, const PavoDrmEventInfo& info, const void* user_data) {
  State& s = state();
  std::unique_lock<std::mutex> lock(s.mutex);
  const PavoDrmCallback callback = s.drmagent_cb;
  if (callback == nullptr) return Dispatch::kNoCallback;
  InFlightMark mark(s, Family::kDrm, 0);
  lock.unlock();
  return call("DRM callback", [&] { callback(event, &info, user_data); });
}

}  // namespace pavo::mediaplayer
