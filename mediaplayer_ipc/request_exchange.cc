// The exchange in the middle of the request frame: the rendered request goes
// out on the request client, and the reply comes back to be read.

#include <cstdlib>
#include <memory>
#include <new>
#include <string>

#include "base/deleters.h"
#include "base/result_codes.h"
#include "ipc/peer_generation.h"
#include "mediaplayer_ipc/endpoints.h"
#include "mediaplayer_ipc/log_records.h"
#include "mediaplayer_ipc/request_frame.h"
#include "mediaplayer_ipc/service_monitor.h"
#include "pavo_ipc.h"

namespace pavo::mediaplayer {
namespace {

// Each thread keeps its request text buffer between commands, unless a long
// text made it bigger than this.
constexpr std::size_t kKeptRequestCapacity = 4096;

}  // namespace

int Command::run() {
  if (enter_record_) log_enter(function_, file_, line_);
  thread_local std::string text;
  try {
    render(&text);
  } catch (const std::bad_alloc&) {
    log_error(function_);
    return kNoMemory;
  }
  pavo_ipc_msg request{static_cast<uint32_t>(text.size()), text.data()};
  pavo_ipc_msg reply{0, nullptr};
  unsigned generation = 0;
  const int sent = [&] {
    const ClientLease client(ClientLease::kRequest);
    const int result = pavo_ipc_client_send_sync_with_params(client.get(), &request, &reply);
    generation = pavo::ipc::client_peer_generation(client.get());
    return result;
  }();
  // A reply from a restarted service: the players of the old one are gone.
  note_service_generation(generation);
  if (text.capacity() > kKeptRequestCapacity) std::string().swap(text);
  const MallocPtr<char> reply_text(reply.data);
  if (sent != 0) {
    log_error(function_);
    return sent;
  }
  // An answer without text (the service had no reply) carries no length.
  if (reply_text == nullptr || reply.len == 0) {
    log_error(function_);
    return kFailed;  // no readable reply
  }
  return read_reply(reply_text.get());
}

}  // namespace pavo::mediaplayer
