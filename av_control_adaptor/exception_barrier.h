// Keeps C++ exceptions from crossing the library's interface or reaching the
// event thread.
#ifndef PAVO_AV_CONTROL_ADAPTOR_EXCEPTION_BARRIER_H
#define PAVO_AV_CONTROL_ADAPTOR_EXCEPTION_BARRIER_H

#include <type_traits>

namespace pavo::avctrl {

// Calls fn(context). Returns true when it returned normally, false when it
// threw (the exception is dropped). Thread cancellation passes through: its
// forced unwind must reach the thread's start.
bool call_without_exceptions(void (*fn)(void*), void* context);

// Calls fn(), as call_without_exceptions.
template <typename Fn>
bool without_exceptions(Fn&& fn) {
  return call_without_exceptions(
      [](void* f) { (*static_cast<std::remove_reference_t<Fn>*>(f))(); }, &fn);
}

}  // namespace pavo::avctrl

#endif  // PAVO_AV_CONTROL_ADAPTOR_EXCEPTION_BARRIER_H
