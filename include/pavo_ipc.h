/*
 * Message-queue transport: text messages of up to 16384 bytes between
 * processes over System V message queues.
 *
 * A client end sends one-way messages, or a synchronous request for which it
 * blocks until the reply arrives. A server end owns the queues, runs a
 * receive thread that hands every message to a registered callback, and
 * sends the callback's reply back for synchronous requests. Client and server
 * of one queue pair live in different processes and are created with the
 * same key, msg_type, sync flag and chunk size. A client may be created
 * before its server exists: its sends fail with -3 until the queues exist.
 *
 * Messages are cut into frames of one fixed size (chunk size N: at most N + 1
 * payload bytes per frame) and put back together by the receiver.
 *
 * Result codes (every function returns 0 on success):
 *   -1  message longer than 16384 bytes, send or receive failure, reply
 *       time-out
 *   -3  null or bad argument, empty message, queue that cannot be opened or
 *       created
 *   -4  out of memory
 *   -5  the receive thread could not be started
 *
 * Thread safety: every function may be called from any thread. Calls on one
 * client handle are serialised by the handle's own mutex (one request in
 * flight per handle); different handles share nothing.
 */
#ifndef PAVO_IPC_H
#define PAVO_IPC_H

#include <stdint.h>
#include <sys/types.h>

#include "pavo_export.h"

PAVO_EXTERN_C_BEGIN

/* Longest message, in bytes, that the transport carries. */
#define PAVO_IPC_MAX_MESSAGE 16384

/*
 * One message, request or reply. For text, len counts the bytes without the
 * terminating NUL; text handed out by a receiving side is NUL-terminated.
 */
typedef struct pavo_ipc_msg {
  uint32_t len;
  char* data;
} pavo_ipc_msg;

typedef struct pavo_ipc_client pavo_ipc_client;
typedef struct pavo_ipc_server pavo_ipc_server;

/*
 * Server callback, run on the server's receive thread while the server's
 * mutex is held. `message` and its data belong to the receive thread and are
 * valid only during the call. For a synchronous request the callback returns
 * a reply allocated with C++ new (the record) and malloc/strdup (its data),
 * or null for no reply; the receive thread sends and releases it. For a
 * one-way message the result is ignored: neither sent nor released.
 * The callback must not register or unregister callbacks of its own server.
 */
typedef pavo_ipc_msg* (*pavo_ipc_server_callback)(pavo_ipc_msg* message, void* user_data);

/*
 * Reply callback of pavo_ipc_client_send_sync_with_callback: called with the
 * reply (valid only during the call) and status 0; its result is ignored.
 */
typedef int (*pavo_ipc_reply_callback)(pavo_ipc_msg* reply, int status);

/*
 * Creates a client end for the request queue `key` (replies on key + 1 when
 * `sync` is nonzero). Every frame carries `msg_type` as its message type, and
 * the client waits for replies of that type. No queue is opened yet.
 * Writes the new handle to *handle_out on success.
 * Returns 0; -3 for a null handle_out; -4 out of memory.
 */
PAVO_EXPORT int pavo_ipc_client_create(key_t key, int msg_type, int sync,
                                       uint32_t chunk_size, pavo_ipc_client** handle_out);

/* Releases a client; the queues are left alone. Returns 0; -3 for null. */
PAVO_EXPORT int pavo_ipc_client_destroy(pavo_ipc_client* handle);

/*
 * Sends a one-way message. Never blocks in the kernel: a full queue costs at
 * most five resends 50 ms apart per frame. A queue found removed from the
 * system is opened again (under its key) and the message sent once more.
 * Returns 0; -1 when longer than 16384 bytes or the send failed; -3 for a
 * null argument, len 0, or queues that do not exist (yet).
 */
PAVO_EXPORT int pavo_ipc_client_send(pavo_ipc_client* handle, pavo_ipc_msg* message);

/*
 * Sends a synchronous request and blocks for its reply, at most for the
 * build-time reply time-out (PAVO_IPC_REPLY_TIMEOUT_MS, 0 = no limit).
 * Frames carry no request number: the reply of a request that timed out is
 * owed, and no request is sent while a reply is owed. The next call first
 * waits for the owed reply and discards it, within the same time bound; if
 * it does not come, the call returns -1 without sending its request.
 * On 0, reply_out->data is a NUL-terminated malloc'ed text that the caller
 * releases with free; reply_out->len is the reply's length, or is left as the
 * caller set it when the server had no reply (the text is then "a").
 * On -1 after the wait began (receive failure, time-out, owed reply that did
 * not come), reply_out->data is set to null. Other failures leave reply_out untouched.
 * Returns 0; -1; -3 (null argument, client without sync, chunk size 0,
 * len 0, queues missing); -4 out of memory.
 */
PAVO_EXPORT int pavo_ipc_client_send_sync_with_params(pavo_ipc_client* handle,
                                                      pavo_ipc_msg* request,
                                                      pavo_ipc_msg* reply_out);

/*
 * As pavo_ipc_client_send_sync_with_params, but hands a real reply (not the
 * no-reply answer) to `callback` (may be null) before releasing it.
 * Returns 0; -1; -3; -4.
 */
PAVO_EXPORT int pavo_ipc_client_send_sync_with_callback(pavo_ipc_client* handle,
                                                        pavo_ipc_msg* request,
                                                        pavo_ipc_reply_callback callback);

/*
 * Creates a server end: creates (or opens) the request queue `key` and, when
 * `sync` is nonzero, the reply queue key + 1, and starts the receive thread.
 * The receive thread takes a dropped message (malformed, out of sequence,
 * longer than 16384 bytes) off the queue up to its final frame, and makes
 * its queues again when they are removed from the system.
 * Writes the handle to *handle_out on success.
 * Returns 0; -3 (null handle_out, queue cannot be created); -4; -5.
 */
PAVO_EXPORT int pavo_ipc_server_create(key_t key, int msg_type, int sync, uint32_t chunk_size,
                                       pavo_ipc_server** handle_out);

/*
 * Stops the receive thread and releases the server. Blocks about one second
 * at most: a thread that has not stopped by then is cancelled and waited for.
 * The queues are left in the system. Returns 0; -3 for null.
 * REQUIRES: not called from the server's own callback.
 */
PAVO_EXPORT int pavo_ipc_server_destroy(pavo_ipc_server* handle);

/*
 * Sets the callback and its user data (waits for a running callback to
 * finish). Returns 0; -3 for a null handle.
 */
PAVO_EXPORT int pavo_ipc_server_register_callback(pavo_ipc_server* handle,
                                                  pavo_ipc_server_callback callback,
                                                  void* user_data);

/* Clears the callback and user data. Returns 0; -3 for a null handle. */
PAVO_EXPORT int pavo_ipc_server_unregister_callback(pavo_ipc_server* handle);

/*
 * Framing layer, used by the client and server ends.
 *
 * ipc_snd_internal sends `message` on queue `queue_id` as frames of chunk
 * size `chunk_size`, all of message type `mtype` and frame kind `kind`.
 * Returns 0 (also when a frame was abandoned after its resends); -3 for a
 * null message, chunk size 0 or a negative mtype; -4 out of memory.
 *
 * ipc_rcv_internal blocks for the frames of one message of type `mtype` and
 * gathers their payload into *text (a malloc'ed buffer of *capacity bytes,
 * grown with realloc as needed; the new size is stored back). The text is
 * NUL-terminated; `frame` (at least PAVO_IPC_FRAME_BUFFER_SIZE(chunk_size)
 * bytes) holds the header of the final frame afterwards. A frame with seq_no
 * 1 starts a message. A message of more than 16384 bytes, or one with a
 * malformed or out-of-sequence frame, is dropped once its final frame has
 * been taken off the queue; a frame too short for its header is ignored.
 * Returns 0; -1 receive failure or dropped message; -3 null frame or text
 * pointer, capacity below 1; -4 out of memory (the buffer is left as it was).
 */
PAVO_EXPORT int ipc_snd_internal(int queue_id, long mtype, uint32_t chunk_size,
                                 pavo_ipc_msg* message, int kind);
PAVO_EXPORT int ipc_rcv_internal(int queue_id, long mtype, uint32_t chunk_size, void* frame,
                                 char** text, uint32_t* capacity);

/* Bytes of the frame buffer that a chunk size needs (N + 36 on 32-bit Arm). */
#define PAVO_IPC_FRAME_BUFFER_SIZE(chunk_size) (sizeof(long) + 28u + (chunk_size) + 4u)

PAVO_EXTERN_C_END

#endif /* PAVO_IPC_H */
