// Players: creation, destruction and event registration (commands 0 and 1),
// and the playback commands 2 to 22. Each command is the request frame with
// its number, request members and reply members (request_frame.h).
//
// A null pointer argument (a text, a record or an out-parameter) is refused
// with -1 and an error record before anything is sent, as SetCustomData's
// null text is.
#include "base/result_codes.h"
#include "mediaplayer_ipc/log_records.h"
#include "mediaplayer_ipc/registry.h"
#include "mediaplayer_ipc/request_frame.h"
#include "pavo_mediaplayer_ipc.h"

using pavo::mediaplayer::Command;
using pavo::mediaplayer::refuse_null_argument;

namespace {

// Commands whose only argument besides the player is one request member.
// The records name the command's own line (the defaults are the caller's).
template <typename T>
int set(const char* function, int event_type, unsigned player_id, const char* member, T value,
        const char* file = __builtin_FILE(), int line = __builtin_LINE()) {
  return Command(function, event_type, file, line).player(player_id).with(member, value).run();
}

// Commands that read one reply member into one out-parameter.
template <typename T>
int get(const char* function, int event_type, unsigned player_id, const char* member, T* out,
        const char* file = __builtin_FILE(), int line = __builtin_LINE()) {
  if (out == nullptr) return refuse_null_argument(function, file, line);
  return Command(function, event_type, file, line).player(player_id).read(member, out).run();
}

int set_text(const char* function, int event_type, unsigned player_id, const char* member,
             const char* text, const char* file = __builtin_FILE(), int line = __builtin_LINE()) {
  if (text == nullptr) return refuse_null_argument(function, file, line);
  return set(function, event_type, player_id, member, text, file, line);
}

}  // namespace

// ---- Players ----------------------------------------------------------------

int Pavo_MediaPlayer_IPC_Create(unsigned* player_id) {
  if (player_id == nullptr) return refuse_null_argument(__func__);
  return Command(__func__, 0).read("player_id", player_id).run();
}

int Pavo_MediaPlayer_IPC_Destory(unsigned player_id) {
  Command destroy(__func__, 1);
  const int result = destroy.player(player_id).run();
  // A reply that was read drops the entry, whatever "ret" says.
  if (destroy.replied()) pavo::mediaplayer::unregister_player(player_id);
  return result;
}

int Pavo_MediaPlayer_IPC_RegisterCallback(unsigned player_id, PavoMediaPlayerCallback cb,
                                          void* user_data) {
  pavo::mediaplayer::log_enter(__func__);
  if (!pavo::mediaplayer::register_player(player_id, cb, user_data)) {
    pavo::mediaplayer::log_error(__func__);
    return pavo::kNoMemory;
  }
  pavo::mediaplayer::log_leave(__func__);
  return 0;
}

int Pavo_MediaPlayer_IPC_UnregisterCallback(unsigned player_id) {
  pavo::mediaplayer::unregister_player(player_id);  // logs nothing
  return 0;
}

// ---- Playback (2 to 22) -------------------------------------------------------

int Pavo_MediaPlayer_IPC_Load(unsigned id, const char* url) { return set_text(__func__, 2, id, "url", url); }
int Pavo_MediaPlayer_IPC_Play(unsigned id) { return Command(__func__, 3).player(id).run(); }
int Pavo_MediaPlayer_IPC_Pause(unsigned id) { return Command(__func__, 4).player(id).run(); }
int Pavo_MediaPlayer_IPC_Stop(unsigned id) { return Command(__func__, 5).player(id).run(); }
int Pavo_MediaPlayer_IPC_Seek(unsigned id, double pos) { return set(__func__, 6, id, "pos", pos); }
int Pavo_MediaPlayer_IPC_SetPlayRate(unsigned id, double rate) {
  return set(__func__, 7, id, "play_rate", rate);
}
int Pavo_MediaPlayer_IPC_GetDuration(unsigned id, double* duration) {
  return get(__func__, 8, id, "duration", duration);
}
int Pavo_MediaPlayer_IPC_GetPlayRate(unsigned id, double* rate) {
  return get(__func__, 9, id, "play_rate", rate);
}
int Pavo_MediaPlayer_IPC_GetCurrentTime(unsigned id, double* time) {
  return get(__func__, 10, id, "current_time", time);
}
// The full-screen state is read as "is_fullScreen" and sent as "is_fullscreen".
int Pavo_MediaPlayer_IPC_GetFullScreen(unsigned id, int* full) {
  return get(__func__, 11, id, "is_fullScreen", full);
}
int Pavo_MediaPlayer_IPC_SetFullScreen(unsigned id, int full) {
  return set(__func__, 12, id, "is_fullscreen", full);
}
int Pavo_MediaPlayer_IPC_SetVideoWindowRect(unsigned id, const PavoRect* rect) {
  if (rect == nullptr) return refuse_null_argument(__func__);
  return Command(__func__, 13)
      .player(id)
      .with("rect_x", int{rect->x})
      .with("rect_y", int{rect->y})
      .with("rect_w", int{rect->w})
      .with("rect_h", int{rect->h})
      .run();
}
int Pavo_MediaPlayer_IPC_GetPlayState(unsigned id, int* state) {
  return get(__func__, 14, id, "play_state", state);
}
int Pavo_MediaPlayer_IPC_SetMimetype(unsigned id, const char* mime) {
  return set_text(__func__, 15, id, "mime_type", mime);
}
int Pavo_MediaPlayer_IPC_SetLicenseServerUrl(unsigned id, const char* url) {
  return set_text(__func__, 16, id, "url", url);
}
int Pavo_MediaPlayer_IPC_SetCustomData(unsigned id, const char* data) {
  return set_text(__func__, 17, id, "data", data);
}
int Pavo_MediaPlayer_IPC_EnableSubtitle(unsigned id, bool enable) {
  return set(__func__, 18, id, "enable", enable);
}
// `size` is not sent.
int Pavo_MediaPlayer_IPC_SetSubtitle(unsigned id, _PavoSubtitleTrackInfo* info, int) {
  if (info == nullptr) return refuse_null_argument(__func__);
  return Command(__func__, 19)
      .player(id)
      .with("url", info->url.c_str())
      .with("language", info->language.c_str())
      .with("label", info->label.c_str())
      .run();
}
// `length` is not sent.
int Pavo_MediaPlayer_IPC_SetFontFile(unsigned id, const char* font, int) {
  return set_text(__func__, 20, id, "fontfile", font);
}
int Pavo_MediaPlayer_IPC_SetLoopCount(unsigned id, int loop) { return set(__func__, 21, id, "loop", loop); }
int Pavo_MediaPlayer_IPC_SetCookie(unsigned id, const char* cookie) {
  return set_text(__func__, 22, id, "cookie", cookie);
}
