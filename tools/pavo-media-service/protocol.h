// The service's reading of the media-player protocol: queue keys, command
// numbers, event families and numbers, and the player states it reports.
// Written from the protocol tables on purpose independently of the library's
// client, so that the two readings check each other in the end-to-end tests.
#ifndef PAVO_MEDIA_SERVICE_PROTOCOL_H
#define PAVO_MEDIA_SERVICE_PROTOCOL_H

#include <sys/types.h>

#include <cstdint>

namespace pavo::service {

// Queue keys. The service serves requests on kRequestKey (replies on + 1) and
// notices on kNoticeKey; it sends events to kEventKey and its own requests to
// kDisplayRequestKey (the library answers on + 1).
constexpr key_t kRequestKey = static_cast<key_t>(0x95000100);
constexpr key_t kReplyKey = static_cast<key_t>(0x95000101);
constexpr key_t kNoticeKey = static_cast<key_t>(0x95000080);
constexpr key_t kEventKey = static_cast<key_t>(0x95000070);
constexpr key_t kDisplayRequestKey = static_cast<key_t>(0x95000090);
constexpr int kMessageType = 1;
constexpr uint32_t kChunkSize = 1024;

// Command numbers ("event_type" of a request).
enum Command : int {
  kCreatePlayer = 0,
  kDestroyPlayer = 1,
  kLoad = 2,
  kPlay = 3,
  kPause = 4,
  kStop = 5,
  kSeek = 6,
  kSetPlayRate = 7,
  kGetDuration = 8,
  kGetPlayRate = 9,
  kGetCurrentTime = 10,
  kGetFullScreen = 11,
  kSetFullScreen = 12,
  kSetVideoWindowRect = 13,
  kGetPlayState = 14,
  kSetMimeType = 15,
  kSetLicenseServerUrl = 16,
  kSetCustomData = 17,
  kEnableSubtitle = 18,
  kSetSubtitle = 19,
  kSetFontFile = 20,
  kSetLoopCount = 21,
  kSetCookie = 22,
  kGetTrackNumber = 23,
  kGetTrackByIndex = 24,
  kSelectTrack = 25,
  kUnselectTrack = 26,
  kStopAllPlayers = 28,
  kChangeDisplaySourceToDtv = 29,
  kGetCurrentSource = 30,
  kPlatformSubtitleEnable = 31,  // a notice on kNoticeKey, never a request
  kRegisterMediaSync = 100,
  kUnregisterMediaSync = 101,
  kStartMediaSync = 102,
  kStopMediaSync = 103,
  kSetTimelineSelector = 104,
  kGetMrsUrl = 105,
  kGetCurrentTimeline = 106,
  kGetContentId = 107,
  kEnableMultiStreamSync = 108,
  kGetPlayerIdBySource = 109,
  kDrmCreate = 200,
  kDrmDestroy = 201,
  kDrmRegisterCallback = 202,
  kDrmUnregisterCallback = 203,
  kDrmSendMessage = 204,
  kDrmSystemStatus = 205,
  kDrmCanPlayContent = 206,
  kDrmCanRecordContent = 207,
  kDrmClearLicense = 208,
};

// Event families ("event_type" of an event).
enum EventFamily : int { kPlayerEvent = 0, kMediaSyncEvent = 1, kDrmEvent = 3 };

// Player events ("event" of family 0).
enum PlayerEvent : int {
  kErrorEvent = 0,
  kStateChangeEvent = 1,
  kTrackChangeEvent = 4,
  kComponentUpdatedEvent = 5,
  kSpeedChangeEvent = 6,
  kSeekCompletedEvent = 7,
};

// Errors ("sub_event" of an error event).
enum MediaError : int { kNetworkError = 0, kFormatError = 1, kDecoderError = 2, kEncryptedError = 3 };

// Media-sync messages ("event" of family 1).
enum MediaSyncMessage : int { kTimelineAvailable = 0, kSyncSpeedChange = 1, kSyncInfoChange = 2 };

// DRM events ("event" of family 3).
enum DrmEventKind : int { kDrmMessageResult = 0, kDrmSystemMessage = 1, kDrmStatusChange = 2 };

// The player states this service reports ("data1" of a state change, the
// answer to kGetPlayState). 3 is used for nothing here.
enum PlayerState : int {
  kIdle = 0,        // created, nothing loaded
  kLoaded = 1,      // reserved: a stopped player that holds an item
  kConnecting = 2,
  kPaused = 4,
  kPlaying = 5,
  kBuffering = 6,   // filling the buffer after a load
  kSeeking = 7,     // refilling the buffer after a seek
  kFinished = 8,
  kStopped = 9,
  kError = 10,
};

// Track kinds ("track_type").
enum TrackKind : int { kVideoTrack = 0, kAudioTrack = 1, kSubtitleTrack = 2, kOtherTrack = 3 };

// The service's request to the library on kDisplayRequestKey, and the
// display sources this service names.
constexpr int kChangeDisplaySourceRequest = 2;
enum DisplaySource : int { kSourceDtv = 0, kSourceBroadband = 1 };

// Readable names for the verbose output; "?" for numbers without one.
const char* command_name(int command);
const char* state_name(int state);
const char* player_event_name(int event);

}  // namespace pavo::service

#endif  // PAVO_MEDIA_SERVICE_PROTOCOL_H
