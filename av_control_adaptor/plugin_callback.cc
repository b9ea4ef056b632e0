// The plug-in's callbacks: posting to an object's event callback, its
// registration, and the TV side's callback, which goes to the plug-in
// library untouched.
#include "av_control_adaptor/plugin_callback.h"

#include <cstring>

#include "base/callback_guard.h"
#include "av_control_adaptor/object_lifetime.h"
#include "hbbtv_plugin_impl.h"
#include "pavo_avctrl.h"

namespace pavo::avctrl {
namespace {

// Every byte zero, the union's wider member and any padding included (an
// aggregate initialiser would zero only the union's first member).
PavoAVCtrlEventInfo zero_filled() {
  PavoAVCtrlEventInfo info;
  std::memset(&info, 0, sizeof info);
  return info;
}

// Whether the calling thread is inside a post of `ctx` (the callback calls
// back into its object). REQUIRES: cb_mutex held.
bool posting_on_this_thread(const PavoAVCtrlContext* ctx) {
  const std::thread::id self = std::this_thread::get_id();
  for (const PostInFlight* p = ctx->posts; p != nullptr; p = p->next) {
    if (p->thread == self) return true;
  }
  return false;
}

// The pair changes while no request of the object is in flight (op_mutex)
// and under cb_mutex, in this order.
void change_callback(PavoAVCtrlContext* ctx, PavoAVCtrlCallback cb, const void* user_data) {
  MutexLock op(&ctx->op_mutex);
  MutexLock lock(&ctx->cb_mutex);
  ctx->callback = cb;
  ctx->user_data = user_data;
}

}  // namespace

PavoAVCtrlEventInfo event_info(int32_t value) {
  PavoAVCtrlEventInfo info = zero_filled();
  info.value.intValue = value;
  return info;
}

PavoAVCtrlEventInfo event_info(double value) {
  PavoAVCtrlEventInfo info = zero_filled();
  info.value.doubleValue = value;
  return info;
}

Post::Post(PavoAVCtrlContext* ctx) : ctx_(ctx) {
  MutexLock lock(&ctx_->cb_mutex);
  if (ctx_->callback == nullptr || !add_reference(ctx_)) return;
  callback_ = ctx_->callback;
  user_data_ = ctx_->user_data;
  mark_.next = ctx_->posts;
  ctx_->posts = &mark_;
  ready_ = true;
}

Post::~Post() {
  if (!ready_) return;
  {
    MutexLock lock(&ctx_->cb_mutex);
    for (PostInFlight** p = &ctx_->posts; *p != nullptr; p = &(*p)->next) {
      if (*p == &mark_) {
        *p = mark_.next;
        break;
      }
    }
    pthread_cond_broadcast(&ctx_->post_returned);
  }
  drop_reference(ctx_);
}

void Post::call(PavoAVCtrlEvent event, const PavoAVCtrlEventInfo& info) const {
  call_guarded(nullptr, [&] { callback_(event, &info, user_data_); });
}

}  // namespace pavo::avctrl

int Pavo_AVCtrl_RegisterCallback(void* handle, PavoAVCtrlCallback cb, const void* user_data) {
  PavoAVCtrlContext* ctx = avctrl_context(handle);
  if (ctx == nullptr) return -3;
  pavo::avctrl::change_callback(ctx, cb, user_data);
  return 0;
}

// Once this returns, no post of the object is running on another thread and
// none starts. Called from inside the object's own callback, it does not
// wait: two callbacks that unregister each other's posts would wait for
// ever, and the caller's own post is still running anyway.
int Pavo_AVCtrl_UnregisterCallback(void* handle) {
  PavoAVCtrlContext* ctx = avctrl_context(handle);
  if (ctx == nullptr) return -3;
  pavo::avctrl::change_callback(ctx, nullptr, nullptr);
  pavo::MutexLock lock(&ctx->cb_mutex);
  if (pavo::avctrl::posting_on_this_thread(ctx)) return 0;
  while (ctx->posts != nullptr) pthread_cond_wait(&ctx->post_returned, &ctx->cb_mutex);
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
