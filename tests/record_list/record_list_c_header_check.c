/* Compiled as C: the record list is a C interface. Returns the count after
 * eleven appends through the slots (one growth), or -1. */
#include <string.h>

#include "pavo_record_list.h"

int record_list_c_header_check(void) {
  PavoRecordList list;
  PavoAVComponentRecord record;
  int i, count;
  memset(&record, 0, sizeof record);
  record.hearingImpaired = true;
  if (Init(&list) == NULL) return -1;
  for (i = 0; i < 11; ++i) {
    record.audioChannels = i;
    if (list.input(record, &list) == NULL) return -1;
  }
  count = list.records[10].audioChannels == 10 ? (int)list.count : -1;
  list.destructor(&list);
  return count;
}
