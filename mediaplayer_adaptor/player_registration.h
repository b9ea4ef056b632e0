// What the A/V control layer needs of the media-player client's player
// registry beyond the exported adaptor: whether its registration still
// stands, removing exactly its own registration, and the in-process
// notification that its player is gone with its service. Internal to the
// library (hidden symbols); see mediaplayer_ipc/registry.h for the model.
//
// A player's registration dies the moment the client learns that the
// service process holding the player is gone (a new process answers, or the
// one that answered has ended): the same id may then name another owner's
// player of the new service, so an owner whose registration is dead must
// not send requests for its id, nor unregister or destroy it.
//
// Thread safety: any thread.
#ifndef PAVO_MEDIAPLAYER_ADAPTOR_PLAYER_REGISTRATION_H
#define PAVO_MEDIAPLAYER_ADAPTOR_PLAYER_REGISTRATION_H

namespace pavo::mediaplayer_adaptor {

// Called once for each registration lost with its service, with the
// registration's user data, on the client's monitor thread, with no lock of
// the client held. It may unregister anything, itself included.
using PlayerLostHandler = void (*)(void* user_data);

// Sets the one handler (last one wins; null drops the notices).
void set_player_lost_handler(PlayerLostHandler handler);

// Whether `player_id` is registered with `user_data`. Never blocks for long.
bool player_registered(unsigned player_id, const void* user_data);

// Removes the registration of `player_id` only if it holds `user_data`, and
// any player-lost notice still due for `user_data`; waits for a callback or
// handler call with it that runs on another thread. After it returns the
// client holds `user_data` no more. REQUIRES: no lock held that such a call
// takes.
void unregister_player(unsigned player_id, const void* user_data);

}  // namespace pavo::mediaplayer_adaptor

#endif  // PAVO_MEDIAPLAYER_ADAPTOR_PLAYER_REGISTRATION_H
