#include "mediaplayer_ipc/registry.h"

#include <algorithm>
#include <condition_variable>
#include <limits>
#include <map>
#include <mutex>
#include <new>
#include <thread>
#include <utility>
#include <vector>

#include "base/callback_guard.h"
#include "pavo_mediaplayer_ipc.h"

// Exported callback slots; see registry.h for how they are accessed.
PavoMediaPlayerCallback g_mediaplayer_cb = nullptr;
PavoMediaSyncCallback g_mediasync_cb = nullptr;

namespace pavo::mediaplayer {
namespace {

enum class Family { kPlayer, kPlayerLost, kMediaSync, kDrm };

// A dispatch between copying its registration and the callback's return.
// Lives on the dispatching thread's stack.
struct InFlight {
  Family family;
  unsigned player_id;     // kPlayer only
  const void* user_data;  // kPlayerLost only
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
  std::map<const void*, const void*> drm_contexts;  // agent -> its user data
  PlayerLostHandler lost_handler = nullptr;
  std::vector<std::pair<unsigned, void*>> lost;  // lost registrations not told yet
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
  InFlightMark(State& s, Family family, unsigned player_id, const void* user_data = nullptr)
      : s_(s), node_{family, player_id, user_data, std::this_thread::get_id(), s.in_flight} {
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

void unregister_player_of(unsigned player_id, const void* user_data) {
  State& s = state();
  std::unique_lock<std::mutex> lock(s.mutex);
  const auto it = s.registry.find(player_id);
  if (it != s.registry.end() && it->second.user_data == user_data) s.registry.erase(it);
  s.lost.erase(std::remove_if(s.lost.begin(), s.lost.end(),
                              [user_data](const auto& p) { return p.second == user_data; }),
               s.lost.end());
  wait_for_dispatches(s, lock, [player_id, user_data](const InFlight& n) {
    return (n.family == Family::kPlayer && n.player_id == player_id) ||
           (n.family == Family::kPlayerLost && n.user_data == user_data);
  });
}

bool player_registered(unsigned player_id, const void* user_data) {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  const auto it = s.registry.find(player_id);
  return it != s.registry.end() && it->second.user_data == user_data;
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

bool remember_drm_context(const void* agent, const void* user_data) {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  try {
    s.drm_contexts[agent] = user_data;
  } catch (const std::bad_alloc&) {
    return false;
  }
  return true;
}

void forget_drm_context(const void* agent) {
  State& s = state();
  std::unique_lock<std::mutex> lock(s.mutex);
  if (s.drm_contexts.erase(agent) == 0) return;
  wait_for_dispatches(s, lock, [](const InFlight& n) { return n.family == Family::kDrm; });
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

namespace {

// Erases the entries registered before `generation` (every entry for
// UINT_MAX) and queues them as lost. Returns how many. REQUIRES: mutex held.
std::size_t lose_players_before(State& s, unsigned generation) {
  std::size_t count = 0;
  try {
    for (auto it = s.registry.begin(); it != s.registry.end();) {
      if (it->second.generation >= generation) {
        ++it;
        continue;
      }
      s.lost.emplace_back(it->first, it->second.user_data);
      it = s.registry.erase(it);
      ++count;
    }
  } catch (const std::bad_alloc&) {
    // The entry that could not be queued stays registered (and untold); its
    // requests may reach another player of the same id in the new service.
  }
  return count;
}

}  // namespace

void set_player_lost_handler(PlayerLostHandler handler) {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.lost_handler = handler;
}

bool advance_generation(unsigned generation) {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  if (generation <= s.generation) return false;
  s.generation = generation;
  lose_players_before(s, generation);
  return true;
}

std::size_t lose_all_players() {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  return lose_players_before(s, std::numeric_limits<unsigned>::max());
}

bool players_lost_pending() {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  return !s.lost.empty();
}

std::size_t deliver_players_lost() {
  State& s = state();
  std::size_t told = 0;
  for (;;) {
    std::unique_lock<std::mutex> lock(s.mutex);
    if (s.lost.empty()) return told;
    const PlayerLostHandler handler = s.lost_handler;
    void* const user_data = s.lost.front().second;
    s.lost.erase(s.lost.begin());
    if (handler == nullptr) continue;  // nobody listens: dropped
    InFlightMark mark(s, Family::kPlayerLost, 0, user_data);
    lock.unlock();
    call("player-lost handler", [&] { handler(user_data); });
    ++told;
  }
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

Dispatch dispatch_drm(PavoDrmEvent event, const PavoDrmEventInfo& info, const void* claimed,
                      bool* foreign) {
  State& s = state();
  std::unique_lock<std::mutex> lock(s.mutex);
  const PavoDrmCallback callback = s.drmagent_cb;
  if (callback == nullptr) return Dispatch::kNoCallback;
  const void* user_data = nullptr;
  for (const auto& context : s.drm_contexts) {
    if (context.second == claimed) user_data = claimed;
  }
  *foreign = claimed != nullptr && user_data == nullptr;
  InFlightMark mark(s, Family::kDrm, 0);
  lock.unlock();
  return call("DRM callback", [&] { callback(event, &info, user_data); });
}

}  // namespace pavo::mediaplayer
