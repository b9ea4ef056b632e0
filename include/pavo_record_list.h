/*
 * Record list: a growable array of component records that carries its own
 * operations as function pointers.
 *
 * The holder embeds a PavoRecordList (the module never allocates the object
 * itself), prepares it with Init, appends through the `input` slot and
 * releases it through the `destructor` slot:
 *
 *   PavoRecordList list;
 *   if (Init(&list) == NULL) { ... out of memory ... }
 *   if (list.input(record, &list) == NULL) { ... out of memory ... }
 *   ...
 *   list.destructor(&list);
 *
 * The array starts with room for PAVO_RECORD_LIST_INITIAL_CAPACITY records
 * and grows by PAVO_RECORD_LIST_GROWTH records whenever an append finds it
 * full; growing copies every stored record to the new array, so addresses of
 * slots handed out earlier are valid only until the next append.
 *
 * A failed allocation is reported through the result (NULL) and a line on
 * standard error; it never loses a record that was already stored.
 *
 * Thread safety: a list is not safe for concurrent use; different lists
 * share nothing. None of the functions blocks or calls back.
 */
#ifndef PAVO_RECORD_LIST_H
#define PAVO_RECORD_LIST_H

#include <stdint.h>

#include "pavo_component_record.h"
#include "pavo_export.h"

PAVO_EXTERN_C_BEGIN

#define PAVO_RECORD_LIST_INITIAL_CAPACITY 10u
#define PAVO_RECORD_LIST_GROWTH 10u

typedef struct PavoRecordList PavoRecordList;

struct PavoRecordList {
  /* Heap array of `capacity` records; slots from `count` on are undefined. */
  PavoAVComponentRecord* records;
  uint32_t count;
  uint32_t capacity;
  /* Set to _input, _constructor and _denstructor by Init. */
  PavoAVComponentRecord* (*input)(PavoAVComponentRecord record, PavoRecordList* list);
  PavoAVComponentRecord* (*constructor)(PavoRecordList* list);
  void (*destructor)(PavoRecordList* list);
};

/*
 * Stores _input, _constructor and _denstructor in the three slots, then runs
 * _constructor. Returns what _constructor returns; NULL for a null list
 * (nothing written).
 */
PAVO_EXPORT PavoAVComponentRecord* Init(PavoRecordList* list);

/*
 * Makes the list empty with a new, uncleared array of 10 records: sets
 * `count` to 0, `capacity` to 10 and `records` to the array, and returns it.
 * Out of memory: `records` NULL, `count` and `capacity` 0, result NULL (the
 * list is still usable: the next append tries to allocate again).
 * A null list gives NULL. Whatever `records` pointed to before is not
 * released.
 */
PAVO_EXPORT PavoAVComponentRecord* _constructor(PavoRecordList* list);

/*
 * Copies `record` into slot `count` and returns the slot's address; `count`
 * grows by one. A full list first moves its records, in order, to a new
 * array of `capacity` + 10 records and releases the old one.
 * Returns NULL, with the list left exactly as it was (array, records, count
 * and capacity), when the larger array cannot be allocated or the list is
 * null.
 * REQUIRES: the list was prepared by Init or _constructor and not released.
 */
PAVO_EXPORT PavoAVComponentRecord* _input(PavoAVComponentRecord record, PavoRecordList* list);

/*
 * Releases the array. `records`, `count` and `capacity` keep their values:
 * the list must not be used again before a new Init or _constructor.
 * A null list is ignored.
 */
PAVO_EXPORT void _denstructor(PavoRecordList* list);

PAVO_EXTERN_C_END

#endif /* PAVO_RECORD_LIST_H */
