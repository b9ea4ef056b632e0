// Where the record list gets its arrays from.
#ifndef PAVO_RECORD_LIST_ALLOCATION_H
#define PAVO_RECORD_LIST_ALLOCATION_H

#include <cstddef>

#include "pavo_component_record.h"

namespace pavo::record_list {

// An uninitialised array of `count` records, to be released with
// release_records; null when `count` records do not fit in memory (or in
// size_t). Kept in a file of its own so that a test program can link its own
// definition in place of this one and make an allocation fail on demand.
PavoAVComponentRecord* allocate_records(size_t count);

void release_records(PavoAVComponentRecord* records);

}  // namespace pavo::record_list

#endif  // PAVO_RECORD_LIST_ALLOCATION_H
