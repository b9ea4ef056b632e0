#include "base/callback_guard.h"

#include <cxxabi.h>

#include <cstdio>

namespace pavo {

// Built without the sanitizers' checks of this function (see
// base/CMakeLists.txt): the forced unwind of a cancellation carries no
// exception object, so the handler's reference binds to none, and
// AddressSanitizer's no-return hook before the rethrow misreads the stack of
// the unwinding thread. The handler names the forced unwind's type, which
// every target's unwinder gives it.
__attribute__((no_sanitize_address)) bool call_guarded_function(const char* what, void (*fn)(void*),
                                                                void* context) {
  try {
    fn(context);
    return true;
  } catch (abi::__forced_unwind&) {
    throw;
  } catch (...) {
    if (what != nullptr) std::fprintf(stderr, "%s threw an exception; treated as no result\n", what);
    return false;
  }
}

}  // namespace pavo
