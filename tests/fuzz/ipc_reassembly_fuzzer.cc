// libFuzzer target over the transport's frame reassembly: arbitrary frame
// sequences (headers, lengths, sequence numbers and cut frames) fed to
// pavo::ipc::Reassembly as a receive would feed them from a queue.
//
// Input: one byte picks the chunk size N (1 to 64, so that the 16384-byte
// limit is reached in a few hundred frames); then, per frame, a flags byte,
// two bytes of chunk_len and the payload bytes. Beyond the sanitizers'
// findings it aborts when a completed message is not the concatenation of
// its frames' chunks, is not NUL-terminated, or when the text buffer grows
// beyond the longest message.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "ipc/diagnostics.h"
#include "ipc/frame.h"
#include "ipc/reassembly.h"

namespace {

using pavo::ipc::pavo_ipc_frame;
using pavo::ipc::Reassembly;

constexpr long kMtype = 1;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  pavo::ipc::set_diagnostic_sink_for_testing([](pavo::ipc::Stream, const char*) {});
  auto take = [&data, &size](uint8_t* out) {
    if (size == 0) return false;
    *out = *data++;
    --size;
    return true;
  };
  uint8_t n_byte;
  if (!take(&n_byte)) return 0;
  const uint32_t n = 1 + n_byte % 64;
  const size_t frame_bytes = pavo::ipc::frame_buffer_size(n);
  std::vector<unsigned char> buffer(frame_bytes);  // malloc-aligned
  auto* frame = reinterpret_cast<pavo_ipc_frame*>(buffer.data());
  uint32_t capacity = n + 1;
  char* raw = static_cast<char*>(std::malloc(capacity));
  Reassembly message(kMtype, n, &raw, &capacity);

  std::string expected;  // the chunks of the frames since the last start
  uint32_t next_seq = 1;
  uint8_t flags, len_lo, len_hi;
  while (take(&flags) && take(&len_lo) && take(&len_hi)) {
    uint32_t chunk_len = len_lo | (uint32_t{len_hi} << 8);
    if (!(flags & 0x80)) chunk_len %= n + 2;  // mostly plausible lengths
    std::memset(frame, 0, frame_bytes);
    frame->mtype = (flags & 0x40) ? kMtype + 1 : kMtype;
    frame->kind = (flags & 0x20) ? static_cast<int32_t>(len_hi) - 8 : 2;
    const uint32_t seq_mode = (flags >> 3) & 3;
    frame->seq_no = seq_mode == 0 ? 1 : seq_mode == 3 ? len_lo : next_seq;
    frame->is_last = flags & 1;
    frame->chunk_len = chunk_len;
    const size_t room = n + 4;
    size_t filled = 0;
    uint8_t b;
    while (filled < chunk_len && filled < room && take(&b)) frame->payload[filled++] = static_cast<char>(b);
    // What arrived: the whole frame, or (rarely) a frame cut before its end.
    size_t arrived = pavo::ipc::message_text_size(n);
    if (flags & 0x04) arrived = (len_lo % (pavo::ipc::kHeaderTextBytes + filled + 2));
    const bool oversized = (flags & 0x06) == 0x06;

    if (arrived >= pavo::ipc::kHeaderTextBytes) {
      if (frame->seq_no == 1) expected.clear();
      const size_t carried = std::min<size_t>(chunk_len, std::min(arrived - pavo::ipc::kHeaderTextBytes, room));
      expected.append(frame->payload, carried);
    }
    switch (message.add(*frame, arrived, oversized)) {
      case Reassembly::Step::kMore:
        next_seq = frame->seq_no + 1;
        break;
      case Reassembly::Step::kComplete:
        if (message.length() > pavo::ipc::kMaxMessage || raw[message.length()] != '\0') std::abort();
        if (std::string(raw, message.length()) != expected) std::abort();
        next_seq = 1;
        expected.clear();
        break;
      case Reassembly::Step::kDropped:
        next_seq = 1;
        expected.clear();
        break;
    }
    if (capacity < n + 1 || capacity > pavo::ipc::kMaxMessage + 1) std::abort();
  }
  std::free(raw);
  return 0;
}
