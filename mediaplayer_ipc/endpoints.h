// The client's four queue endpoints, opened by Pavo_MediaPlayer_IPC_Initialize
// and closed by Pavo_MediaPlayer_IPC_Finalize (pavo_mediaplayer_ipc.h).
//
//   request client   0x95000100 (replies 0x95000101)  every command
//   notice client    0x95000080                       one-way notices
//   request server   0x95000090 (replies 0x95000091)  the service's requests
//   event server     0x95000070                       the service's events
//
// Thread safety: Initialize and Finalize are serialised among themselves.
// The client handles are published with atomic stores and read with atomic
// loads, so commands on other threads see either null or a complete handle.
// REQUIRES: no command runs while Finalize closes the clients, and neither
// Initialize nor Finalize is called from a callback of the event thread.
#ifndef PAVO_MEDIAPLAYER_IPC_ENDPOINTS_H
#define PAVO_MEDIAPLAYER_IPC_ENDPOINTS_H

#include "pavo_ipc.h"

namespace pavo::mediaplayer {

// The request client and the notice client; null while closed.
pavo_ipc_client* request_client();
pavo_ipc_client* notice_client();

}  // namespace pavo::mediaplayer

#endif  // PAVO_MEDIAPLAYER_IPC_ENDPOINTS_H
