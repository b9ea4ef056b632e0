// The display as a whole (commands 28 to 30) and media synchronisation
// (100 to 109). Null pointers are refused as in player_commands.cc.
#include <algorithm>
#include <cstring>
#include <string>

#include "mediaplayer_ipc/log_records.h"
#include "mediaplayer_ipc/registry.h"
#include "mediaplayer_ipc/request_frame.h"
#include "pavo_mediaplayer_ipc.h"

using pavo::mediaplayer::Command;
using pavo::mediaplayer::refuse_null_argument;

namespace {

// A text out-parameter: `buf` with its capacity in *len, which is sent as
// "len". A readable reply stores its "len" (read as a signed integer) in
// *len and, if `buf` is given, copies the text member `member`: "len"
// bytes, but never more than the capacity sent nor more than the text and
// its terminator, so the buffer is terminated only when "len" counts the
// terminator and it fits. A "len" that asks for more than that is reported
// with an error record; the caller also sees it in *len. With `status`, the
// reply's "status" is stored too and the result is 0 ("ret" is not read).
int read_text(const char* function, int event_type, unsigned id, const char* member, char* buf,
              unsigned* len, PavoContentIdStatus* status, const char* file = __builtin_FILE(),
              int line = __builtin_LINE()) {
  const unsigned capacity = *len;
  unsigned reply_len = 0;
  std::string text;
  int status_value = 0;
  Command command(function, event_type, file, line);
  command.player(id).with("len", capacity).read_signed("len", &reply_len);
  if (buf != nullptr) command.read(member, &text);
  if (status != nullptr) command.read("status", &status_value).ignore_ret();
  const int result = command.run();
  if (!command.replied()) return result;
  *len = reply_len;
  if (buf != nullptr) {
    const std::size_t copied = std::min<std::size_t>({reply_len, capacity, text.size() + 1});
    std::memcpy(buf, text.c_str(), copied);
    if (copied < reply_len) pavo::mediaplayer::log_error(function);
  }
  if (status != nullptr) *status = static_cast<PavoContentIdStatus>(status_value);
  return result;
}

}  // namespace

// ---- The display (28 to 30) -------------------------------------------------

int Pavo_MediaPlayer_IPC_StopAllPlayers() { return Command(__func__, 28).run(); }

int Pavo_MediaPlayer_IPC_ChangeDisPlaySourceToDTV() { return Command(__func__, 29).run(); }

// 0 for every readable reply, without a Leave record.
int Pavo_MediaPlayer_IPC_GetCurrentSource(int& source) {
  return Command(__func__, 30).read("source_type", &source).ignore_ret().no_leave_record().run();
}

// ---- Media synchronisation (100 to 109) ------------------------------------

// The callback and its user data are stored before the request is sent and
// stay stored whatever it returns.
int Pavo_MediaPlayer_IPC_RegisterMediaSyncCallback(unsigned id, PavoMediaSyncCallback cb,
                                                   const void* user_data) {
  pavo::mediaplayer::set_media_sync(cb, user_data);
  return Command(__func__, 100).player(id).run();
}

// Clears the pair (for every player) before the request; no Enter record.
int Pavo_MediaPlayer_IPC_UnregisterMediaSyncCallback(unsigned id) {
  pavo::mediaplayer::clear_media_sync();
  return Command(__func__, 101).player(id).no_enter_record().run();
}

int Pavo_MediaPlayer_IPC_StartMediaSync(unsigned id) { return Command(__func__, 102).player(id).run(); }

int Pavo_MediaPlayer_IPC_StopMediaSync(unsigned id) { return Command(__func__, 103).player(id).run(); }

int Pavo_MediaPlayer_IPC_SetTimelineSelector(unsigned id, const char* selector) {
  if (selector == nullptr) return refuse_null_argument(__func__);
  return Command(__func__, 104).player(id).with("timeline_selector", selector).run();
}

int Pavo_MediaPlayer_IPC_GetMRSUrl(unsigned id, char* buf, unsigned* len) {
  if (len == nullptr) return refuse_null_argument(__func__);
  return read_text(__func__, 105, id, "mrs_url", buf, len, nullptr);
}

int Pavo_MediaPlayer_IPC_GetCurrentTimeline(unsigned id, PavoTimeline* timeline) {
  if (timeline == nullptr) return refuse_null_argument(__func__);
  return Command(__func__, 106)
      .player(id)
      .read("unitsPerTick", &timeline->unitsPerTick)
      .read("unitsPerSecond", &timeline->unitsPerSecond)
      .read("contentTime", &timeline->contentTime)
      .read("wallclockTime", &timeline->wallclockTime)
      .run();
}

// 0 for every readable reply.
int Pavo_MediaPlayer_IPC_GetContentId(unsigned id, char* buf, unsigned* len,
                                      PavoContentIdStatus* status) {
  if (len == nullptr || status == nullptr) return refuse_null_argument(__func__);
  return read_text(__func__, 107, id, "content_id", buf, len, status);
}

int Pavo_MediaPlayer_IPC_EnableMutilStreamSync(unsigned id, bool enable) {
  return Command(__func__, 108).player(id).with("enable", enable).run();
}

// No "player_id" in the request; the reply's "player_id" is the answer.
int Pavo_MediaPlayer_IPC_GetPlayerIdBySource(std::string source, unsigned& player_id) {
  return Command(__func__, 109).with("source", source).read("player_id", &player_id).run();
}
