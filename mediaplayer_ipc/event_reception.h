// The server callbacks through which the media-player service reaches the
// library, registered by Pavo_MediaPlayer_IPC_Initialize:
//
// MediaPlayerIPCAsyncCallback, on the event server (0x95000070): one JSON
// object per one-way message. "event_type" chooses the family: 0 a player
// event (to the player callback, with the registered user data of its
// "player_id"), 1 a media-synchronisation message (to the media-sync
// callback), 3 a DRM event (to the DRM callback, with the pointer whose "%p"
// text is its "context" when that is the user data of an agent registered
// in this process, else with null and an error record); other families are
// ignored. A player event's number is passed on as the service sent it.
// Always returns null.
//
// MediaPlayerIPCCallback, on the request server (0x95000090): answers one
// service request. {"event_type":2,"source":n} switches the display source
// through the platform and answers {"ret": its result}; any other request
// number answers {"ret":0}. Returns the reply (record allocated with new, its
// text with malloc) for the transport to send and release, or null (the
// transport then sends its no-reply answer).
//
// Hostile input: a missing, empty or unparsable text, a text that is not a
// JSON object, or a member that jsoncpp cannot convert to what is read
// (a string where a number is expected, a number beyond the 32-bit range)
// drops the message with an error record (a request is left without reply).
// Neither callback throws, so the receive threads survive anything. A
// message that begins with "exit" ends the receive thread in the transport:
// both callbacks report it to the service monitor (service_monitor.h),
// which makes the server anew.
//
// Thread safety: each runs on its own server's receive thread; the
// callbacks they call run on that thread, without any lock of this client
// held (see registry.h).
#ifndef PAVO_MEDIAPLAYER_IPC_EVENT_RECEPTION_H
#define PAVO_MEDIAPLAYER_IPC_EVENT_RECEPTION_H

#include "pavo_ipc.h"

namespace pavo::mediaplayer {

pavo_ipc_msg* MediaPlayerIPCAsyncCallback(pavo_ipc_msg* message, void* user_data);
pavo_ipc_msg* MediaPlayerIPCCallback(pavo_ipc_msg* request, void* user_data);

}  // namespace pavo::mediaplayer

#endif  // PAVO_MEDIAPLAYER_IPC_EVENT_RECEPTION_H
