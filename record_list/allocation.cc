#include "record_list/allocation.h"

#include <cstdint>
#include <cstdlib>

namespace pavo::record_list {

PavoAVComponentRecord* allocate_records(size_t count) {
  if (count == 0 || count > SIZE_MAX / sizeof(PavoAVComponentRecord)) return nullptr;
  return static_cast<PavoAVComponentRecord*>(std::malloc(count * sizeof(PavoAVComponentRecord)));
}

void release_records(PavoAVComponentRecord* records) { std::free(records); }

}  // namespace pavo::record_list
