#include "pavo-media-service/protocol.h"

namespace pavo::service {

const char* command_name(int command) {
  switch (command) {
    case kCreatePlayer: return "create";
    case kDestroyPlayer: return "destroy";
    case kLoad: return "load";
    case kPlay: return "play";
    case kPause: return "pause";
    case kStop: return "stop";
    case kSeek: return "seek";
    case kSetPlayRate: return "set-play-rate";
    case kGetDuration: return "get-duration";
    case kGetPlayRate: return "get-play-rate";
    case kGetCurrentTime: return "get-current-time";
    case kGetFullScreen: return "get-full-screen";
    case kSetFullScreen: return "set-full-screen";
    case kSetVideoWindowRect: return "set-video-window";
    case kGetPlayState: return "get-play-state";
    case kSetMimeType: return "set-mime-type";
    case kSetLicenseServerUrl: return "set-licence-server";
    case kSetCustomData: return "set-custom-data";
    case kEnableSubtitle: return "enable-subtitle";
    case kSetSubtitle: return "set-subtitle";
    case kSetFontFile: return "set-font-file";
    case kSetLoopCount: return "set-loop-count";
    case kSetCookie: return "set-cookie";
    case kGetTrackNumber: return "get-track-number";
    case kGetTrackByIndex: return "get-track";
    case kSelectTrack: return "select-track";
    case kUnselectTrack: return "unselect-track";
    case kStopAllPlayers: return "stop-all-players";
    case kChangeDisplaySourceToDtv: return "display-source-to-dtv";
    case kGetCurrentSource: return "get-current-source";
    case kPlatformSubtitleEnable: return "platform-subtitle-enable";
    case kRegisterMediaSync: return "register-media-sync";
    case kUnregisterMediaSync: return "unregister-media-sync";
    case kStartMediaSync: return "start-media-sync";
    case kStopMediaSync: return "stop-media-sync";
    case kSetTimelineSelector: return "set-timeline-selector";
    case kGetMrsUrl: return "get-mrs-url";
    case kGetCurrentTimeline: return "get-current-timeline";
    case kGetContentId: return "get-content-id";
    case kEnableMultiStreamSync: return "enable-multi-stream-sync";
    case kGetPlayerIdBySource: return "get-player-by-source";
    case kDrmCreate: return "drm-create";
    case kDrmDestroy: return "drm-destroy";
    case kDrmRegisterCallback: return "drm-register-callback";
    case kDrmUnregisterCallback: return "drm-unregister-callback";
    case kDrmSendMessage: return "drm-send-message";
    case kDrmSystemStatus: return "drm-system-status";
    case kDrmCanPlayContent: return "drm-can-play";
    case kDrmCanRecordContent: return "drm-can-record";
    case kDrmClearLicense: return "drm-clear-licence";
    default: return "?";
  }
}

const char* state_name(int state) {
  switch (state) {
    case kIdle: return "idle";
    case kLoaded: return "loaded";
    case kConnecting: return "connecting";
    case kPaused: return "paused";
    case kPlaying: return "playing";
    case kBuffering: return "buffering";
    case kSeeking: return "seeking";
    case kFinished: return "finished";
    case kStopped: return "stopped";
    case kError: return "error";
    default: return "?";
  }
}

const char* player_event_name(int event) {
  switch (event) {
    case kErrorEvent: return "error";
    case kStateChangeEvent: return "state-change";
    case kTrackChangeEvent: return "track-change";
    case kComponentUpdatedEvent: return "component-updated";
    case kSpeedChangeEvent: return "speed-change";
    case kSeekCompletedEvent: return "seek-completed";
    default: return "?";
  }
}

}  // namespace pavo::service
