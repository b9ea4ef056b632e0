// Opening and closing the four endpoints, in the order that lets a failed
// Initialize be completed by the next one and a failed Finalize be finished
// by the next one.
#include "mediaplayer_ipc/endpoints.h"

#include <condition_variable>
#include <mutex>

#include "base/result_codes.h"
#include "mediaplayer_ipc/event_reception.h"
#include "mediaplayer_ipc/log_records.h"
#include "mediaplayer_ipc/registry.h"
#include "pavo_mediaplayer_ipc.h"

// Exported client handles (read them with __atomic_load_n).
pavo_ipc_client* g_mediaplayer_ipc_client_handle = nullptr;
pavo_ipc_client* g_mediaplayer_ipc_client_async_handle = nullptr;

namespace pavo::mediaplayer {
namespace {

constexpr int kMessageType = 1;
constexpr uint32_t kChunkSize = 1024;

std::mutex g_lifecycle;  // serialises Initialize and Finalize

std::mutex g_lease_mutex;
std::condition_variable g_lease_returned;
int g_leases = 0;  // guarded by g_lease_mutex
pavo_ipc_server* g_mediaplayer_ipc_server_handle = nullptr;        // guarded by g_lifecycle
pavo_ipc_server* g_mediaplayer_ipc_server_async_handle = nullptr;  // guarded by g_lifecycle
// A server that reopen_server destroyed and could not make again yet, by
// Server value; guarded by g_lifecycle.
bool g_reopen_failed[2] = {};

key_t key_of(unsigned long key) { return static_cast<key_t>(key); }

pavo_ipc_client* load(pavo_ipc_client* const* slot) { return __atomic_load_n(slot, __ATOMIC_ACQUIRE); }
void publish(pavo_ipc_client** slot, pavo_ipc_client* client) {
  __atomic_store_n(slot, client, __ATOMIC_RELEASE);
}

// Creates the server if missing and (again) registers its callback; a failed
// registration destroys the server. Returns false after logging the failure.
bool open_server(pavo_ipc_server** server, key_t key, int sync, pavo_ipc_server_callback callback,
                 const char* function) {
  if (*server == nullptr) {
    pavo_ipc_server* created = nullptr;
    if (pavo_ipc_server_create(key, kMessageType, sync, kChunkSize, &created) != 0) {
      log_error(function);
      return false;
    }
    *server = created;
  }
  if (pavo_ipc_server_register_callback(*server, callback, nullptr) != 0) {
    log_error(function);
    if (pavo_ipc_server_destroy(*server) != 0) log_error(function);
    *server = nullptr;
    return false;
  }
  return true;
}

// Creates the client if missing; a failure takes back the server opened with
// it (unregister, destroy; each failure logged, and the next step taken).
bool open_client(pavo_ipc_client** client, key_t key, int sync, pavo_ipc_server** server,
                 const char* function) {
  if (load(client) != nullptr) return true;
  pavo_ipc_client* created = nullptr;
  if (pavo_ipc_client_create(key, kMessageType, sync, kChunkSize, &created) != 0) {
    log_error(function);
    if (pavo_ipc_server_unregister_callback(*server) != 0) log_error(function);
    if (pavo_ipc_server_destroy(*server) != 0) log_error(function);
    *server = nullptr;
    return false;
  }
  publish(client, created);
  return true;
}

// Closes a client: new sends see null at once; the client goes when the
// sends in flight have returned their leases.
bool close_client(pavo_ipc_client** client, const char* function) {
  pavo_ipc_client* open = load(client);
  if (open == nullptr) return true;
  {
    std::unique_lock<std::mutex> lock(g_lease_mutex);
    publish(client, nullptr);
    g_lease_returned.wait(lock, [] { return g_leases == 0; });
  }
  if (pavo_ipc_client_destroy(open) != 0) {
    log_error(function);
    return false;
  }
  return true;
}

bool close_server(pavo_ipc_server** server, const char* function) {
  if (*server == nullptr) return true;
  if (pavo_ipc_server_unregister_callback(*server) != 0 || pavo_ipc_server_destroy(*server) != 0) {
    log_error(function);
    return false;
  }
  *server = nullptr;
  return true;
}

}  // namespace

bool reopen_server(Server server) {
  static constexpr char kFunction[] = "MediaPlayerIPCServiceMonitor";
  std::unique_lock<std::mutex> lock(g_lifecycle, std::try_to_lock);
  if (!lock.owns_lock()) return false;
  const bool event = server == Server::kEvent;
  pavo_ipc_server** slot = event ? &g_mediaplayer_ipc_server_async_handle : &g_mediaplayer_ipc_server_handle;
  bool& failed = g_reopen_failed[static_cast<int>(server)];
  if (*slot == nullptr && !failed) return true;  // closed: nothing to keep listening
  if (!failed) {
    // Reported once: the server had stopped without being asked.
    pavo_log_print(PAVO_LOG_TYPE_STRING, kLogModule, __FILE__, kFunction, __LINE__, "server stopped, made anew",
                   event ? "0x95000070" : "0x95000090");
  }
  if (!close_server(slot, kFunction)) return false;
  failed = !(event ? open_server(slot, key_of(PAVO_MEDIAPLAYER_EVENT_KEY), 0, MediaPlayerIPCAsyncCallback, kFunction)
                   : open_server(slot, key_of(PAVO_MEDIAPLAYER_SERVICE_REQUEST_KEY), 1, MediaPlayerIPCCallback,
                                 kFunction));
  return !failed;
}

ClientLease::ClientLease(Which which) {
  std::lock_guard<std::mutex> lock(g_lease_mutex);
  ++g_leases;
  client_ = load(which == kRequest ? &g_mediaplayer_ipc_client_handle : &g_mediaplayer_ipc_client_async_handle);
}

ClientLease::~ClientLease() {
  {
    std::lock_guard<std::mutex> lock(g_lease_mutex);
    --g_leases;
  }
  g_lease_returned.notify_all();
}

}  // namespace pavo::mediaplayer

using namespace pavo::mediaplayer;

int Pavo_MediaPlayer_IPC_Initialize(int) {
  log_enter(__func__);
  std::lock_guard<std::mutex> lock(g_lifecycle);
  g_reopen_failed[0] = g_reopen_failed[1] = false;  // the servers are opened here
  // The request server and client; they stay open when what follows fails.
  if (!open_server(&g_mediaplayer_ipc_server_handle, key_of(PAVO_MEDIAPLAYER_SERVICE_REQUEST_KEY), 1,
                   MediaPlayerIPCCallback, __func__) ||
      !open_client(&g_mediaplayer_ipc_client_handle, key_of(PAVO_MEDIAPLAYER_REQUEST_KEY), 1,
                   &g_mediaplayer_ipc_server_handle, __func__)) {
    return pavo::kFailed;
  }
  // The event server and the notice client; a failure here takes back only
  // the event server.
  if (!open_server(&g_mediaplayer_ipc_server_async_handle, key_of(PAVO_MEDIAPLAYER_EVENT_KEY), 0,
                   MediaPlayerIPCAsyncCallback, __func__) ||
      !open_client(&g_mediaplayer_ipc_client_async_handle, key_of(PAVO_MEDIAPLAYER_NOTICE_KEY), 0,
                   &g_mediaplayer_ipc_server_async_handle, __func__)) {
    return pavo::kFailed;
  }
  if (!start_monitor()) return pavo::kFailed;
  log_leave(__func__);
  return 0;
}

int Pavo_MediaPlayer_IPC_Finalize() {
  log_enter(__func__);
  std::lock_guard<std::mutex> lock(g_lifecycle);
  stop_monitor();
  g_reopen_failed[0] = g_reopen_failed[1] = false;
  if (!close_client(&g_mediaplayer_ipc_client_handle, __func__) ||
      !close_server(&g_mediaplayer_ipc_server_handle, __func__) ||
      !close_client(&g_mediaplayer_ipc_client_async_handle, __func__) ||
      !close_server(&g_mediaplayer_ipc_server_async_handle, __func__)) {
    return pavo::kFailed;
  }
  clear_players();
  log_leave(__func__);
  return 0;
}
