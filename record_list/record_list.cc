// The record list's four operations.
#include "pavo_record_list.h"

#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "record_list/allocation.h"

using pavo::record_list::allocate_records;
using pavo::record_list::release_records;

PavoAVComponentRecord* Init(PavoRecordList* list) {
  if (list == nullptr) return nullptr;
  list->input = _input;
  list->constructor = _constructor;
  list->destructor = _denstructor;
  return _constructor(list);
}

PavoAVComponentRecord* _constructor(PavoRecordList* list) {
  if (list == nullptr) return nullptr;
  list->count = 0;
  list->records = allocate_records(PAVO_RECORD_LIST_INITIAL_CAPACITY);
  if (list->records == nullptr) {
    // An empty list without an array: the next append starts one.
    list->capacity = 0;
    std::fprintf(stderr, "record list: cannot allocate %u records\n",
                 PAVO_RECORD_LIST_INITIAL_CAPACITY);
    return nullptr;
  }
  list->capacity = PAVO_RECORD_LIST_INITIAL_CAPACITY;
  return list->records;
}

PavoAVComponentRecord* _input(PavoAVComponentRecord record, PavoRecordList* list) {
  if (list == nullptr) return nullptr;
  if (list->count >= list->capacity) {
    // The list changes only once the larger array exists: a failure leaves
    // every stored record where it was.
    const uint64_t wanted = uint64_t{list->capacity} + PAVO_RECORD_LIST_GROWTH;
    PavoAVComponentRecord* grown =
        wanted <= UINT32_MAX ? allocate_records(static_cast<size_t>(wanted)) : nullptr;
    if (grown == nullptr) {
      std::fprintf(stderr,
                   "record list: cannot grow to %" PRIu64 " records; keeping the %" PRIu32
                   " stored\n",
                   wanted, list->count);
      return nullptr;
    }
    if (list->count != 0) std::memcpy(grown, list->records, list->count * sizeof record);
    release_records(list->records);
    list->records = grown;
    list->capacity = static_cast<uint32_t>(wanted);
  }
  PavoAVComponentRecord* slot = &list->records[list->count];
  *slot = record;
  ++list->count;
  return slot;
}

void _denstructor(PavoRecordList* list) {
  if (list == nullptr) return;
  release_records(list->records);
}
