// What application threads register and the event thread reads: the player
// registry (player id -> user data of the player callback) and the three
// process-wide callback slots (player, media synchronisation, DRM).
//
// Thread safety: one mutex guards all of it. A dispatch copies what it needs
// under the mutex, marks itself in flight, releases the mutex and only then
// calls the callback, so a callback may register or unregister anything.
// Removing a registration (a player's entry, the media-sync pair, the DRM
// callback) waits until the dispatches that still use it have returned, so
// that its user data may be released as soon as the removal returns; on the
// dispatching thread itself (a callback that unregisters) it does not wait.
// REQUIRES: a removal is not made while holding a lock that a callback of
// the same registration takes.
//
// The exported slots g_mediaplayer_cb and g_mediasync_cb are plain pointers
// (their type is part of the interface). They are written only here, under
// the mutex and with atomic stores, so outside code may read them with
// atomic loads (__atomic_load_n) at any time.
#ifndef PAVO_MEDIAPLAYER_IPC_REGISTRY_H
#define PAVO_MEDIAPLAYER_IPC_REGISTRY_H

#include <cstddef>
#include <optional>

#include "pavo_media_types.h"

namespace pavo::mediaplayer {

// ---- Player callback and registry ----
// Stores `callback` as the one player callback (last registered wins) and
// sets the player's user data, inserting its entry if missing. The entry is
// stamped with the current service generation (advance_generation).
// Returns false (nothing changed) when the entry cannot be allocated.
bool register_player(unsigned player_id, PavoMediaPlayerCallback callback, void* user_data);
// Erases the player's entry if there is one; the callback slot keeps its value.
void unregister_player(unsigned player_id);
// Erases every entry and sets the service generation back to 0 (the client
// handles that counted it are closed).
void clear_players();
// The player's user data, if it has an entry.
std::optional<void*> player_user_data(unsigned player_id);
std::size_t player_count();

// ---- Media-synchronisation callback and its user data (one pair) ----
void set_media_sync(PavoMediaSyncCallback callback, const void* user_data);
void clear_media_sync();
// Whether both the callback and its user data are set (messages are
// delivered only then).
bool media_sync_registered();

// ---- DRM callback ----
// A null callback clears the slot (and waits as a removal does).
void set_drm_callback(PavoDrmCallback callback);

// ---- Service restarts ----
// Records `generation` (ipc/peer_generation.h) as the current service
// generation if it is newer than the one recorded; returns whether it was.
bool advance_generation(unsigned generation);

// ---- Dispatch (event thread) ----
// A C++ exception of a callback is reported by the transport's guard and
// swallowed (kCallbackThrew); the forced unwind of thread cancellation
// passes on.
enum class Dispatch { kDelivered, kNoCallback, kNoEntry, kCallbackThrew };
// Calls the player callback with the player's user data. Never inserts.
Dispatch dispatch_player_event(unsigned player_id, PavoMediaPluginEvent event, PavoMediaError error,
                               int data1, double data2);
// Tells every player registered before service generation `generation` that
// it is gone (pavo::kPlayerLostEvent, base/player_lost.h): erases their
// entries, then calls the player callback once for each, without the mutex.
// An unregistration of one of those ids waits for its call as for any
// dispatch. Returns how many were told.
std::size_t dispatch_players_lost(unsigned generation);
// Calls the media-sync callback with its user data; no call (kNoCallback)
// when the callback or the user data is null.
Dispatch dispatch_media_sync(PavoMediaSyncMsgType type, const PavoMSEventInfo& info);
// Calls the DRM callback with `user_data`; no call when it is null.
Dispatch dispatch_drm(PavoDrmEvent event, const PavoDrmEventInfo& info, const void* user_data);

}  // namespace pavo::mediaplayer

#endif  // PAVO_MEDIAPLAYER_IPC_REGISTRY_H
