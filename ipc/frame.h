// Queue frame: one System V message of the transport, as it lies in memory.
//
// The kernel's message text is everything behind `mtype`: seven 32-bit header
// words (28 bytes) and N + 4 payload bytes, so msgsnd/msgrcv always pass
// N + 32 bytes. `mtype` is a C long (8 bytes on x86-64, 4 on 32-bit Arm); the
// message text is the same bytes on every architecture.
#ifndef PAVO_IPC_FRAME_H
#define PAVO_IPC_FRAME_H

#include <cstddef>
#include <cstdint>

namespace pavo::ipc {

// Frame kinds.
enum FrameKind : int32_t {
  IPC_MSG_STOP = 0,           // stop order for a server's own receive thread (total_len 0)
  IPC_MSG_ASYNC = 1,          // one-way message
  IPC_MSG_SYNC_REQUEST = 2,   // request that waits for a reply
  IPC_MSG_SYNC_REPLY = 3,     // the server callback's reply
  IPC_MSG_SYNC_NO_REPLY = 4,  // answer when no reply could be produced: text "a"
  // Library-internal: queued by this process on its own reply queue when the
  // wait for a reply reaches its deadline, to end the blocking receive. Never
  // sent to another process's queue.
  IPC_MSG_REPLY_DEADLINE = 5,
};

struct pavo_ipc_frame {
  long mtype;              // message type: the sender's msg_type (a reply: the request's)
  int32_t kind;            // FrameKind
  uint32_t total_len;      // length of the whole message, the same in every chunk
  uint32_t seq_no;         // 1 for the first chunk, one more for each further chunk
  uint32_t is_last;        // 1 in the final chunk of a message
  uint32_t reserved_one;   // always 1, never examined
  uint32_t reserved_zero;  // always 0, never examined
  uint32_t chunk_len;      // payload bytes in this chunk
  char payload[];          // N + 4 bytes; the bytes behind chunk_len are zero
};

// Bytes of message text behind mtype that carry the header words.
constexpr std::size_t kHeaderTextBytes = 28;
constexpr std::size_t kPayloadOffset = offsetof(pavo_ipc_frame, payload);
static_assert(kPayloadOffset == sizeof(long) + kHeaderTextBytes,
              "the header words must follow mtype without padding");

constexpr uint32_t kMaxMessage = 16384;

// Payload bytes carried by one chunk: N + 1.
constexpr std::size_t chunk_payload(uint32_t chunk_size) { return std::size_t{chunk_size} + 1; }
// Size passed to msgsnd/msgrcv: N + 32.
constexpr std::size_t message_text_size(uint32_t chunk_size) {
  return std::size_t{chunk_size} + kHeaderTextBytes + 4;
}
// Frame buffer in memory: mtype, header words and N + 4 payload bytes.
constexpr std::size_t frame_buffer_size(uint32_t chunk_size) {
  return kPayloadOffset + std::size_t{chunk_size} + 4;
}

}  // namespace pavo::ipc

#endif  // PAVO_IPC_FRAME_H
