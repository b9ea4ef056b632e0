#include "av_control_adaptor/posting.h"

#include <cstring>

#include "av_control_adaptor/exception_barrier.h"

namespace pavo::avctrl {
namespace {

// Every byte zero, the union's wider member and any padding included (an
// aggregate initialiser would zero only the union's first member).
PavoAVCtrlEventInfo zero_filled() {
  PavoAVCtrlEventInfo info;
  std::memset(&info, 0, sizeof info);
  return info;
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

void invoke_callback(PavoAVCtrlCallback cb, PavoAVCtrlEvent event, const PavoAVCtrlEventInfo& info,
                     const void* user_data) {
  without_exceptions([&] { cb(event, &info, user_data); });
}

void post_unlocked(PavoAVCtrlContext* ctx, PavoAVCtrlEvent event, const PavoAVCtrlEventInfo& info) {
  const CallbackPair::Value pair = ctx->callback.load();
  if (pair.callback == nullptr) return;
  invoke_callback(pair.callback, event, info, pair.user_data);
}

namespace {
thread_local const CallbackLock* t_innermost_lock = nullptr;
}  // namespace

CallbackLock::CallbackLock(PavoAVCtrlContext* ctx) : ctx_(ctx), outer_(t_innermost_lock) {
  pthread_mutex_lock(&ctx_->cb_mutex);
  t_innermost_lock = this;
}

CallbackLock::~CallbackLock() {
  t_innermost_lock = outer_;
  pthread_mutex_unlock(&ctx_->cb_mutex);
}

bool CallbackLock::held_by_this_thread(const PavoAVCtrlContext* ctx) {
  for (const CallbackLock* lock = t_innermost_lock; lock != nullptr; lock = lock->outer_) {
    if (lock->ctx_ == ctx) return true;
  }
  return false;
}

}  // namespace pavo::avctrl
