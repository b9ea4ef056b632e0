// Runs a user callback so that no C++ exception of the callback leaves the
// transport: it is reported and swallowed. Thread cancellation (a forced
// unwind) passes through unchanged, since it must reach the thread's start.
#ifndef PAVO_IPC_CALLBACK_GUARD_H
#define PAVO_IPC_CALLBACK_GUARD_H

#include <cxxabi.h>

#include <cstdio>

namespace pavo::ipc {

// Calls fn(). Returns true when it returned normally, false when it threw.
// Not instrumented by AddressSanitizer: its no-return hook before the rethrow
// of a forced unwind misreads the stack of the unwinding thread.
template <typename Fn>
__attribute__((no_sanitize_address)) bool call_guarded(const char* what, Fn&& fn) {
  try {
    fn();
    return true;
  } catch (...) {
    // A forced unwind (cancellation) is no C++ exception: it has no type.
    // It is recognised this way rather than by a handler for
    // abi::__forced_unwind, whose reference would bind to no object.
    if (abi::__cxa_current_exception_type() == nullptr) throw;
    std::fprintf(stderr, "ipc: %s threw an exception; treated as no result\n", what);
    return false;
  }
}

}  // namespace pavo::ipc

#endif  // PAVO_IPC_CALLBACK_GUARD_H
