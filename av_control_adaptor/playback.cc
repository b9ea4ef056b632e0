// Playback control: load, play, pause, stop, seek, the play state that the
// plug-in sees, and the getters.
//
// The object's play state changes here only where the service will not
// report it (Load from an idle state, Pause before playback started, and
// Pavo_AVCtrl_SetPlayState); every other change comes from the service's
// reports (event_translation.cc), filtered against `last_command`.
#include "av_control_adaptor/event_translation.h"
#include "av_control_adaptor/media_log.h"
#include "av_control_adaptor/object_lifetime.h"
#include "av_control_adaptor/plugin_callback.h"
#include "av_control_adaptor/request.h"
#include "pavo_avctrl.h"
#include "pavo_mediaplayer_adaptor.h"

using pavo::avctrl::event_info;
using pavo::avctrl::locked_request;
using pavo::MutexLock;
using pavo::avctrl::ObjectRef;
using pavo::avctrl::post;

namespace {

// printf cannot take a null %s.
const char* printable(const char* text) { return text != nullptr ? text : "(null)"; }

// Gives an object whose player is lost a new one (command 0) and registers
// the event routine for it. Returns 0 when the object has a player, or the
// result of the failed creation (the object stays without a player).
// A lost player's registration is already gone (the client removed it when
// it learnt that the service was gone, or there never was one).
int replace_lost_player(PavoAVCtrlContext* ctx, MediaPlayerAdaptor* mp) {
  MutexLock op(&ctx->op_mutex);
  if (!ctx->player_lost.load()) return 0;  // another thread was first
  unsigned id = 0;
  const int created = mp->Create(id, 0);
  if (created != 0) return created;
  AVCTRL_LOG_AS("Pavo_AVCtrl_Load", "player lost, new player id=%u", id);
  ctx->player_id.store(id);
  ctx->seeking.store(false);
  ctx->seek_pending = false;
  ctx->last_command.store(AVCTRL_CMD_NONE);
  mp->RegisterCallback(id, mediaplayer_adaptor_callback, ctx);
  ctx->player_lost.store(false);
  return 0;
}

}  // namespace

int Pavo_AVCtrl_Load(void* handle, const char* url) {
  AVCTRL_LOG("in_source=%s", printable(url));
  PavoAVCtrlContext* ctx = avctrl_context(handle);
  if (ctx == nullptr || url == nullptr) return -3;
  const ObjectRef keep(ctx);  // the callback of the post below may destroy the object
  MediaPlayerAdaptor* mp = MediaPlayerAdaptor::GetInstance();
  if (mp != nullptr && ctx->player_lost.load()) {
    const int created = replace_lost_player(ctx, mp);
    if (created != 0) return created;
  }
  const int32_t state = ctx->play_state.load();
  if (state == PAVO_AVCTRL_PLAYSTATE_STOPPED || state == PAVO_AVCTRL_PLAYSTATE_FINISHED ||
      state == PAVO_AVCTRL_PLAYSTATE_ERROR) {
    Pavo_AVCtrl_SetPlayState(handle, PAVO_AVCTRL_PLAYSTATE_CONNECTING);
  }
  if (mp == nullptr) return 0;
  // Under op_mutex, and only while the player's registration stands: the
  // service may have gone since the check above.
  return locked_request(ctx, [url](MediaPlayerAdaptor& adaptor, unsigned id) { return adaptor.Load(id, url); });
}

int Pavo_AVCtrl_Play(void* handle, double speed) {
  AVCTRL_LOG("speed=%f", speed);
  PavoAVCtrlContext* ctx = avctrl_context(handle);
  if (ctx == nullptr) return -3;
  int result;
  {
    MutexLock op(&ctx->op_mutex);
    MediaPlayerAdaptor* mp = MediaPlayerAdaptor::GetInstance();
    if (mp == nullptr) return 0;
    if (!pavo::avctrl::has_player(ctx)) return pavo::avctrl::kNoPlayer;
    result = mp->Play(ctx->player_id);
    ctx->last_command.store(AVCTRL_CMD_PLAY);
  }
  if (ctx->speed.load() == speed) {
    // The service reports only changes: tell the page its speed is in effect.
    AVCTRL_LOG("speed not changed ,post speed change msg, speed=%f", speed);
    post(ctx, PAVO_AVCTRL_EVENT_SPEEDCHANGE, event_info(speed));
  } else {
    // The service's speed report posts the change.
    ctx->speed.store(speed);
    locked_request(ctx, [&](MediaPlayerAdaptor& mp, unsigned id) {
      return mp.SetPlayRate(id, speed * 1000.0);
    });
  }
  return result;
}

int Pavo_AVCtrl_Pause(void* handle) {
  AVCTRL_LOG("Pavo_AVCtrl_Pause");
  PavoAVCtrlContext* ctx = avctrl_context(handle);
  if (ctx == nullptr) return -3;
  switch (ctx->play_state.load()) {
    case PAVO_AVCTRL_PLAYSTATE_STOPPED:
    case PAVO_AVCTRL_PLAYSTATE_CONNECTING:
    case PAVO_AVCTRL_PLAYSTATE_BUFFERING:
      // Nothing plays yet: pause on the page's side only; the event
      // translation keeps the object paused while the service still
      // connects or buffers.
      AVCTRL_LOG("set play state to pause");
      ctx->last_command.store(AVCTRL_CMD_PAUSE);
      Pavo_AVCtrl_SetPlayState(handle, PAVO_AVCTRL_PLAYSTATE_PAUSED);
      break;
    case PAVO_AVCTRL_PLAYSTATE_PLAYING: {
      {
        MutexLock op(&ctx->op_mutex);
        MediaPlayerAdaptor* mp = MediaPlayerAdaptor::GetInstance();
        if (mp == nullptr) {
          AVCTRL_LOG("mp is NULL");
          return 0;
        }
        if (!pavo::avctrl::has_player(ctx)) return pavo::avctrl::kNoPlayer;
        mp->Pause(ctx->player_id);
        ctx->last_command.store(AVCTRL_CMD_PAUSE);
        ctx->speed.store(0.0);
        AVCTRL_LOG("post speed change msg, speed=0");
      }
      post(ctx, PAVO_AVCTRL_EVENT_SPEEDCHANGE, event_info(0.0));
      break;
    }
    default:  // paused, finished, error
      break;
  }
  return 0;
}

int Pavo_AVCtrl_Stop(void* handle) {
  PavoAVCtrlContext* ctx = avctrl_context(handle);
  if (ctx == nullptr) return -3;
  return locked_request(ctx, [&](MediaPlayerAdaptor& mp, unsigned id) {
    const int result = mp.Stop(id);
    if (result == 0) ctx->seeking.store(false);  // the seek in flight ends with the stop
    return result;
  });
}

// One seek is in flight at a time. A seek asked for meanwhile waits in
// `pending_seek_pos` (a later one replaces it) until the service reports the
// first complete; the event translation then sends it.
int Pavo_AVCtrl_Seek(void* handle, double position_ms) {
  AVCTRL_LOG("seek to %f", position_ms);
  PavoAVCtrlContext* ctx = avctrl_context(handle);
  if (ctx == nullptr) return -3;
  int result;
  MediaPlayerAdaptor* mp;
  {
    MutexLock op(&ctx->op_mutex);
    if (ctx->seeking.load()) {
      ctx->pending_seek_pos = position_ms;
      ctx->seek_pending = true;
      return 0;
    }
    mp = MediaPlayerAdaptor::GetInstance();
    if (mp == nullptr) return 0;
    if (!pavo::avctrl::has_player(ctx)) return pavo::avctrl::kNoPlayer;
    ctx->seeking.store(true);
    result = mp->Seek(ctx->player_id, position_ms / 1000.0);
    ctx->last_command.store(AVCTRL_CMD_SEEK);
  }
  if (result != 0) {
    // Put the page's position display back where playback really is.
    double seconds = 0.0;
    locked_request(ctx, [&seconds](MediaPlayerAdaptor& adaptor, unsigned id) {
      return adaptor.GetCurrentTime(id, &seconds);
    });
    const ObjectRef keep(ctx);  // the callback may destroy the object
    const char* const function = __func__;
    post(ctx, PAVO_AVCTRL_EVENT_POSITIONCHANGE, event_info(seconds * 1000.0), [function] {
      AVCTRL_LOG_AS(function, "seek failed, trigger playpostionchagne event!");
    });
    ctx->seeking.store(false);
  }
  return result;
}

// The one place where the object's state is set on the plug-in's behalf.
int Pavo_AVCtrl_SetPlayState(void* handle, PavoAVCtrlPlayState state) {
  PavoAVCtrlContext* ctx = avctrl_context(handle);
  if (ctx == nullptr) return 0;
  const int32_t current = ctx->play_state.load();
  if (current == state) return 0;
  ctx->prev_state.store(current);
  ctx->play_state.store(state);
  const char* const function = __func__;
  post(ctx, PAVO_AVCTRL_EVENT_PLAYSTATECHANGE, event_info(static_cast<int32_t>(state)), [&] {
    AVCTRL_LOG_AS(function, "invoke state change callback, state is %d", static_cast<int>(state));
  });
  return 0;
}

int Pavo_AVCtrl_GetPlayState(void* handle, PavoAVCtrlPlayState* state) {
  PavoAVCtrlContext* ctx = avctrl_context(handle);
  if (ctx == nullptr || state == nullptr) return -3;
  MutexLock op(&ctx->op_mutex);
  *state = static_cast<PavoAVCtrlPlayState>(ctx->play_state.load());
  return 0;
}

namespace {

// Asks the player for a time in seconds with `get` (under op_mutex) and, when
// the request succeeds, writes it to *out_ms in milliseconds. Returns the
// adaptor's result.
int read_milliseconds(PavoAVCtrlContext* ctx, int (MediaPlayerAdaptor::*get)(unsigned, double*),
                      double* out_ms) {
  return locked_request(ctx, [&](MediaPlayerAdaptor& mp, unsigned id) {
    double seconds = 0.0;
    const int result = (mp.*get)(id, &seconds);
    if (result == 0) *out_ms = seconds * 1000.0;
    return result;
  });
}

}  // namespace

int Pavo_AVCtrl_GetPlayTime(void* handle, double* duration_ms) {
  PavoAVCtrlContext* ctx = avctrl_context(handle);
  if (ctx == nullptr || duration_ms == nullptr) return -3;
  return read_milliseconds(ctx, &MediaPlayerAdaptor::GetDuration, duration_ms);
}

int Pavo_AVCtrl_GetPosition(void* handle, double* position_ms) {
  PavoAVCtrlContext* ctx = avctrl_context(handle);
  if (ctx == nullptr || position_ms == nullptr) return -3;
  read_milliseconds(ctx, &MediaPlayerAdaptor::GetCurrentTime, position_ms);
  return 0;  // a failed request leaves the position as the caller set it
}

int Pavo_AVCtrl_GetCurrentSpeed(void* handle, double* speed) {
  PavoAVCtrlContext* ctx = avctrl_context(handle);
  if (ctx == nullptr || speed == nullptr) return -3;
  *speed = ctx->speed.load();
  return 0;
}

int Pavo_AVCtrl_GetError(void* handle, PavoAVCtrlPlayStateError* error) {
  PavoAVCtrlContext* ctx = avctrl_context(handle);
  if (ctx == nullptr || error == nullptr) return -3;
  const int32_t code = ctx->error.load();
  if (code < 0) return -1;
  *error = static_cast<PavoAVCtrlPlayStateError>(code);
  return 0;
}

int Pavo_AVCtrl_SetFullScreen(void* handle, bool full) {
  PavoAVCtrlContext* ctx = avctrl_context(handle);
  if (ctx == nullptr) return -3;
  return locked_request(
      ctx, [&](MediaPlayerAdaptor& mp, unsigned id) { return mp.SetFullscreen(id, full ? 1 : 0); });
}

int Pavo_AVCtrl_GetFullScreen(void* handle, bool* full) {
  PavoAVCtrlContext* ctx = avctrl_context(handle);
  if (ctx == nullptr || full == nullptr) return -3;
  return locked_request(ctx, [&](MediaPlayerAdaptor& mp, unsigned id) {
    int value = 0;
    const int result = mp.GetFullscreen(id, &value);
    if (result == 0) *full = value != 0;
    return result;
  });
}
