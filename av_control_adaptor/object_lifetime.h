// How long an A/V control object lives: the references that keep it alive
// while an event translation or a post uses it.
//
// The IPC client calls the event translation after it has let go of its
// registry, so an event can reach an object that a plug-in thread is
// destroying at that moment; and the plug-in's callback may destroy the
// object whose post is calling it. Pavo_AVCtrl_Destroy therefore only marks
// the object destroyed and drops the handle's reference, without waiting for
// anything: no lock of the plug-in can make it hang. Whoever drops the last
// reference (Destroy, or the translation or post that ends last) unregisters
// the object's event routine, destroys its player and frees it.
//
// Why the object is still there when a translation starts: it is freed only
// after the routine's unregistration has returned, and that waits until the
// event thread no longer calls the routine with this object (the IPC
// client's registry promises so), unless the freeing happens on the event
// thread itself, inside the routine's last call.
//
// Thread safety: any thread; the count is one atomic word, so taking and
// dropping a reference takes no lock.
#ifndef PAVO_AV_CONTROL_ADAPTOR_OBJECT_LIFETIME_H
#define PAVO_AV_CONTROL_ADAPTOR_OBJECT_LIFETIME_H

#include "av_control_adaptor/object.h"

namespace pavo::avctrl {

// Takes a reference; false (none taken) when the object is destroyed.
bool add_reference(PavoAVCtrlContext* ctx);

// Drops a reference. When it was the last one of a destroyed object, also
// unregisters the object's event routine, destroys its player (requests to
// the service, blocking) and frees the object. REQUIRES: neither of the
// object's locks held by the calling thread; the caller touches the object
// no more.
void drop_reference(PavoAVCtrlContext* ctx);

// A reference for a scope. Holds none when the object is destroyed (test
// with held()); the object may still be in use then by whoever holds one.
class ObjectRef {
 public:
  explicit ObjectRef(PavoAVCtrlContext* ctx);
  ~ObjectRef();
  ObjectRef(const ObjectRef&) = delete;
  ObjectRef& operator=(const ObjectRef&) = delete;

  bool held() const { return held_; }

 private:
  PavoAVCtrlContext* const ctx_;
  bool held_;
};

// The one A/V control object of Pavo_AVCtrl_GetHandle (for the plug-in's
// platform callbacks, which carry no handle), with a reference held for the
// scope; get() is null when there is not exactly one object, or it is being
// destroyed. Any thread; blocks only for the handle list's mutex.
class SingleObjectRef {
 public:
  SingleObjectRef();
  ~SingleObjectRef();
  SingleObjectRef(const SingleObjectRef&) = delete;
  SingleObjectRef& operator=(const SingleObjectRef&) = delete;

  PavoAVCtrlContext* get() const { return ctx_; }

 private:
  PavoAVCtrlContext* const ctx_;
};

}  // namespace pavo::avctrl

#endif  // PAVO_AV_CONTROL_ADAPTOR_OBJECT_LIFETIME_H
