/*
 * Types shared by the media-player IPC client, the media-player adaptor, the
 * A/V control layer and the HbbTV plug-in. Their names appear in the C++
 * symbols of the exported functions, and the plug-in allocates some of the
 * records itself, so names, member order and types are part of the
 * interface.
 */
#ifndef PAVO_MEDIA_TYPES_H
#define PAVO_MEDIA_TYPES_H

#include <cstdint>
#include <string>

#include "pavo_drm_types.h" /* PavoDrmEvent, PavoDrmEventInfo, PavoDrmCallback */

/* Video window rectangle, in the caller's coordinates. */
typedef struct PavoRect {
  int32_t x;
  int32_t y;
  int32_t w;
  int32_t h;
} PavoRect;

/* Track kinds of the media-player service. */
typedef enum PavoTrackType {
  PAVO_TRACK_TYPE_VIDEO = 0,
  PAVO_TRACK_TYPE_AUDIO = 1,
  PAVO_TRACK_TYPE_SUBTITLE = 2,
  PAVO_TRACK_TYPE_OTHER = 3
} PavoTrackType;

/*
 * One track as the service describes it. Allocated by the plug-in and filled
 * in place; only the group of the requested kind is written. The groups do
 * not overlap.
 */
typedef struct PavoAVCtrlTrackInfo {
  int32_t index;         /* position within its kind, as the service counts */
  int32_t trackId;       /* the service's own track identifier */
  bool activated;        /* the active track of its kind */
  bool encrypted;
  int32_t type;
  uint32_t pid;          /* MPEG-2 transport-stream packet id */
  uint32_t componentTag; /* DVB component tag */
  std::string encoding;  /* media encoding */
  struct {
    int32_t width;
    int32_t height;
  } video;
  struct {
    int32_t priority;
    int32_t audioDescription;
    int32_t audioChannels;
    std::string language;
  } audio;
  struct {
    bool hearingImpaired;
    std::string url;
    std::string language;
    std::string label;
  } subtitle;
} PavoAVCtrlTrackInfo;

/*
 * Subtitle track record of the media-player protocol. Only url, language and
 * label are sent; the other members are carried with the values that the
 * A/V control layer gives them and read nowhere.
 */
typedef struct _PavoSubtitleTrackInfo {
  int32_t int_a = 0;
  int32_t int_b = 0;
  bool flag_a = false;
  bool flag_b = false;
  std::string text_a;
  int32_t int_c = -1;
  uint64_t value64 = 0;
  std::string text_b;
  bool flag_c = false;
  std::string url;
  std::string language;
  std::string text_c;
  std::string label;
  std::string text_d;
  std::string text_e;
} PavoSubtitleTrackInfo;

/* Content-identifier status: the service's numbering, passed through. */
typedef enum PavoContentIdStatus : int32_t {
} PavoContentIdStatus;

/* Display source: the platform's numbering, passed through. */
typedef enum pavoDisplayerSource : int32_t {
} pavoDisplayerSource;

/* Timeline values, read with full 64 bits. */
typedef struct PavoTimeline {
  uint64_t unitsPerTick;
  uint64_t unitsPerSecond;
  uint64_t contentTime;
  uint64_t wallclockTime;
} PavoTimeline;

/* "event" of a player event. Other values are passed on unchanged. */
typedef enum PavoMediaPluginEvent : int32_t {
  PAVO_MEDIA_PLUGIN_EVENT_ERROR = 0,
  PAVO_MEDIA_PLUGIN_EVENT_STATECHANGE = 1,
  PAVO_MEDIA_PLUGIN_EVENT_TRACKCHANGE = 4,
  PAVO_MEDIA_PLAYER_EVENT_COMPONENT_UPDATED = 5,
  PAVO_MEDIA_PLUGIN_EVENT_SPEEDCHANGE = 6,
  PAVO_MEDIA_PLUGIN_EVENT_SEEKCOMPLETED = 7
} PavoMediaPluginEvent;

/* "sub_event" of an error event. Other values are passed on unchanged. */
typedef enum PavoMediaError : int32_t {
  PAVO_MEDIA_ERR_NETWORK = 0,
  PAVO_MEDIA_ERR_FORMAT = 1,
  PAVO_MEDIA_ERR_DECODER = 2,
  PAVO_MEDIA_ERR_ENCRYPTED = 3
} PavoMediaError;

/* The service's player states, 0 to 10; their names are the service's. */
typedef enum PavoMediaPlayerPlayState : int32_t {
} PavoMediaPlayerPlayState;

/* Player callback: one for all players; user_data is the player's own. */
typedef void (*PavoMediaPlayerCallback)(PavoMediaPluginEvent event, PavoMediaError error,
                                        const void* user_data, int data1, double data2);

/* "event" of a media-synchronisation message. */
typedef enum PavoMediaSyncMsgType : int32_t {
  PAVO_MEDIA_SYNC_MSG_TIMELINE_AVAILABLE = 0,
  PAVO_MEDIA_SYNC_MSG_SPEED_CHANGE = 1,
  PAVO_MEDIA_SYNC_MSG_INFO_CHANGE = 2
} PavoMediaSyncMsgType;

/*
 * Record of a media-synchronisation message: the variant of the message type
 * is filled, in the info variant only the fields that a true flag covers.
 * Strings are valid only during the callback.
 */
typedef union PavoMSEventInfo {
  struct {
    bool timelineAvailable;
  } available; /* PAVO_MEDIA_SYNC_MSG_TIMELINE_AVAILABLE */
  struct {
    double speed;
  } speedChange; /* PAVO_MEDIA_SYNC_MSG_SPEED_CHANGE */
  struct {
    bool bTimelineOptionsChange;
    const char* timelineSelector;
    uint64_t unitsPerTick;
    uint64_t reserved; /* never set by the library */
    bool bContentIdChange;
    const char* contentId;
    PavoContentIdStatus contentIdStatus;
    bool bMrsUrlChange;
    const char* mrsUrl;
  } infoChange; /* PAVO_MEDIA_SYNC_MSG_INFO_CHANGE */
} PavoMSEventInfo;

typedef void (*PavoMediaSyncCallback)(PavoMediaSyncMsgType type, const PavoMSEventInfo* info,
                                      const void* user_data);

#endif /* PAVO_MEDIA_TYPES_H */
