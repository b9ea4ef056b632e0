// Synchronous round trip through the transport to an echo server in another
// process, beside a raw msgsnd/msgrcv ping-pong of the same frames between
// two processes, for a 1-chunk and a 16-chunk message, on one core and
// across two cores.
//
// Targets (medians, same run, same placement): one core at most 1.3x the raw
// ping-pong for 1 chunk and 1.5x for 16 chunks; two cores at most 1.1x.
#include <signal.h>
#include <sys/msg.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "ipc/frame.h"
#include "pavo_ipc.h"
#include "support/bench_support.h"

namespace {

using pavo::bench::Responder;
using pavo::bench::ScopedPin;
using pavo::ipc::pavo_ipc_frame;

constexpr uint32_t kN = 1024;
constexpr int kMsgType = 1;

size_t message_bytes(int chunks) { return chunks == 1 ? 1000 : 16384; }

key_t bench_key(int which) { return static_cast<key_t>(0x6b000000 | ((getpid() & 0xffff) << 4) | (which << 1)); }

void remove_queues(key_t key) {
  pavo::bench::remove_queue(key);
  pavo::bench::remove_queue(key + 1);
}

// The raw baseline: blocking msgsnd/msgrcv of whole frames, as few system
// calls as a message of this size can take.
struct RawFrames {
  explicit RawFrames(int chunks) : count(chunks), buffer(pavo::ipc::frame_buffer_size(kN)) {
    auto* f = frame();
    f->mtype = kMsgType;
    f->kind = pavo::ipc::IPC_MSG_SYNC_REQUEST;
    f->total_len = static_cast<uint32_t>(message_bytes(chunks));
    f->reserved_one = 1;
    f->chunk_len = kN + 1;
    std::memset(f->payload, 'r', kN + 1);
  }
  pavo_ipc_frame* frame() { return reinterpret_cast<pavo_ipc_frame*>(buffer.data()); }
  bool send(int queue) {
    for (int i = 0; i < count; ++i) {
      frame()->seq_no = static_cast<uint32_t>(i + 1);
      frame()->is_last = i + 1 == count;
      if (msgsnd(queue, frame(), pavo::ipc::message_text_size(kN), 0) != 0) return false;
    }
    return true;
  }
  bool receive(int queue) {
    for (int i = 0; i < count; ++i) {
      if (msgrcv(queue, frame(), pavo::ipc::message_text_size(kN), kMsgType, 0) < 0) return false;
    }
    return true;
  }
  int count;
  std::vector<unsigned char> buffer;
};

void BM_RawPingPong(benchmark::State& state) {
  const int chunks = static_cast<int>(state.range(0));
  const int placement = static_cast<int>(state.range(1));
  const key_t key = bench_key(0);
  remove_queues(key);
  const int requests = msgget(key, IPC_CREAT | 0666);
  const int replies = msgget(key + 1, IPC_CREAT | 0666);
  {
    Responder responder(pavo::bench::responder_cpu(placement), [&](const std::function<void()>& ready) {
      RawFrames frames(chunks);
      ready();
      while (frames.receive(requests) && frames.send(replies)) {
      }
    });
    ScopedPin pin(pavo::bench::caller_cpu(placement));
    RawFrames frames(chunks);
    for (auto _ : state) {
      if (!frames.send(requests) || !frames.receive(replies)) {
        state.SkipWithError("raw ping-pong failed");
        break;
      }
    }
  }
  remove_queues(key);
  state.SetLabel(pavo::bench::placement_name(placement));
}

pavo_ipc_msg* echo(pavo_ipc_msg* message, void*) {
  auto* reply = new pavo_ipc_msg;
  reply->data = static_cast<char*>(std::malloc(message->len + 1));
  std::memcpy(reply->data, message->data, message->len + 1);
  reply->len = message->len;
  return reply;
}

void BM_TransportRoundTrip(benchmark::State& state) {
  const int chunks = static_cast<int>(state.range(0));
  const int placement = static_cast<int>(state.range(1));
  const key_t key = bench_key(1);
  remove_queues(key);
  {
    Responder responder(pavo::bench::responder_cpu(placement), [&](const std::function<void()>& ready) {
      pavo_ipc_server* server = nullptr;
      if (pavo_ipc_server_create(key, kMsgType, 1, kN, &server) != 0) return;
      pavo_ipc_server_register_callback(server, echo, nullptr);
      ready();
      for (;;) pause();
    });
    ScopedPin pin(pavo::bench::caller_cpu(placement));
    pavo_ipc_client* client = nullptr;
    pavo_ipc_client_create(key, kMsgType, 1, kN, &client);
    std::string text(message_bytes(chunks), 't');
    pavo_ipc_msg request{static_cast<uint32_t>(text.size()), text.data()};
    for (auto _ : state) {
      pavo_ipc_msg reply{0, nullptr};
      if (pavo_ipc_client_send_sync_with_params(client, &request, &reply) != 0 || reply.len != request.len) {
        state.SkipWithError("transport round trip failed");
        break;
      }
      std::free(reply.data);
    }
    pavo_ipc_client_destroy(client);
  }
  remove_queues(key);
  state.SetLabel(pavo::bench::placement_name(placement));
}

void placements(benchmark::internal::Benchmark* b) {
  b->ArgNames({"chunks", "placement"});
  for (int placement : {pavo::bench::kOneCore, pavo::bench::kTwoCores}) {
    for (int chunks : {1, 16}) b->Args({chunks, placement});
  }
  b->UseRealTime()->Unit(benchmark::kMicrosecond);
}

BENCHMARK(BM_RawPingPong)->Apply(placements);
BENCHMARK(BM_TransportRoundTrip)->Apply(placements);

}  // namespace

int main(int argc, char** argv) {
  signal(SIGPIPE, SIG_IGN);
  return pavo::bench::run_with_ratios(argc, argv, [](pavo::bench::RatioReporter& r) {
    const struct {
      int chunks, placement;
      double limit;
    } targets[] = {{1, 0, 1.3}, {16, 0, 1.5}, {1, 1, 1.1}, {16, 1, 1.1}};
    for (const auto& t : targets) {
      const std::string args =
          "/chunks:" + std::to_string(t.chunks) + "/placement:" + std::to_string(t.placement) + "/real_time";
      r.ratio(std::string("transport / raw, ") + std::to_string(t.chunks) + " chunk(s), " +
                  pavo::bench::placement_name(t.placement),
              "BM_TransportRoundTrip" + args, "BM_RawPingPong" + args, t.limit);
    }
  });
}
