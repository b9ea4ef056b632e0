#include "ipc/callback_guard.h"

#include <cxxabi.h>

#include <cstdio>

namespace pavo::ipc {

// Built without the sanitizers' checks of this function (see ipc/CMakeLists.txt):
// the forced unwind of a cancellation carries no exception object, so the
// handler's reference binds to none, and AddressSanitizer's no-return hook
// before the rethrow misreads the stack of the unwinding thread.
__attribute__((no_sanitize_address)) bool call_guarded_function(const char* what, void (*fn)(void*),
                                                                void* context) {
  try {
    fn(context);
    return true;
  } catch (abi::__forced_unwind&) {
    throw;
  } catch (...) {
    std::fprintf(stderr, "ipc: %s threw an exception; treated as no result\n", what);
    return false;
  }
}

}  // namespace pavo::ipc
