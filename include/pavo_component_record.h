/*
 * The component record: one audio, video or subtitle component of a stream as
 * collected for a track event, and the element of the record list
 * (pavo_record_list.h). Plain C, so that the record list stays a C interface.
 * Member order, types and sizes are part of the interface.
 */
#ifndef PAVO_COMPONENT_RECORD_H
#define PAVO_COMPONENT_RECORD_H

#include <stdint.h>

#ifndef __cplusplus
#include <stdbool.h>
#endif

/* One component as collected for a track event. */
typedef struct PavoAVComponentRecord {
  int32_t type;          /* a PavoAVComponentType */
  char encoding[128];    /* NUL-terminated */
  char language[4];      /* three-letter code, NUL-terminated */
  int32_t audioChannels;
  bool hearingImpaired;
  bool audioDescription;
} PavoAVComponentRecord;

#endif /* PAVO_COMPONENT_RECORD_H */
