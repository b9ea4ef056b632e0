/*
 * DRM agent: DRM-system messages, system status, content play and record
 * permissions and licence clearing, carried to the media-player service; the
 * service's DRM events come back through one callback.
 *
 * The library interprets nothing of what it carries: messages, system ids,
 * private data, status numbers and result codes pass through unchanged.
 *
 * Every function checks its required pointer arguments first: a null one
 * returns -3 and nothing else happens (no log record, nothing sent, the
 * callback slot untouched). Otherwise it makes one synchronous request to
 * the service and returns:
 *   - the transport's code when the exchange fails (-1, -3 - also before the
 *     media-player client is initialised -, -4); out-arguments untouched;
 *   - -1 when the reply is empty, not JSON, not a JSON object, or has a
 *     member that cannot be converted to what is read; out-arguments
 *     untouched;
 *   - otherwise the service's "ret" (0 when absent), with every out-argument
 *     written from the reply whatever "ret" says (a missing member reads as
 *     0, false or the empty string).
 *
 * An agent handle is the service's; the library never dereferences it and
 * sends it as its "%p" text.
 *
 * Events. One callback serves every agent of the process (registering for
 * one agent replaces it for all). It runs on the library's event thread, one
 * event at a time, with the user data that the event's own agent registered.
 * A message-result event may arrive before the send that it answers has
 * returned. The callback may call these functions.
 *
 * Thread safety: every function may be called from any thread; requests are
 * serialised (one in flight), and each blocks until the service answers or
 * the reply time-out passes.
 *
 * REQUIRES: the media-player client is initialised
 * (Pavo_MediaPlayer_IPC_Initialize), so that requests and events can travel.
 */
#ifndef PAVO_DRM_AGENT_H
#define PAVO_DRM_AGENT_H

#ifndef __cplusplus
#include <stdbool.h>
#endif

#include "pavo_drm_types.h"
#include "pavo_export.h"

PAVO_EXTERN_C_BEGIN

/* Creates an agent in the service; writes its handle (null when the reply
 * carries none) to *handle. */
PAVO_EXPORT int Pavo_DrmAgent_Create(void** handle);

/* Destroys the agent in the service. The callback stays registered. */
PAVO_EXPORT int Pavo_DrmAgent_Destroy(void* handle);

/*
 * Makes `callback` (null clears it) the DRM callback of every agent, before
 * anything is sent and whatever the request returns; then tells the service
 * to deliver the agent's events with `user_data`, which must not be null.
 * An event is handed to the callback with the user data it carries only
 * while that is the user data of an agent registered in this process (until
 * its UnregisterCallback or Destroy); with any other, with null.
 */
PAVO_EXPORT int Pavo_DrmAgent_RegisterCallback(void* handle, PavoDrmCallback callback,
                                               const void* user_data);

/*
 * Clears the DRM callback of every agent before anything is sent; from then
 * on DRM events are dropped until a callback is registered again. When it
 * returns, no call of the old callback is running on the event thread
 * (unless it is called from that callback).
 * REQUIRES: the caller holds no lock that the callback takes.
 */
PAVO_EXPORT int Pavo_DrmAgent_UnregisterCallback(void* handle);

/*
 * Sends a DRM message. `system_id` may be null (sent as the empty string).
 * On a readable reply the message id is copied into `msg_id` over exactly
 * `msg_id_len` bytes, as strncpy does: a shorter id is NUL-padded, an id of
 * `msg_id_len` characters or more fills the buffer without a terminating
 * NUL. A capacity of 0 leaves the buffer untouched.
 */
PAVO_EXPORT int Pavo_DrmAgent_sendDRMMessage(void* handle, const char* msg_type, const char* msg,
                                             const char* system_id, char* msg_id,
                                             unsigned msg_id_len);

/* Writes the DRM system's status (the service's number) to *status. */
PAVO_EXPORT int Pavo_DrmAgent_DRMSystemStatus(void* handle, const char* system_id, int* status);

/* Writes whether the content may be played / recorded to *result. */
PAVO_EXPORT int Pavo_DrmAgent_canPlayContent(void* handle, const char* private_data,
                                             const char* system_id, bool* result);
PAVO_EXPORT int Pavo_DrmAgent_canRecordContent(void* handle, const char* private_data,
                                               const char* system_id, bool* result);

/* Clears the agent's licences in the service. */
PAVO_EXPORT int Pavo_DrmAgent_clearLicense(void* handle);

PAVO_EXTERN_C_END

#endif /* PAVO_DRM_AGENT_H */
