// libFuzzer target over every text that reaches the media-player client from
// other processes: the event server's callback, the request server's
// callback, and the reading of a command's reply. The first input byte picks
// the path (modulo 4; path 3 checks that request texts rendered without a
// JSON tree equal jsoncpp's); the rest is the text.
//
// Beyond the sanitizers' findings, a reply that is refused must leave every
// out-parameter as it was, and a rendered request must equal jsoncpp's
// rendering: both abort when broken.
#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <tuple>

#include "hbbtv_plugin_impl_standin.h"
#include "mediaplayer_ipc/event_reception.h"
#include "mediaplayer_ipc/registry.h"
#include "mediaplayer_ipc/request_frame.h"
#include "mediaplayer_ipc/styled_object.h"

namespace {

using namespace pavo::mediaplayer;

volatile std::size_t g_sink;  // keeps the callbacks' reads

void touch(const char* text, const char* more = nullptr) {
  g_sink = g_sink + (text != nullptr ? std::strlen(text) : 0) + (more != nullptr ? std::strlen(more) : 0);
}

void on_player(PavoMediaPluginEvent, PavoMediaError, const void*, int, double) {}  // (numbers only)

void on_media_sync(PavoMediaSyncMsgType type, const PavoMSEventInfo* info, const void*) {
  if (type != PAVO_MEDIA_SYNC_MSG_INFO_CHANGE) return;
  const auto& change = info->infoChange;
  if (change.bTimelineOptionsChange) touch(change.timelineSelector);
  if (change.bContentIdChange) touch(change.contentId);
  if (change.bMrsUrlChange) touch(change.mrsUrl);
}

void on_drm(PavoDrmEvent event, const PavoDrmEventInfo* info, const void*) {
  if (event == PAVO_DRM_EVENT_MESSAGE_RESULT) touch(info->messageResult.msgId, info->messageResult.resultMsg);
  if (event == PAVO_DRM_EVENT_SYSTEM_MESSAGE) touch(info->systemMessage.msg, info->systemMessage.sysId);
  if (event == PAVO_DRM_EVENT_SYSTEM_STATUS_CHANGE) touch(info->statusChange.sysId);
}

int g_user_data;

void receive(pavo_ipc_msg* (*callback)(pavo_ipc_msg*, void*), std::string& text) {
  pavo_ipc_msg message{static_cast<uint32_t>(text.size()), text.data()};
  pavo_ipc_msg* reply = callback(&message, nullptr);
  if (reply == nullptr) return;
  touch(reply->data);
  std::free(reply->data);
  delete reply;
}

// Every kind of output, starting from values that no reply gives together.
struct Outputs {
  int i = -77;
  unsigned u = 77, signed_u = 78;
  uint64_t u64 = 77;
  double d = -7.5;
  bool b = true;
  std::string s = "untouched";
  auto tie() const { return std::tie(i, u, signed_u, u64, d, b, s); }
};

void read_reply(const std::string& text) {
  Outputs out;
  Command command("fuzz", 24);
  command.read("index", &out.i).read("pid", &out.u).read_signed("num", &out.signed_u).read("contentTime", &out.u64);
  command.read("duration", &out.d).read("activated", &out.b).read("encoding", &out.s).read_reply(text.c_str());
  if (!command.replied() && out.tie() != Outputs().tie()) std::abort();  // refused, yet written
}

void render_text_member(const std::string& text) {
  StyledObject object;
  object.add_int("event_type", 2);
  object.add_uint("player_id", 7);
  object.add_text("url", text.data(), text.size());
  std::string rendered;
  object.render(&rendered);
  if (rendered != object.to_value().toStyledString()) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // Error records go to standard output; keep them out of the fuzzer's way.
  const int null = open("/dev/null", O_WRONLY);
  if (null >= 0) dup2(null, 1);
  register_player(3, on_player, &g_user_data);
  set_media_sync(on_media_sync, &g_user_data);
  set_drm_callback(on_drm);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  // Received texts come NUL-terminated, whatever they hold before.
  std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
  switch (data[0] % 4) {
    case 0: receive(MediaPlayerIPCAsyncCallback, text); break;
    case 1:
      receive(MediaPlayerIPCCallback, text);
      pavo::standin::hbbtv_reset();  // the stand-in records every display-source switch
      break;
    case 2: read_reply(text); break;
    default: render_text_member(text); break;
  }
  return 0;
}
