/*
 * DRM events as the DRM agent's user receives them. Plain C, so that the DRM
 * agent interface (pavo_drm_agent.h) stays a C interface; the C++ side sees
 * the same names with a fixed 32-bit underlying type.
 */
#ifndef PAVO_DRM_TYPES_H
#define PAVO_DRM_TYPES_H

#include <stdint.h>

/* DRM events. */
#ifdef __cplusplus
typedef enum PavoDrmEvent : int32_t {
#else
typedef enum PavoDrmEvent {
#endif
  PAVO_DRM_EVENT_MESSAGE_RESULT = 0,      /* the answer to a sent DRM message */
  PAVO_DRM_EVENT_SYSTEM_MESSAGE = 1,      /* a message the DRM system sends on its own */
  PAVO_DRM_EVENT_SYSTEM_STATUS_CHANGE = 2 /* ask for the new status with DRMSystemStatus */
} PavoDrmEvent;

/* Record of a DRM event; the variant of the event is filled. Strings are
 * NUL-terminated and valid only during the callback. */
typedef union PavoDrmEventInfo {
  struct {
    const char* msgId; /* the id that the send of the message returned */
    const char* resultMsg;
    int32_t resultCode;
  } messageResult; /* PAVO_DRM_EVENT_MESSAGE_RESULT */
  struct {
    const char* msg;
    const char* sysId;
  } systemMessage; /* PAVO_DRM_EVENT_SYSTEM_MESSAGE */
  struct {
    const char* sysId;
  } statusChange; /* PAVO_DRM_EVENT_SYSTEM_STATUS_CHANGE */
} PavoDrmEventInfo;

/* DRM callback, run on the library's event thread; `user_data` is what the
 * agent registered it with. */
typedef void (*PavoDrmCallback)(PavoDrmEvent event, const PavoDrmEventInfo* info,
                                const void* user_data);

#endif /* PAVO_DRM_TYPES_H */
