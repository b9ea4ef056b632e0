// The one player event that the library makes itself: "the player is gone".
//
// The service's players live in the service process. When the media-player
// client sees that a new service process answers (the old one ended; see
// ipc/peer_generation.h), the players of the old one are gone, and each
// player registered before the change gets this event once through the
// player callback, with the connection error (PAVO_MEDIA_ERR_NETWORK) and
// data 0, 0.0. Its registration is dropped at that moment: the id may be
// handed out again by the new service, so the owner must neither unregister
// nor destroy it any more; it creates a new player when it needs one.
// The service itself never sends an event with this number (its player
// events are 0 to 7).
#ifndef PAVO_BASE_PLAYER_LOST_H
#define PAVO_BASE_PLAYER_LOST_H

namespace pavo {

constexpr int kPlayerLostEvent = 100;

}  // namespace pavo

#endif  // PAVO_BASE_PLAYER_LOST_H
