// The service incarnation behind a synchronous client handle, for the
// library's upper layers (not part of the exported interface).
//
// Every reply is answered by the process that took the request off the
// request queue. The generation starts at 0 and counts one up each time a
// reply comes from another process than the previous reply did: the service
// was restarted in between, and whatever it held (its players) is gone. A
// service that is slow, hung and continuing, or answers nothing does not
// change it; neither do failed exchanges. The generation is noticed only
// when a reply arrives, so a restart is seen at the first exchange answered
// by the new process.
#ifndef PAVO_IPC_PEER_GENERATION_H
#define PAVO_IPC_PEER_GENERATION_H

#include "pavo_ipc.h"

namespace pavo::ipc {

// The generation of `client`'s peer; 0 for a null handle and before the
// second process has answered. Never blocks (an atomic read): any thread,
// also while another thread waits in an exchange on the handle.
unsigned client_peer_generation(const pavo_ipc_client* client);

// Whether the service process that last answered on `client` is known to
// have ended (nobody answers for it any more). False for a null handle and
// before the first answer. Never blocks for long (a kill(0) and a /proc
// read, without the handle's lock): any thread, also during an exchange.
bool client_peer_ended(const pavo_ipc_client* client);

}  // namespace pavo::ipc

#endif  // PAVO_IPC_PEER_GENERATION_H
