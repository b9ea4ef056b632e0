// Service restarts as the media-player client handles them.
//
// The service keeps every player in its own process, so a restarted
// service knows none of the players made before. After each exchange the
// request frame hands the request client's peer generation
// (ipc/peer_generation.h) to note_service_generation(). A newer generation
// is recorded in the registry (players registered from then on belong to
// the new service) and announced to the event thread by a restart notice: a
// one-way message on the library's own event queue (0x95000070),
//   {"event_type": 100, "event": 0, "player_id": 0, "sub_event": 0,
//    "generation": n}
// On the event thread the notice tells every player registered before
// generation n that it is gone (registry.h, dispatch_players_lost).
//
// Why through the event thread: the exchange that notices the restart may
// run under a lock of its caller (an A/V control object's op_mutex), and
// the player callback, which posts to the page, must run without it; the
// event thread holds no lock of anyone, and the notice comes after the
// events that the old service had already queued.
//
// While the same service process answers, nothing of this sends anything.
// A page that makes no call is told at the next exchange of any thread
// (every request counts, such as a position poll of another page).
//
// Thread safety: any thread; the registry's mutex orders the generations.
#ifndef PAVO_MEDIAPLAYER_IPC_SERVICE_RESTART_H
#define PAVO_MEDIAPLAYER_IPC_SERVICE_RESTART_H

#include <json/json.h>

namespace pavo::mediaplayer {

// The event family of the restart notice.
constexpr int kRestartNotice = 100;

// Records `generation` and sends the restart notice when it is newer than
// the one recorded. A notice that cannot be sent is logged and lost (its
// players are told at the next restart). Blocks only for the one-way send.
void note_service_generation(unsigned generation);

// Event thread: handles a restart notice. Returns false for an unreadable
// one. Throws std::bad_alloc only.
bool receive_restart_notice(const Json::Value& notice);

}  // namespace pavo::mediaplayer

#endif  // PAVO_MEDIAPLAYER_IPC_SERVICE_RESTART_H
