#include "mediaplayer_ipc/service_monitor.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <exception>
#include <thread>

#include "ipc/peer_generation.h"
#include "mediaplayer_ipc/endpoints.h"
#include "mediaplayer_ipc/log_records.h"
#include "mediaplayer_ipc/registry.h"

namespace pavo::mediaplayer {
namespace {

constexpr char kFunction[] = "MediaPlayerIPCServiceMonitor";
constexpr auto kTick = std::chrono::milliseconds(250);
constexpr int kServers = 2;

// Created at first use and never destroyed, as the thread that waits on it
// may outlive the static destructors of a process that exits without
// Finalize.
struct Signals {
  std::mutex mutex;
  std::condition_variable wake;
  bool stop = false;   // guarded by mutex
  bool woken = false;  // guarded by mutex
};

Signals& signals() {
  static Signals* const s = new Signals;
  return *s;
}
// Started and joined under the caller's lifecycle lock. Held by pointer and
// never destroyed while it runs: a process that exits without Finalize must
// not meet a joinable std::thread among its static destructors.
std::thread* g_thread = nullptr;

std::atomic<bool> g_exit_seen[kServers];

using Clock = std::chrono::steady_clock;

// The monitor thread's own memory between ticks.
struct Watch {
  bool peer_ended = false;  // the answering process was seen ended
  // When the monitor first saw an exit message noted for each server; unset
  // while none is pending.
  Clock::time_point exit_seen_at[kServers] = {};
};

void watch_peer(Watch& w) {
  bool ended;
  {
    const ClientLease client(ClientLease::kRequest);
    ended = pavo::ipc::client_peer_ended(client.get());
  }
  if (ended && !w.peer_ended) {
    log_error(kFunction);  // the service has ended: its players are gone
    lose_all_players();
  }
  w.peer_ended = ended;
}

// A server whose exit the monitor saw noted a tick or more ago is made anew:
// its receive thread returned right after the callback that noted it (the
// wait lets it get there: destroying a server whose thread is just ending
// would leave the stop frame in the queue, for the new server to stop on).
void watch_servers(Watch& w) {
  const Clock::time_point now = Clock::now();
  for (int i = 0; i < kServers; ++i) {
    Clock::time_point& seen_at = w.exit_seen_at[i];
    if (seen_at == Clock::time_point{}) {
      if (g_exit_seen[i].exchange(false)) seen_at = now;
    } else if (now - seen_at >= kTick && reopen_server(static_cast<Server>(i))) {
      seen_at = Clock::time_point{};
    }
  }
}

void run() {
  Watch w;
  Signals& s = signals();
  std::unique_lock<std::mutex> lock(s.mutex);
  while (!s.stop) {
    s.wake.wait_for(lock, kTick, [&s] { return s.stop || s.woken; });
    s.woken = false;
    lock.unlock();
    watch_peer(w);
    watch_servers(w);
    deliver_players_lost();
    lock.lock();
  }
  lock.unlock();
  deliver_players_lost();
}

void wake() {
  Signals& s = signals();
  {
    std::lock_guard<std::mutex> lock(s.mutex);
    s.woken = true;
  }
  s.wake.notify_all();
}

}  // namespace

void note_service_generation(unsigned generation) {
  if (generation == 0) return;  // the first service still answers: no lock taken
  if (advance_generation(generation)) wake();
}

void note_exit_message(Server server) { g_exit_seen[static_cast<int>(server)].store(true); }

bool start_monitor() {
  if (g_thread != nullptr) return true;
  {
    std::lock_guard<std::mutex> lock(signals().mutex);
    signals().stop = false;
  }
  for (auto& seen : g_exit_seen) seen.store(false);
  try {
    g_thread = new std::thread(run);
  } catch (const std::exception&) {  // no thread, or no memory for it
    log_error(kFunction);
    return false;
  }
  return true;
}

void stop_monitor() {
  if (g_thread == nullptr) return;
  {
    std::lock_guard<std::mutex> lock(signals().mutex);
    signals().stop = true;
  }
  signals().wake.notify_all();
  g_thread->join();
  delete g_thread;
  g_thread = nullptr;
}

}  // namespace pavo::mediaplayer
