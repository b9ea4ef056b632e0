// Owners for memory that crosses the C interface: blocks from malloc/calloc/
// strdup are released with free, never delete.
#ifndef PAVO_BASE_DELETERS_H
#define PAVO_BASE_DELETERS_H

#include <cstdlib>
#include <memory>

namespace pavo {

struct FreeDeleter {
  void operator()(void* p) const { std::free(p); }
};

// A malloc'ed block of T (a frame, a text) owned by the holder.
template <typename T>
using MallocPtr = std::unique_ptr<T, FreeDeleter>;

}  // namespace pavo

#endif  // PAVO_BASE_DELETERS_H
