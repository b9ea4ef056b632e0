// Keeps C++ exceptions from crossing the library's interface or reaching the
// event thread.
#ifndef PAVO_AV_CONTROL_ADAPTOR_EXCEPTION_BARRIER_H
#define PAVO_AV_CONTROL_ADAPTOR_EXCEPTION_BARRIER_H

#include <cxxabi.h>

#include <utility>

namespace pavo::avctrl {

// Calls fn(). Returns true when it returned normally, false when it threw (the
// exception is dropped). Thread cancellation passes through: its forced
// unwind is no C++ exception (it has no type) and must reach the thread's
// start. Not instrumented by AddressSanitizer, whose no-return hook before
// the rethrow misreads the stack of an unwinding thread.
template <typename Fn>
__attribute__((no_sanitize_address)) bool without_exceptions(Fn&& fn) {
  try {
    std::forward<Fn>(fn)();
    return true;
  } catch (...) {
    if (abi::__cxa_current_exception_type() == nullptr) throw;
    return false;
  }
}

}  // namespace pavo::avctrl

#endif  // PAVO_AV_CONTROL_ADAPTOR_EXCEPTION_BARRIER_H
