// The A/V control object's callback registration, its MIME type, the
// process-wide handle lookup, and the entry points that are accepted but not
// supported.
#include <optional>

#include "av_control_adaptor/context.h"
#include "av_control_adaptor/media_log.h"
#include "av_control_adaptor/posting.h"
#include "av_control_adaptor/request.h"
#include "hbbtv_plugin_impl.h"
#include "pavo_avctrl.h"

std::atomic<int32_t> g_avctrl_count{0};
std::atomic<PavoAVCtrlContext*> g_avctrl_handle{nullptr};

void* Pavo_AVCtrl_GetHandle() {
  const int32_t count = g_avctrl_count.load();
  if (count != 1) {
    AVCTRL_LOG("Error: initialized the avc %d times.", static_cast<int>(count));
    return nullptr;
  }
  return g_avctrl_handle.load();
}

namespace {

// The pair changes while no request of the object is in flight (op_mutex)
// and no locked post is in progress (cb_mutex), in this order. Called from
// inside the object's own callback, this thread already holds cb_mutex:
// waiting for op_mutex there would take the locks in the opposite order, so
// the change is made under cb_mutex alone.
void change_callback(PavoAVCtrlContext* ctx, PavoAVCtrlCallback cb, const void* user_data) {
  std::optional<MutexLock> op;
  if (!pavo::avctrl::CallbackLock::held_by_this_thread(ctx)) op.emplace(&ctx->op_mutex);
  pavo::avctrl::CallbackLock callback(ctx);
  ctx->callback.store(cb, user_data);
}

}  // namespace

int Pavo_AVCtrl_RegisterCallback(void* handle, PavoAVCtrlCallback cb, const void* user_data) {
  PavoAVCtrlContext* ctx = avctrl_context(handle);
  if (ctx == nullptr) return -3;
  change_callback(ctx, cb, user_data);
  return 0;
}

int Pavo_AVCtrl_UnregisterCallback(void* handle) {
  PavoAVCtrlContext* ctx = avctrl_context(handle);
  if (ctx == nullptr) return -3;
  change_callback(ctx, nullptr, nullptr);
  return 0;
}

int Pavo_AVCtrl_RegisterCallbackForTV(
    void*, PAVO_ERR (*cb)(PavoPluginIPCAvContrl, PavoAVComponentType, int), const void* user_data) {
  Pavo_HbbTV_PAC_AvControl_RegisterCallback(cb, user_data);
  return 0;
}

// The plug-in library is handed the A/V control handle: the one thing this
// side has that names the registration.
int Pavo_AVCtrl_UnregisterCallbackForTV(void* handle) {
  Pavo_HbbTV_PAC_AvControl_UnregisterCallback(handle);
  return 0;
}

int Pavo_AVCtrl_SetMimeType(void* handle, const char* mime) {
  PavoAVCtrlContext* ctx = avctrl_context(handle);
  if (ctx == nullptr || mime == nullptr) return -3;
  return pavo::avctrl::locked_request(
      ctx, [&](MediaPlayerAdaptor& mp, unsigned id) { return mp.SetMimetype(id, mime); });
}

int Pavo_AVCtrl_GetMimeType(void*, char*, unsigned*) { return 0; }

// ---- Accepted and not supported: no request, no out-parameter written ----

int Pavo_AVCtrl_Queue(void*, const char*) { return 0; }
int Pavo_AVCtrl_NextTrack(void*) { return 0; }
int Pavo_AVCtrl_PreviousTrack(void*) { return 0; }
int Pavo_AVCtrl_SetVolume(void*, double) { return 0; }
int Pavo_AVCtrl_GetVolume(void*, double*) { return 0; }
int Pavo_AVCtrl_GetPlaybackSpeedNum(void*, unsigned*) { return 0; }
int Pavo_AVCtrl_GetPlaybackSpeedByIndex(void*, unsigned, double*) { return 0; }
int Pavo_AVCtrl_GetTrackNum(void*, unsigned*) { return 0; }
int Pavo_AVCtrl_SetCurTrackIndex(void*, unsigned) { return 0; }
int Pavo_AVCtrl_GetCurTrackIndex(void*, unsigned*) { return 0; }
int Pavo_AVCtrl_RegisterMediaSyncCallback(
    void*, void (*)(PavoMediaSyncMsgType, const PavoMSEventInfo*, const void*), const void*) {
  return 0;
}
int Pavo_AVCtrl_UnregisterMediaSyncCallback(void*) { return 0; }
int Pavo_AVCtrl_StartMediaSync(void*) { return 0; }
int Pavo_AVCtrl_StopMediaSync(void*) { return 0; }
int Pavo_AVCtrl_SetTimelineSelector(void*, const char*) { return 0; }
int Pavo_AVCtrl_GetMRSUrl(void*, char*, unsigned*) { return 0; }
int Pavo_AVCtrl_GetCurrentTimeline(void*, PavoTimeline*) { return 0; }
int Pavo_AVCtrl_GetContentId(void*, char*, unsigned*, PavoContentIdStatus*) { return 0; }
int Pavo_AVCtrl_EnableMutilStreamSync(void*, bool) { return 0; }
