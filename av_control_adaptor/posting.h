// Posting events to the plug-in's callback.
#ifndef PAVO_AV_CONTROL_ADAPTOR_POSTING_H
#define PAVO_AV_CONTROL_ADAPTOR_POSTING_H

#include <cstdint>
#include <utility>

#include "av_control_adaptor/context.h"

namespace pavo::avctrl {

// A zero-filled event record carrying `value` (an integer or a double, as the
// event defines).
PavoAVCtrlEventInfo event_info(int32_t value);
PavoAVCtrlEventInfo event_info(double value);

// Calls `cb`. An exception thrown by the plug-in's code is dropped here, so
// that none crosses the library's interface or reaches the event thread.
void invoke_callback(PavoAVCtrlCallback cb, PavoAVCtrlEvent event, const PavoAVCtrlEventInfo& info,
                     const void* user_data);

// Posts without the callback lock, on the calling thread: the speed changes
// of Play, Pause and the held-back speed. Nothing happens without a callback.
void post_unlocked(PavoAVCtrlContext* ctx, PavoAVCtrlEvent event, const PavoAVCtrlEventInfo& info);

// Holds an object's `cb_mutex` for its scope and remembers, on this thread,
// that it does: a call that the plug-in's callback makes into its own object
// can then tell that it runs under the lock.
class CallbackLock {
 public:
  explicit CallbackLock(PavoAVCtrlContext* ctx);
  ~CallbackLock();
  CallbackLock(const CallbackLock&) = delete;
  CallbackLock& operator=(const CallbackLock&) = delete;

  // Whether the calling thread holds `ctx`'s callback lock.
  static bool held_by_this_thread(const PavoAVCtrlContext* ctx);

 private:
  PavoAVCtrlContext* ctx_;
  const CallbackLock* outer_;  // the lock held before this one on this thread
};

// Posts under `cb_mutex`. When a callback is set, `announce` (the post's log
// line) runs under the lock just before it is called.
// REQUIRES: `op_mutex` not held by the calling thread.
template <typename Announce>
void post_locked(PavoAVCtrlContext* ctx, PavoAVCtrlEvent event, const PavoAVCtrlEventInfo& info,
                 Announce&& announce) {
  CallbackLock lock(ctx);
  const CallbackPair::Value pair = ctx->callback.load();
  if (pair.callback == nullptr) return;
  std::forward<Announce>(announce)();
  invoke_callback(pair.callback, event, info, pair.user_data);
}

}  // namespace pavo::avctrl

#endif  // PAVO_AV_CONTROL_ADAPTOR_POSTING_H
