// What application threads register and the event thread reads: the player
// registry (player id -> user data of the player callback), the three
// process-wide callback slots (player, media synchronisation, DRM), the
// DRM contexts registered in this process, and the players lost with their
// service, waiting to be told through the in-process player-lost handler.
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
// Lost players: the service keeps every player in its own process, so when
// a new service process answers (advance_generation) or the one that
// answered has ended (lose_all_players), every player registered before is
// gone. Its entry is erased at that moment, under the mutex, in the thread
// that noticed it: the id may be handed out again by the new service and
// registered for another owner, whose entry must not be taken for the old
// one. The old entry's user data waits in a queue until the service
// monitor's thread hands it to the player-lost handler (deliver_players_lost).
// Nothing of this goes through the player callback: that one carries only
// the service's own events.
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
// Erases the player's entry only if it holds `user_data` (an entry of the
// same id made since for another owner stays), drops a player-lost notice
// still queued for `user_data`, and waits for the dispatches of either (not
// on the dispatching thread itself). After it returns, nothing of this
// client calls back with `user_data`.
void unregister_player_of(unsigned player_id, const void* user_data);
// Whether `player_id` is registered with `user_data` (false once its
// service is known to be gone, or the id was registered again for another).
bool player_registered(unsigned player_id, const void* user_data);
// Erases every entry and sets the service generation back to 0 (the client
// handles that counted it are closed). Lost players still queued stay
// queued for the next delivery.
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

// ---- DRM callback and contexts ----
// A null callback clears the slot (and waits as a removal does).
void set_drm_callback(PavoDrmCallback callback);
// Records `user_data` as the context of `agent` (replacing an earlier one of
// the same agent): DRM events may carry it back. False (nothing recorded)
// when out of memory.
bool remember_drm_context(const void* agent, const void* user_data);
// Forgets the context of `agent` and waits as a removal does.
void forget_drm_context(const void* agent);

// ---- Lost players ----
// The in-process receiver of lost players: called once per lost
// registration with its user data, on the service monitor's thread, with no
// lock of this client held. A null handler drops the notices.
using PlayerLostHandler = void (*)(void* user_data);
void set_player_lost_handler(PlayerLostHandler handler);
// Records `generation` (ipc/peer_generation.h) as the current service
// generation if it is newer than the one recorded; then every entry
// registered in an older generation is erased and queued as lost. Returns
// whether it was newer.
bool advance_generation(unsigned generation);
// The service that answered has ended: every entry is erased and queued as
// lost. Returns how many.
std::size_t lose_all_players();
// Whether lost players wait for delivery.
bool players_lost_pending();
// Calls the player-lost handler for each queued lost player, without the
// mutex (unregister_player_of of one of them waits for its call). Returns
// how many were told.
std::size_t deliver_players_lost();

// ---- Dispatch (event thread) ----
// A C++ exception of a callback is reported by the transport's guard and
// swallowed (kCallbackThrew); the forced unwind of thread cancellation
// passes on.
enum class Dispatch { kDelivered, kNoCallback, kNoEntry, kCallbackThrew };
// Calls the player callback with the player's user data. Never inserts.
Dispatch dispatch_player_event(unsigned player_id, PavoMediaPluginEvent event, PavoMediaError error,
                               int data1, double data2);
// Calls the media-sync callback with its user data; no call (kNoCallback)
// when the callback or the user data is null.
Dispatch dispatch_media_sync(PavoMediaSyncMsgType type, const PavoMSEventInfo& info);
// Calls the DRM callback with `claimed` as user data when it is a context
// remembered in this process, else with null (and sets *foreign when
// `claimed` was not null: it is no pointer of ours). No call when the
// callback slot is empty.
Dispatch dispatch_drm(PavoDrmEvent event, const PavoDrmEventInfo& info, const void* claimed,
                      bool* foreign);

}  // namespace pavo::mediaplayer

#endif  // PAVO_MEDIAPLAYER_IPC_REGISTRY_H
