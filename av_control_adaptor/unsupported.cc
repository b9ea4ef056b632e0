// Entry points that the interface has and this system does not support: each
// is accepted, asks nothing and writes none of its out-parameters.
#include "pavo_avctrl.h"

int Pavo_AVCtrl_GetMimeType(void*, char*, unsigned*) { return 0; }
int Pavo_AVCtrl_Queue(void*, const char*) { return 0; }
int Pavo_AVCtrl_NextTrack(void*) { return 0; }
int Pavo_AVCtrl_PreviousTrack(void*) { return 0; }
int Pavo_AVCtrl_SetVolume(void*, double) { return 0; }
int Pavo_AVCtrl_GetVolume(void*, double*) { return 0; }
int Pavo_AVCtrl_GetPlaybackSpeedNum(void*, unsigned*) { return 0; }
int Pavo_AVCtrl_GetPlaybackSpeedByIndex(void*, unsigned, double*) { return 0; }
int Pavo_AVCtrl_GetTrackNum(void*, unsigned*) { return 0; }
int Pavo_AVCtrl_SetCurTrackIndex(void*, unsigned) { return 0; }
int Pavo_AVCtrl_GetCurTrackIndex(void*, unsigned*) { return 0; }
// Media synchronisation is the media-player client's (its own commands);
// this layer's entry points for it are empty.
int Pavo_AVCtrl_RegisterMediaSyncCallback(
    void*, void (*)(PavoMediaSyncMsgType, const PavoMSEventInfo*, const void*), const void*) {
  return 0;
}
int Pavo_AVCtrl_UnregisterMediaSyncCallback(void*) { return 0; }
int Pavo_AVCtrl_StartMediaSync(void*) { return 0; }
int Pavo_AVCtrl_StopMediaSync(void*) { return 0; }
int Pavo_AVCtrl_SetTimelineSelector(void*, const char*) { return 0; }
int Pavo_AVCtrl_GetMRSUrl(void*, char*, unsigned*) { return 0; }
int Pavo_AVCtrl_GetCurrentTimeline(void*, PavoTimeline*) { return 0; }
int Pavo_AVCtrl_GetContentId(void*, char*, unsigned*, PavoContentIdStatus*) { return 0; }
int Pavo_AVCtrl_EnableMutilStreamSync(void*, bool) { return 0; }
