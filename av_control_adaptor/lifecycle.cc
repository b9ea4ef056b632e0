// Library start and stop, and the creation and destruction of A/V control
// objects.
#include <new>

#include "av_control_adaptor/context.h"
#include "av_control_adaptor/event_translation.h"
#include "av_control_adaptor/live_objects.h"
#include "hbbtv_plugin_impl.h"
#include "pavo_avctrl.h"
#include "pavo_mediaplayer_adaptor.h"

int Pavo_AVCtrl_Initialize() {
  Pavo_HbbTV_PAC_Platform_subtitle_enable_RegisterCallback(Pavo_Platform_SubtitleEnable);
  Pavo_HbbTV_PAC_Platform_Get_Track_Number_RegisterCallback(Pavo_Platform_Get_Track_Number);
  Pavo_HbbTV_PAC_Platform_Get_Track_By_Index_RegisterCallback(Pavo_Platform_Get_Track_By_Index);
  Pavo_HbbTV_PAC_Platform_Select_Track_RegisterCallback(Pavo_Platform_Select_Track);
  Pavo_HbbTV_PAC_Platform_Unselect_Track_RegisterCallback(Pavo_Platform_Unselect_Track);
  Pavo_HbbTV_PAC_Platform_Get_Current_Track_RegisterCallback(Pavo_Platform_Get_Current_Track);
  mediaplayer_initialize();
  return 0;
}

int Pavo_AVCtrl_Finalize() {
  mediaplayer_finalize();
  return 0;
}

int Pavo_AVCtrl_Create(void*, void** handle_out) {
  if (handle_out == nullptr) return -3;
  auto* ctx = new (std::nothrow) PavoAVCtrlContext;
  if (ctx == nullptr) return -4;
  if (pthread_mutex_init(&ctx->op_mutex, nullptr) != 0) {
    delete ctx;
    return -4;
  }
  pthread_mutexattr_t recursive;
  pthread_mutexattr_init(&recursive);
  pthread_mutexattr_settype(&recursive, PTHREAD_MUTEX_RECURSIVE);
  const int cb_result = pthread_mutex_init(&ctx->cb_mutex, &recursive);
  pthread_mutexattr_destroy(&recursive);
  if (cb_result != 0) {
    pthread_mutex_destroy(&ctx->op_mutex);
    delete ctx;
    return -4;
  }
  // Recorded before the event routine is registered: from then on the event
  // thread may translate events of this object.
  if (!pavo::avctrl::live_add(ctx)) {
    pavo::avctrl::free_context(ctx);
    return -4;
  }
  if (MediaPlayerAdaptor* mp = MediaPlayerAdaptor::GetInstance()) {
    mp->Create(ctx->player_id, 0);
    mp->RegisterCallback(ctx->player_id, mediaplayer_adaptor_callback, ctx);
  }
  *handle_out = ctx;
  g_avctrl_handle.store(ctx);
  g_avctrl_count.fetch_add(1);
  return 0;
}

// A handle that is not a live object (destroyed already, or never made) is
// left alone rather than released twice.
int Pavo_AVCtrl_Destroy(void* handle) {
  PavoAVCtrlContext* ctx = avctrl_context(handle);
  if (ctx == nullptr) return 0;
  const pavo::avctrl::Removal removal = pavo::avctrl::live_remove(ctx);
  if (removal == pavo::avctrl::Removal::kUnknown) return 0;
  g_avctrl_count.fetch_sub(1);
  if (MediaPlayerAdaptor* mp = MediaPlayerAdaptor::GetInstance()) {
    mp->UnregisterCallback(ctx->player_id);
    mp->Destroy(ctx->player_id);
  }
  if (removal == pavo::avctrl::Removal::kRelease) pavo::avctrl::free_context(ctx);
  g_avctrl_handle.store(nullptr);
  return 0;
}

void pavo::avctrl::free_context(PavoAVCtrlContext* ctx) {
  pthread_mutex_destroy(&ctx->cb_mutex);
  pthread_mutex_destroy(&ctx->op_mutex);
  delete ctx;
}
