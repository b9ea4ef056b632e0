#include "av_control_adaptor/exception_barrier.h"

#include <cxxabi.h>

namespace pavo::avctrl {

// Built without two sanitizer checks (see CMakeLists.txt): the forced unwind
// of a cancellation carries no exception object, so its handler's reference
// binds to none, and AddressSanitizer's no-return hook before the rethrow
// misreads the stack of the unwinding thread. The handler names the forced
// unwind's type, which every target's unwinder gives it.
__attribute__((no_sanitize_address)) bool call_without_exceptions(void (*fn)(void*), void* context) {
  try {
    fn(context);
    return true;
  } catch (abi::__forced_unwind&) {
    throw;
  } catch (...) {
    return false;
  }
}

}  // namespace pavo::avctrl
