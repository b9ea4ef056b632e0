#include "mediaplayer_ipc/service_monitor.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <system_error>
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

std::mutex g_mutex;
std::condition_variable g_wake;
bool g_stop = false;   // guarded by g_mutex
bool g_woken = false;  // guarded by g_mutex
std::thread g_thread;  // started and joined under the caller's lifecycle lock

std::atomic<bool> g_exit_seen[kServers];

// The monitor thread's own memory between ticks.
struct Watch {
  bool peer_ended = false;              // the answering process was seen ended
  bool exit_pending[kServers] = {};     // an exit message was noted a tick ago
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

// A server whose exit was noted on the previous tick is made anew now: its
// receive thread returned right after the callback that noted it.
void watch_servers(Watch& w) {
  for (int i = 0; i < kServers; ++i) {
    if (w.exit_pending[i]) {
      if (reopen_server(static_cast<Server>(i))) w.exit_pending[i] = false;
    } else if (g_exit_seen[i].exchange(false)) {
      w.exit_pending[i] = true;
    }
  }
}

void run() {
  Watch w;
  std::unique_lock<std::mutex> lock(g_mutex);
  while (!g_stop) {
    g_wake.wait_for(lock, kTick, [] { return g_stop || g_woken; });
    g_woken = false;
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
  {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_woken = true;
  }
  g_wake.notify_all();
}

}  // namespace

void note_service_generation(unsigned generation) {
  if (generation == 0) return;  // the first service still answers: no lock taken
  if (advance_generation(generation)) wake();
}

void note_exit_message(Server server) { g_exit_seen[static_cast<int>(server)].store(true); }

bool start_monitor() {
  if (g_thread.joinable()) return true;
  {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_stop = false;
  }
  for (auto& seen : g_exit_seen) seen.store(false);
  try {
    g_thread = std::thread(run);
  } catch (const std::system_error&) {
    log_error(kFunction);
    return false;
  }
  return true;
}

void stop_monitor() {
  if (!g_thread.joinable()) return;
  {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_stop = true;
  }
  g_wake.notify_all();
  g_thread.join();
}

}  // namespace pavo::mediaplayer
