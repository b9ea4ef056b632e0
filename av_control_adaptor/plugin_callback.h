// The plug-in's event callback: how events are posted to it.
//
// A post copies the callback and its user data under the object's
// `cb_mutex`, marks itself in flight and holds a reference to the object
// (object_lifetime.h), releases the lock and only then calls: the callback
// may call anything, its own object included (unregister itself, destroy the
// object, send requests). Pavo_AVCtrl_UnregisterCallback waits for the posts
// in flight on other threads; Pavo_AVCtrl_Destroy waits for none, and no post
// starts after it.
#ifndef PAVO_AV_CONTROL_ADAPTOR_PLUGIN_CALLBACK_H
#define PAVO_AV_CONTROL_ADAPTOR_PLUGIN_CALLBACK_H

#include <cstdint>
#include <thread>
#include <utility>

#include "av_control_adaptor/object.h"

namespace pavo::avctrl {

// A zero-filled event record carrying `value` (an integer or a double, as the
// event defines).
PavoAVCtrlEventInfo event_info(int32_t value);
PavoAVCtrlEventInfo event_info(double value);

// A post between its copy of the callback pair and the callback's return.
// Lives on the posting thread's stack; linked into the object's `posts`.
struct PostInFlight {
  std::thread::id thread;
  PostInFlight* next;
};

// One call of the object's callback, on the calling thread. The constructor
// copies the pair and, when there is a callback to call and the object is
// not destroyed, marks the post in flight (ready()); the destructor ends it.
// REQUIRES: neither of the object's locks held by the calling thread.
class Post {
 public:
  explicit Post(PavoAVCtrlContext* ctx);
  ~Post();
  Post(const Post&) = delete;
  Post& operator=(const Post&) = delete;

  bool ready() const { return ready_; }
  // Calls the callback (once). An exception thrown by the plug-in's code is
  // dropped here, so that none crosses the library's interface or reaches
  // the event thread. REQUIRES: ready().
  void call(PavoAVCtrlEvent event, const PavoAVCtrlEventInfo& info) const;

 private:
  PavoAVCtrlContext* const ctx_;
  PavoAVCtrlCallback callback_ = nullptr;
  const void* user_data_ = nullptr;
  PostInFlight mark_{std::this_thread::get_id(), nullptr};
  bool ready_ = false;
};

// Posts `event` with `info`. When there is a callback to call, `announce`
// (the post's log line) runs just before it.
template <typename Announce>
void post(PavoAVCtrlContext* ctx, PavoAVCtrlEvent event, const PavoAVCtrlEventInfo& info,
          Announce&& announce) {
  Post call(ctx);
  if (!call.ready()) return;
  std::forward<Announce>(announce)();
  call.call(event, info);
}

inline void post(PavoAVCtrlContext* ctx, PavoAVCtrlEvent event, const PavoAVCtrlEventInfo& info) {
  post(ctx, event, info, [] {});
}

}  // namespace pavo::avctrl

#endif  // PAVO_AV_CONTROL_ADAPTOR_PLUGIN_CALLBACK_H
