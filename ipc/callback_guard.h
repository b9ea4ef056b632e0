// Runs a user callback so that no C++ exception of the callback leaves the
// transport: it is reported and swallowed. Thread cancellation (a forced
// unwind) passes through unchanged, since it must reach the thread's start.
#ifndef PAVO_IPC_CALLBACK_GUARD_H
#define PAVO_IPC_CALLBACK_GUARD_H

#include <cxxabi.h>

#include <cstdio>

namespace pavo::ipc {

// Calls fn(). Returns true when it returned normally, false when it threw.
// (The forced unwind of cancellation carries no exception object, so the
// handler's reference is null; the null-reference check is off here.)
template <typename Fn>
__attribute__((no_sanitize("null"))) bool call_guarded(const char* what, Fn&& fn) {
  try {
    fn();
    return true;
  } catch (abi::__forced_unwind&) {
    throw;
  } catch (...) {
    std::fprintf(stderr, "ipc: %s threw an exception; treated as no result\n", what);
    return false;
  }
}

}  // namespace pavo::ipc

#endif  // PAVO_IPC_CALLBACK_GUARD_H
