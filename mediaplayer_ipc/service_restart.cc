#include "mediaplayer_ipc/service_restart.h"

#include <cstdio>

#include "mediaplayer_ipc/json_input.h"
#include "mediaplayer_ipc/log_records.h"
#include "mediaplayer_ipc/registry.h"
#include "pavo_ipc.h"
#include "pavo_mediaplayer_ipc.h"

namespace pavo::mediaplayer {
namespace {

constexpr char kFunction[] = "note_service_generation";
constexpr int kMessageType = 1;
constexpr uint32_t kChunkSize = 1024;

// Sends the notice on a handle of its own: restarts are rare, and the
// library keeps no client for its own event queue.
bool send_notice(unsigned generation) {
  char text[128];
  const int length = std::snprintf(
      text, sizeof text,
      "{\"event\": 0, \"event_type\": %d, \"generation\": %u, \"player_id\": 0, \"sub_event\": 0}",
      kRestartNotice, generation);
  if (length <= 0 || static_cast<std::size_t>(length) >= sizeof text) return false;
  pavo_ipc_client* client = nullptr;
  if (pavo_ipc_client_create(static_cast<key_t>(PAVO_MEDIAPLAYER_EVENT_KEY), kMessageType, 0, kChunkSize,
                             &client) != 0) {
    return false;
  }
  pavo_ipc_msg message{static_cast<uint32_t>(length), text};
  const bool sent = pavo_ipc_client_send(client, &message) == 0;
  pavo_ipc_client_destroy(client);
  return sent;
}

}  // namespace

void note_service_generation(unsigned generation) {
  if (generation == 0) return;  // the first service still answers: no lock taken
  if (!advance_generation(generation)) return;
  if (!send_notice(generation)) log_error(kFunction);
}

bool receive_restart_notice(const Json::Value& notice) {
  unsigned generation = 0;
  if (!read_uint(notice, "generation", &generation)) return false;
  dispatch_players_lost(generation);
  return true;
}

}  // namespace pavo::mediaplayer
