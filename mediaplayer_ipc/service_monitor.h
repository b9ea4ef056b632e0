// The service monitor: the media-player client's own thread for what the
// service's process and other local processes cannot be trusted to say.
//
// The service keeps every player in its own process. The client learns that
// those players are gone in two ways, both inside this process:
//   - a reply comes from a new service process (ipc/peer_generation.h): the
//     thread of that exchange calls note_service_generation(), which drops
//     the old registrations at once (registry.h) and wakes the monitor;
//   - the process that last answered has ended (client_peer_ended): the
//     monitor polls it every tick and, once per ended process, drops every
//     registration.
// The monitor then hands each lost registration to the player-lost handler
// (registry.h, deliver_players_lost), on its own thread, which holds no lock
// of anyone: the exchange that noticed the restart may run under a lock of
// its caller (an A/V control object's op_mutex).
//
// It also keeps the client's two servers (the event server 0x95000070 and
// the service-request server 0x95000090) listening. The transport ends a
// server's receive thread after a one-way message that begins with "exit",
// and any local process can send one. The receive callbacks report such a
// message (note_exit_message); one tick later, when the receive thread has
// surely returned, the monitor makes that server anew (endpoints.h) and
// logs it once. A server is back within about half a second.
//
// No message of any queue can start or steer any of this: its signals
// travel inside the process.
//
// Ticks: every 250 ms, and at once when woken by a new generation.
// Thread safety: any thread, except as stated.
#ifndef PAVO_MEDIAPLAYER_IPC_SERVICE_MONITOR_H
#define PAVO_MEDIAPLAYER_IPC_SERVICE_MONITOR_H

namespace pavo::mediaplayer {

// The client's servers, as the monitor names them.
enum class Server { kRequest = 0, kEvent = 1 };

// Records `generation` of the request client's peer after an exchange. A
// newer one drops the registrations of the older service processes and
// wakes the monitor to tell their owners. Never blocks beyond the registry's
// mutex; sends nothing.
void note_service_generation(unsigned generation);

// Called by a receive callback for a message that ends its receive thread.
// Never blocks (an atomic store).
void note_exit_message(Server server);

// Starts the monitor thread unless it runs. Returns false (logged) when the
// thread cannot be started. Called by Initialize, under its lifecycle lock.
bool start_monitor();

// Stops and joins the monitor thread (a tick in progress finishes first;
// lost players still queued are told before it returns). Called by
// Finalize, under its lifecycle lock. REQUIRES: not called from the
// player-lost handler.
void stop_monitor();

}  // namespace pavo::mediaplayer

#endif  // PAVO_MEDIAPLAYER_IPC_SERVICE_MONITOR_H
