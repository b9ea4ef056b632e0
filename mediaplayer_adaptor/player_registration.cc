#include "mediaplayer_adaptor/player_registration.h"

#include "mediaplayer_ipc/registry.h"

namespace pavo::mediaplayer_adaptor {

void set_player_lost_handler(PlayerLostHandler handler) {
  pavo::mediaplayer::set_player_lost_handler(handler);
}

bool player_registered(unsigned player_id, const void* user_data) {
  return pavo::mediaplayer::player_registered(player_id, user_data);
}

void unregister_player(unsigned player_id, const void* user_data) {
  pavo::mediaplayer::unregister_player_of(player_id, user_data);
}

}  // namespace pavo::mediaplayer_adaptor
