// The one exception barrier of the library: runs a user or upper-layer
// callback so that no C++ exception leaves it into a receive thread or across
// the exported interface. Thread cancellation (a forced unwind) passes
// through unchanged, since it must reach the thread's start.
#ifndef PAVO_BASE_CALLBACK_GUARD_H
#define PAVO_BASE_CALLBACK_GUARD_H

#include <type_traits>

namespace pavo {

// Calls fn(context). Returns true when it returned normally, false when it
// threw: the exception is dropped, and reported on standard error as
// "<what> threw an exception; treated as no result" unless `what` is null
// (a caller that reports through its own log passes null). May be called
// from any thread; holds no lock.
bool call_guarded_function(const char* what, void (*fn)(void*), void* context);

// Calls fn(), as call_guarded_function.
template <typename Fn>
bool call_guarded(const char* what, Fn&& fn) {
  return call_guarded_function(
      what, [](void* f) { (*static_cast<std::remove_reference_t<Fn>*>(f))(); }, &fn);
}

}  // namespace pavo

#endif  // PAVO_BASE_CALLBACK_GUARD_H
