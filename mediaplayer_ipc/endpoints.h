// The client's four queue endpoints, opened by Pavo_MediaPlayer_IPC_Initialize
// and closed by Pavo_MediaPlayer_IPC_Finalize (pavo_mediaplayer_ipc.h).
//
//   request client   0x95000100 (replies 0x95000101)  every command
//   notice client    0x95000080                       one-way notices
//   request server   0x95000090 (replies 0x95000091)  the service's requests
//   event server     0x95000070                       the service's events
//
// Thread safety: Initialize and Finalize are serialised among themselves.
// The client handles are published with atomic stores. A send holds a
// ClientLease for its whole exchange, and Finalize destroys a client only
// when no lease is held (a send in flight ends at the latest with the reply
// time-out), so a command on another thread, or on the event thread inside a
// callback, never finds its client destroyed under it.
// REQUIRES: neither Initialize nor Finalize is called from a callback of the
// event thread.
#ifndef PAVO_MEDIAPLAYER_IPC_ENDPOINTS_H
#define PAVO_MEDIAPLAYER_IPC_ENDPOINTS_H

#include "mediaplayer_ipc/service_monitor.h"
#include "pavo_ipc.h"

namespace pavo::mediaplayer {

// Makes `server` anew (destroys it, then creates it and registers its
// callback again), for the service monitor when the server's receive thread
// has ended. Returns true when done, or when the client is closed or the
// server was not open (nothing to do); false when Initialize or Finalize
// runs at the moment (try again later) or the new server could not be made
// (logged; tried again on the next call). Blocks for the destruction (about
// one second at most). Never waits for the lifecycle lock.
bool reopen_server(Server server);

// One of the two clients, held for one send; get() is null while closed.
class ClientLease {
 public:
  enum Which { kRequest, kNotice };
  explicit ClientLease(Which which);
  ~ClientLease();
  ClientLease(const ClientLease&) = delete;
  ClientLease& operator=(const ClientLease&) = delete;
  pavo_ipc_client* get() const { return client_; }

 private:
  pavo_ipc_client* client_;
};

}  // namespace pavo::mediaplayer

#endif  // PAVO_MEDIAPLAYER_IPC_ENDPOINTS_H
