// Runs a user callback so that no C++ exception of the callback leaves the
// transport: it is reported and swallowed. Thread cancellation (a forced
// unwind) passes through unchanged, since it must reach the thread's start.
#ifndef PAVO_IPC_CALLBACK_GUARD_H
#define PAVO_IPC_CALLBACK_GUARD_H

#include <utility>

namespace pavo::ipc {

// Calls fn(context). Returns true when it returned normally, false when it
// threw (the exception is reported on standard error).
bool call_guarded_function(const char* what, void (*fn)(void*), void* context);

// Calls fn(). Returns true when it returned normally, false when it threw.
template <typename Fn>
bool call_guarded(const char* what, Fn&& fn) {
  return call_guarded_function(
      what, [](void* f) { (*static_cast<std::remove_reference_t<Fn>*>(f))(); }, &fn);
}

}  // namespace pavo::ipc

#endif  // PAVO_IPC_CALLBACK_GUARD_H
