/*
 * Types of the A/V control interface between the HbbTV plug-in and the
 * library. Their names appear in the C++ symbols of the exported functions.
 */
#ifndef PAVO_AVCTRL_TYPES_H
#define PAVO_AVCTRL_TYPES_H

#include <cstdint>

#include "pavo_component_record.h"
#include "pavo_media_types.h"

/* Play states of an A/V control object (OIPF numbering). */
typedef enum PavoAVCtrlPlayState : int32_t {
  PAVO_AVCTRL_PLAYSTATE_STOPPED = 0,
  PAVO_AVCTRL_PLAYSTATE_PLAYING = 1,
  PAVO_AVCTRL_PLAYSTATE_PAUSED = 2,
  PAVO_AVCTRL_PLAYSTATE_CONNECTING = 3,
  PAVO_AVCTRL_PLAYSTATE_BUFFERING = 4,
  PAVO_AVCTRL_PLAYSTATE_FINISHED = 5,
  PAVO_AVCTRL_PLAYSTATE_ERROR = 6
} PavoAVCtrlPlayState;

/* Events posted to the plug-in's callback. */
typedef enum PavoAVCtrlEvent : int32_t {
  PAVO_AVCTRL_EVENT_PLAYSTATECHANGE = 0,
  PAVO_AVCTRL_EVENT_SPEEDCHANGE = 2,
  PAVO_AVCTRL_EVENT_POSITIONCHANGE = 3,
  PAVO_AVCTRL_EVENT_DRMERROR = 7,
  PAVO_AVCTRL_EVENT_COMPONENTCHANGE = 8,
  PAVO_AVCTRL_EVENT_MEDIAERROR = 99
} PavoAVCtrlEvent;

/*
 * Record posted with each event, zero-filled before the value is written.
 * `value` carries a 32-bit integer or a double, as the event defines; the
 * reserved members belong to the plug-in's side and are always zero here.
 */
typedef struct PavoAVCtrlEventInfo {
  union {
    int32_t intValue;
    double doubleValue;
  } value;
  int32_t reserved[4];
} PavoAVCtrlEventInfo;

/* Error code of an object (OIPF numbering). */
typedef enum PavoAVCtrlPlayStateError : int32_t {
  PAVO_AVCTRL_ERROR_NONE = -1,
  PAVO_AVCTRL_ERROR_FORMAT = 0,
  PAVO_AVCTRL_ERROR_CONNECTION = 1,
  PAVO_AVCTRL_ERROR_CORRUPT = 4,
  PAVO_AVCTRL_ERROR_NOT_AVAILABLE = 5
} PavoAVCtrlPlayStateError;

/* Component types (OIPF numbering). */
typedef enum PavoAVComponentType : int32_t {
  PAVO_AV_COMPONENT_TYPE_OTHER = -1,
  PAVO_AV_COMPONENT_TYPE_VIDEO = 0,
  PAVO_AV_COMPONENT_TYPE_AUDIO = 1,
  PAVO_AV_COMPONENT_TYPE_SUBTITLE = 2
} PavoAVComponentType;

/* The plug-in's event callback; `info` is valid only during the call. */
typedef void (*PavoAVCtrlCallback)(PavoAVCtrlEvent event, const PavoAVCtrlEventInfo* info,
                                   const void* user_data);

/* The plug-in's subtitle description; only these members are read. */
typedef struct PavoAVCtrlSubtitleInfo {
  const char* url;
  const char* language;
  const char* label;
} PavoAVCtrlSubtitleInfo;

/* Status type and request type of the TV-side A/V control callback. */
typedef int PAVO_ERR;
typedef enum PavoPluginIPCAvContrl : int32_t {
} PavoPluginIPCAvContrl;

typedef PAVO_ERR (*PavoTVAvControlCallback)(PavoPluginIPCAvContrl request, PavoAVComponentType type,
                                            int value);

#endif /* PAVO_AVCTRL_TYPES_H */
