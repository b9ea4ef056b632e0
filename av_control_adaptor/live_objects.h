// Which A/V control objects exist, and which of them the event thread is
// translating an event for.
//
// The IPC client looks an event's user data up and calls the translation
// after it has let go of its registry, so an event can reach an object that
// a plug-in thread is destroying at that moment. Destruction therefore
// waits here until no translation runs for the object, and a translation
// that starts after the object was marked gone leaves it alone.
//
// Thread safety: every function may be called from any thread; one small
// mutex, never held while anything else runs.
#ifndef PAVO_AV_CONTROL_ADAPTOR_LIVE_OBJECTS_H
#define PAVO_AV_CONTROL_ADAPTOR_LIVE_OBJECTS_H

#include "av_control_adaptor/context.h"

namespace pavo::avctrl {

// Records a new object. Returns false (nothing recorded) when memory runs out.
bool live_add(PavoAVCtrlContext* ctx);

enum class Removal {
  kRelease,   // no translation of the object runs: the caller releases it
  kDeferred,  // this thread is translating one of its events (the object's
              // own callback destroys it): that translation releases it
  kUnknown,   // not a recorded object (never made, or already destroyed)
};

// Marks `ctx` gone, so that no translation starts for it afterwards, and
// waits while another thread translates an event of it.
Removal live_remove(PavoAVCtrlContext* ctx);

// The span of one event translation for one object.
class Translation {
 public:
  explicit Translation(PavoAVCtrlContext* ctx);
  // Ends the span; releases the object if it was destroyed meanwhile by a
  // call made on this thread.
  ~Translation();
  Translation(const Translation&) = delete;
  Translation& operator=(const Translation&) = delete;

  // False when the object is gone (or was never made): touch nothing.
  bool alive() const { return alive_; }
  PavoAVCtrlContext* context() const { return ctx_; }
  const Translation* outer() const { return outer_; }

 private:
  PavoAVCtrlContext* ctx_;
  const Translation* outer_;  // the span this one is nested in, on this thread
  bool alive_;
};

// Releases an object whose translations have all ended: destroys its locks
// and frees it. Defined with Create and Destroy.
void free_context(PavoAVCtrlContext* ctx);

}  // namespace pavo::avctrl

#endif  // PAVO_AV_CONTROL_ADAPTOR_LIVE_OBJECTS_H
