// The service's player events become the plug-in's play-state, speed,
// position, component, DRM-error and media-error events.
//
// The service reports every state its player passes through; the page must
// see a sequence consistent with what it asked for and was last told. So a
// state report is dropped when it repeats the current state, when it would
// undo a pause that the page made before playback started (Pavo_AVCtrl_Pause
// while stopped, connecting or buffering), when a seek made while paused
// buffers, and when the stop of a previous stream arrives while the next one
// connects. Speed reports made while not playing are held back and posted
// just before the play-state change to playing.
#include "av_control_adaptor/event_translation.h"

#include "av_control_adaptor/components.h"
#include "av_control_adaptor/media_log.h"
#include "av_control_adaptor/object_lifetime.h"
#include "av_control_adaptor/plugin_callback.h"
#include "av_control_adaptor/request.h"
#include "base/callback_guard.h"
#include "pavo_avctrl.h"
#include "pavo_mediaplayer_adaptor.h"
#include "pavo_record_list.h"

namespace pavo::avctrl {

int32_t play_state_of(int service_state) {
  static constexpr int32_t kByServiceState[] = {
      PAVO_AVCTRL_PLAYSTATE_STOPPED,    PAVO_AVCTRL_PLAYSTATE_STOPPED,
      PAVO_AVCTRL_PLAYSTATE_CONNECTING, PAVO_AVCTRL_PLAYSTATE_IGNORE,
      PAVO_AVCTRL_PLAYSTATE_PAUSED,     PAVO_AVCTRL_PLAYSTATE_PLAYING,
      PAVO_AVCTRL_PLAYSTATE_BUFFERING,  PAVO_AVCTRL_PLAYSTATE_BUFFERING,
      PAVO_AVCTRL_PLAYSTATE_FINISHED,   PAVO_AVCTRL_PLAYSTATE_STOPPED,
      PAVO_AVCTRL_PLAYSTATE_ERROR};
  const unsigned slot = static_cast<unsigned>(service_state);
  return slot < sizeof kByServiceState / sizeof kByServiceState[0] ? kByServiceState[slot]
                                                                   : PAVO_AVCTRL_PLAYSTATE_IGNORE;
}

namespace {

constexpr const char* kFunction = "mediaplayer_adaptor_callback";

// The posts of the translation, announced (the held-back speed is not).
void post_announced(PavoAVCtrlContext* ctx, PavoAVCtrlEvent event,
                    const PavoAVCtrlEventInfo& info) {
  post(ctx, event, info, [] { AVCTRL_LOG_AS(kFunction, "invoke js callback"); });
}

void on_seek_completed(PavoAVCtrlContext* ctx, double position_s) {
  AVCTRL_LOG_AS(kFunction, "receive msg PAVO_MEDIA_PLUGIN_EVENT_SEEKCOMPLETED");
  bool start_waiting = false;
  double waiting_position_ms = 0.0;
  {
    MutexLock op(&ctx->op_mutex);
    ctx->seeking.store(false);
    if (ctx->seek_pending) {
      ctx->seek_pending = false;
      start_waiting = true;
      waiting_position_ms = ctx->pending_seek_pos;
    }
  }
  if (start_waiting) Pavo_AVCtrl_Seek(ctx, waiting_position_ms);
  post_announced(ctx, PAVO_AVCTRL_EVENT_POSITIONCHANGE, event_info(position_s * 1000.0));
}

void on_error(PavoAVCtrlContext* ctx, PavoMediaError error, int data1) {
  AVCTRL_LOG_AS(kFunction, "receive msg PAVO_MEDIA_PLUGIN_EVENT_ERROR, errorCode=%d",
                static_cast<int>(error));
  AVCTRL_LOG_AS(kFunction,
                "error map: PAVO_MEDIA_ERR_NETWORK:%d,PAVO_MEDIA_ERR_FORMAT:%d,"
                "PAVO_MEDIA_ERR_DECODER:%d,PAVO_MEDIA_ERR_ENCRYPTED:%d",
                PAVO_MEDIA_ERR_NETWORK, PAVO_MEDIA_ERR_FORMAT, PAVO_MEDIA_ERR_DECODER,
                PAVO_MEDIA_ERR_ENCRYPTED);
  switch (static_cast<int>(error)) {
    case PAVO_MEDIA_ERR_NETWORK:
      ctx->error.store(PAVO_AVCTRL_ERROR_CONNECTION);
      break;
    case PAVO_MEDIA_ERR_FORMAT:
      ctx->error.store(PAVO_AVCTRL_ERROR_FORMAT);
      break;
    case PAVO_MEDIA_ERR_DECODER:
      ctx->error.store(PAVO_AVCTRL_ERROR_CORRUPT);
      break;
    case PAVO_MEDIA_ERR_ENCRYPTED:
      AVCTRL_LOG_AS(kFunction, "receive DRM errorCode=%d", data1);
      post_announced(ctx, PAVO_AVCTRL_EVENT_DRMERROR, event_info(static_cast<int32_t>(data1)));
      break;
    case 4:  // the service's own error numbers, without names here
      ctx->error.store(PAVO_AVCTRL_ERROR_CORRUPT);
      post_announced(ctx, PAVO_AVCTRL_EVENT_MEDIAERROR, event_info(int32_t{0}));
      break;
    case 6:
      ctx->error.store(PAVO_AVCTRL_ERROR_NOT_AVAILABLE);
      post_announced(ctx, PAVO_AVCTRL_EVENT_MEDIAERROR, event_info(int32_t{0}));
      break;
    default:
      post_announced(ctx, PAVO_AVCTRL_EVENT_MEDIAERROR, event_info(int32_t{0}));
      break;
  }
}

// A rewind that reaches the start of the stream ends as "finished"; the page
// expects playback to go on forwards at normal speed instead. The speed
// itself is corrected by the service's speed report.
void resume_after_rewind(PavoAVCtrlContext* ctx) {
  AVCTRL_LOG_AS(kFunction,
                "Resume at normal speed  during rewinding the playback reaches the point that it "
                "cannot be rewound further");
  MediaPlayerAdaptor* mp = MediaPlayerAdaptor::GetInstance();
  if (mp != nullptr && has_player(ctx)) {  // else the player is gone with its service
    mp->Pause(ctx->player_id);
    mp->SetPlayRate(ctx->player_id, 1000.0);
    mp->Play(ctx->player_id);
  }
}

// Whether report `s` is dropped before the common checks: it would
// contradict what the plug-in was last told.
// REQUIRES: op_mutex held.
bool filtered_out(const PavoAVCtrlContext* ctx, int32_t s) {
  const int32_t current = ctx->play_state.load();
  const bool buffering_after_paused_seek = ctx->last_command.load() == AVCTRL_CMD_SEEK &&
                                           s == PAVO_AVCTRL_PLAYSTATE_BUFFERING &&
                                           current == PAVO_AVCTRL_PLAYSTATE_PAUSED;
  const bool old_stop_while_connecting =
      s == PAVO_AVCTRL_PLAYSTATE_STOPPED && current == PAVO_AVCTRL_PLAYSTATE_CONNECTING;
  return buffering_after_paused_seek || s == current || old_stop_while_connecting;
}

// Whether report `s` would undo a pause that the page made before playback
// started: connecting or buffering reported after Pavo_AVCtrl_Pause moved a
// stopped or connecting object to paused.
// REQUIRES: op_mutex held.
bool undoes_early_pause(const PavoAVCtrlContext* ctx, int32_t s) {
  const int32_t prev = ctx->prev_state.load();
  return (prev == PAVO_AVCTRL_PLAYSTATE_STOPPED || prev == PAVO_AVCTRL_PLAYSTATE_CONNECTING) &&
         ctx->play_state.load() == PAVO_AVCTRL_PLAYSTATE_PAUSED &&
         ctx->last_command.load() == AVCTRL_CMD_PAUSE &&
         (s == PAVO_AVCTRL_PLAYSTATE_CONNECTING || s == PAVO_AVCTRL_PLAYSTATE_BUFFERING);
}

void on_state_change(PavoAVCtrlContext* ctx, int data1) {
  const int32_t s = play_state_of(data1);
  AVCTRL_LOG_AS(kFunction, "receive msg PAVO_MEDIA_PLUGIN_EVENT_STATECHANGE state=%d",
                static_cast<int>(s));
  AVCTRL_LOG_AS(
      kFunction,
      "state map: 0:stopped,1:playing,2:paused,3:connecting,4:buffering,5:finished,6:error");
  if (s == PAVO_AVCTRL_PLAYSTATE_IGNORE) return;

  if (s == PAVO_AVCTRL_PLAYSTATE_PLAYING) {
    // The speed held back while not playing goes first, so that the page
    // knows the speed before it sees playback start.
    const double held_back = ctx->pending_speed.load();
    if (held_back != PAVO_AVCTRL_PENDING_NONE) {
      post(ctx, PAVO_AVCTRL_EVENT_SPEEDCHANGE, event_info(held_back));
    }
    ctx->pending_speed.store(PAVO_AVCTRL_PENDING_NONE);
  }

  {
    MutexLock op(&ctx->op_mutex);
    if (s == PAVO_AVCTRL_PLAYSTATE_FINISHED && ctx->speed.load() < 0) {
      resume_after_rewind(ctx);
      return;
    }
    if (s != PAVO_AVCTRL_PLAYSTATE_PLAYING && s != PAVO_AVCTRL_PLAYSTATE_FINISHED &&
        filtered_out(ctx, s)) {
      return;
    }
    if (s == ctx->play_state.load()) return;
    if (s != PAVO_AVCTRL_PLAYSTATE_ERROR) ctx->error.store(PAVO_AVCTRL_ERROR_NONE);
    if (undoes_early_pause(ctx, s)) {
      AVCTRL_LOG_AS(kFunction,
                    "state from stopped to paused, igure connecting and buffering state");
      return;
    }
    ctx->prev_state.store(ctx->play_state.load());
    ctx->play_state.store(s);
  }
  post_announced(ctx, PAVO_AVCTRL_EVENT_PLAYSTATECHANGE, event_info(s));
}

void on_speed_change(PavoAVCtrlContext* ctx, int data1) {
  AVCTRL_LOG_AS(kFunction, "receive msg PAVO_MEDIA_PLUGIN_EVENT_SPEEDCHANGE, speed=%d", data1);
  const double speed = data1 / 1000.0;
  ctx->speed.store(speed);
  if (ctx->play_state.load() == PAVO_AVCTRL_PLAYSTATE_PLAYING) {
    ctx->pending_speed.store(PAVO_AVCTRL_PENDING_NONE);
    post_announced(ctx, PAVO_AVCTRL_EVENT_SPEEDCHANGE, event_info(speed));
  } else {
    ctx->pending_speed.store(speed);
  }
}

// The component list is collected and released again: the records are
// gathered for a consumer that this system does not have yet.
void collect_components(PavoAVComponentType type) {
  PavoRecordList list;
  Init(&list);
  GetComponents(type, &list);
  list.destructor(&list);
}

void on_track_change(PavoAVCtrlContext* ctx, int data1) {
  const PavoAVComponentType type = component_type_of(data1);
  AVCTRL_LOG_AS(kFunction, "receive msg PAVO_MEDIA_PLUGIN_EVENT_TRACKCHANGE, track type: %d",
                static_cast<int>(type));
  collect_components(type);
  post_announced(ctx, PAVO_AVCTRL_EVENT_COMPONENTCHANGE, event_info(static_cast<int32_t>(type)));
}

void on_components_updated(int data1) {
  const PavoAVComponentType type = component_type_of(data1);
  AVCTRL_LOG_AS(kFunction, "PAVO_MEDIA_PLAYER_EVENT_COMPONENT_UPDATED, track type: %d",
                static_cast<int>(type));
  collect_components(type);
}

// The service that held the object's player has ended. The page is told
// once: error "connection" and a play-state change to error. Takes no
// op_mutex (the notice may be the first thing the object hears after a long
// request of another thread), and drops the seek in flight, which will never
// complete.
void tell_player_lost(PavoAVCtrlContext* ctx) {
  if (ctx->player_lost.exchange(true)) return;  // never had one: nothing to tell
  AVCTRL_LOG_AS(kFunction, "player %u lost with its service", ctx->player_id.load());
  ctx->seeking.store(false);
  ctx->error.store(PAVO_AVCTRL_ERROR_CONNECTION);
  Pavo_AVCtrl_SetPlayState(ctx, PAVO_AVCTRL_PLAYSTATE_ERROR);
}

void translate(PavoAVCtrlContext* ctx, PavoMediaPluginEvent event, PavoMediaError error, int data1,
               double data2) {
  switch (static_cast<int>(event)) {
    case PAVO_MEDIA_PLUGIN_EVENT_SEEKCOMPLETED:
      on_seek_completed(ctx, data2);
      break;
    case PAVO_MEDIA_PLUGIN_EVENT_ERROR:
      on_error(ctx, error, data1);
      break;
    case PAVO_MEDIA_PLUGIN_EVENT_STATECHANGE:
      on_state_change(ctx, data1);
      break;
    case PAVO_MEDIA_PLUGIN_EVENT_SPEEDCHANGE:
      on_speed_change(ctx, data1);
      break;
    case PAVO_MEDIA_PLUGIN_EVENT_TRACKCHANGE:
      on_track_change(ctx, data1);
      break;
    case PAVO_MEDIA_PLAYER_EVENT_COMPONENT_UPDATED:
      on_components_updated(data1);
      break;
    default:  // 2, 3 and everything else above 7 or below 0
      break;
  }
}

}  // namespace

void on_player_lost(void* user_data) {
  auto* ctx = static_cast<PavoAVCtrlContext*>(user_data);
  if (ctx == nullptr) return;
  ObjectRef ref(ctx);
  if (!ref.held()) return;  // destroyed: nobody to tell
  pavo::call_guarded(nullptr, [&] { tell_player_lost(ctx); });
}

}  // namespace pavo::avctrl

void mediaplayer_adaptor_callback(PavoMediaPluginEvent event, PavoMediaError error,
                                  const void* user_data, int data1, double data2) {
  if (user_data == nullptr) return;
  auto* ctx = static_cast<PavoAVCtrlContext*>(const_cast<void*>(user_data));
  pavo::avctrl::ObjectRef ref(ctx);
  if (!ref.held()) return;  // destroyed: its events go nowhere
  // Nothing may reach the event thread: an exception loses this event only.
  pavo::call_guarded(nullptr, [&] { pavo::avctrl::translate(ctx, event, error, data1, data2); });
}
