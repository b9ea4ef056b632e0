#include "ipc/reassembly.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "base/result_codes.h"
#include "ipc/diagnostics.h"

namespace pavo::ipc {
namespace {

bool known_kind(int32_t kind) { return kind >= IPC_MSG_STOP && kind <= IPC_MSG_REPLY_DEADLINE; }

}  // namespace

Reassembly::Reassembly(long mtype, uint32_t chunk_size, char** text, uint32_t* capacity)
    : mtype_(mtype), chunk_size_(chunk_size), text_(text), capacity_(capacity), failure_(kFailed) {}

void Reassembly::restart() {
  offset_ = 0;
  frames_ = 0;
  skipping_ = false;
  began_ = false;
  failure_ = kFailed;
}

void Reassembly::skip(const char* why, const pavo_ipc_frame& frame, std::size_t arrived) {
  report(Stream::kErr, "ipc: dropped a message of type %ld: %s (frame %u, %zu bytes, chunk_len %u)\n",
         mtype_, why, frame.seq_no, arrived, frame.chunk_len);
  skipping_ = true;
}

bool Reassembly::append(const pavo_ipc_frame& frame) {
  const std::size_t chunk_len = frame.chunk_len;
  uint32_t cap = *capacity_;
  if (offset_ + chunk_len >= cap) {
    // Doubling less one keeps one byte free for the terminating NUL; the
    // message cap keeps the buffer at most kMaxMessage + 1 bytes.
    const std::size_t grown =
        std::min<std::size_t>(std::max<std::size_t>(2 * std::size_t{cap} - 1, offset_ + chunk_len + 1),
                              kMaxMessage + 1);
    char* bigger = static_cast<char*>(std::realloc(*text_, grown));
    if (bigger == nullptr) return false;
    *text_ = bigger;
    *capacity_ = static_cast<uint32_t>(grown);
  }
  if (chunk_len > 0) std::memcpy(*text_ + offset_, frame.payload, chunk_len);
  offset_ += chunk_len;
  ++frames_;
  return true;
}

Reassembly::Step Reassembly::add(const pavo_ipc_frame& frame, std::size_t arrived, bool oversized) {
  if (arrived < kHeaderTextBytes) {
    report(Stream::kErr, "ipc: ignored a frame of %zu bytes, shorter than its header\n", arrived);
    return Step::kMore;
  }
  if (frame.seq_no == 1) {
    if (in_message() && !skipping_) {
      report(Stream::kErr, "ipc: dropped a message of type %ld: cut short after %u frames\n", mtype_,
             frames_);
    }
    restart();
    began_ = true;
  }
  if (!skipping_) {
    const std::size_t chunk_len = frame.chunk_len;
    if (frame.seq_no != frames_ + 1) {
      skip("frame out of sequence", frame, arrived);
    } else if (oversized || (mtype_ > 0 && frame.mtype != mtype_) || !known_kind(frame.kind) ||
               chunk_len > chunk_payload(chunk_size_) || chunk_len > arrived - kHeaderTextBytes) {
      skip("malformed frame", frame, arrived);
    } else if (offset_ + chunk_len > kMaxMessage) {
      skip("longer than 16384 bytes", frame, arrived);
    } else if (!append(frame)) {
      skip("out of memory", frame, arrived);
      failure_ = kNoMemory;
    }
  }
  if (!frame.is_last) return Step::kMore;
  if (skipping_) {
    const int failure = failure_;
    dropped_began_ = began_;
    restart();
    failure_ = failure;
    return Step::kDropped;
  }
  (*text_)[offset_] = '\0';
  frames_ = 0;
  began_ = false;
  return Step::kComplete;
}

}  // namespace pavo::ipc
