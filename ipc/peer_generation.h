// The service incarnation behind a synchronous client handle, for the
// library's upper layers (not part of the exported interface).
//
// Every reply is answered by the process that took the request off the
// request queue. The generation starts at 0 and counts one up each time a
// reply comes from another process after the process that answered before
// has ended (processes are told apart by id and start time, so a later
// holder of an ended service's id is another process): the service was
// restarted in between, and whatever it held (its players) is gone. A
// service that is slow, hung and continuing, or answers nothing does not
// change it; neither do failed exchanges, nor another process that reads
// the request queue while the service lives. The generation is noticed only
// when a reply arrives, so a restart is seen at the first exchange answered
// by the new process (or a later one, when another process read the request
// queue in that instant: ipc/client.cc).
#ifndef PAVO_IPC_PEER_GENERATION_H
#define PAVO_IPC_PEER_GENERATION_H

#include "pavo_ipc.h"

namespace pavo::ipc {

// The generation of `client`'s peer; 0 for a null handle and before the
// second process has answered. Never blocks (an atomic read): any thread,
// also while another thread waits in an exchange on the handle.
unsigned client_peer_generation(const pavo_ipc_client* client);

// Whether the service process that last answered on `client` is known to
// have ended: it no longer exists, is a zombie, or its id now names another
// process. False for a null handle, before the first answer, and while the
// process exists but /proc does not show it (another user's, under a
// restrictive /proc). Lock-free and cheap (an atomic read, a kill(0) and one
// small /proc read); never blocks: any thread, also during an exchange. It
// turns false again once a new service's answer has been taken for the
// service.
bool client_peer_ended(const pavo_ipc_client* client);

}  // namespace pavo::ipc

#endif  // PAVO_IPC_PEER_GENERATION_H
