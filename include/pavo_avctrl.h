/*
 * A/V control interface: what the HbbTV plug-in calls for each page's A/V
 * Control object that plays a broadband stream.
 *
 * An A/V control object (the `void* handle` below) is made by
 * Pavo_AVCtrl_Create and owns one player of the media-player service. Its
 * functions send requests to the service and block until the reply has
 * arrived (at most the transport's reply time-out). The service's reports
 * come back as events on the library's event thread, where they are turned
 * into the events of pavo_avctrl_types.h (PavoAVCtrlEvent) and posted to the
 * callback registered with Pavo_AVCtrl_RegisterCallback.
 *
 * Results: 0 on success; -3 for a null handle or a null required pointer
 * (nothing is sent, nothing changes); -4 when an object cannot be made;
 * -1 where the handle-less platform callbacks find no single object;
 * otherwise what the service or the transport answered (see
 * pavo_mediaplayer_ipc.h). Out-parameters are written only on success and
 * are left as the caller set them otherwise. Times are milliseconds and
 * speeds factors (1.0 normal, 0 paused, negative backwards).
 *
 * The library logs through the platform's pavo_media_log at level 3.
 *
 * Thread safety: any function may be called from any plug-in thread; the
 * requests of one object are serialised by its operation lock, which is never
 * held while the plug-in's callback runs. Create and Destroy are expected on
 * one thread, and a handle must not be used concurrently with or after its
 * Destroy.
 *
 * The plug-in's callback (PavoAVCtrlCallback) runs on the event thread, and
 * for the posts of Pavo_AVCtrl_Play, Pause, Load, Seek and SetPlayState on
 * the thread that calls them. Neither of the object's locks is held while it
 * runs: it may call this interface, its own object included (unregister
 * itself, send requests, destroy the object). Posts on different threads may
 * run at the same time. An exception thrown by the callback is swallowed.
 *
 * Symbols carry their argument types (C++ linkage).
 */
#ifndef PAVO_AVCTRL_H
#define PAVO_AVCTRL_H

#include "pavo_avctrl_types.h"
#include "pavo_export.h"
#include "pavo_media_types.h"

/* ---- Library start and objects ------------------------------------------ */

/*
 * Hands the six Pavo_Platform_* callbacks below to the plug-in library, then
 * starts the media-player IPC client (opens the queues, starts the event
 * thread). Always 0: failures are not reported.
 */
PAVO_EXPORT int Pavo_AVCtrl_Initialize();
/* Stops the IPC client (the event thread ends). Always 0. */
PAVO_EXPORT int Pavo_AVCtrl_Finalize();

/*
 * Makes an A/V control object with its own service player and writes it to
 * *handle_out. The first argument is ignored. From here on the object's
 * events are translated on the event thread. A player that cannot be created
 * goes unnoticed (the object is made all the same).
 * Returns 0; -3 for a null handle_out; -4 when the object or its locks
 * cannot be made (nothing is left behind).
 */
PAVO_EXPORT int Pavo_AVCtrl_Create(void* unused, void** handle_out);
/*
 * Destroys the service player and the object. Waits for no callback: no post
 * starts after it returns, but a post already running on another thread may
 * still finish afterwards. An event being translated, or a post in progress
 * (the call may come from the callback itself), keeps the object until it
 * ends; the player is then destroyed from that thread.
 * Always 0; a null handle, or one that is no live object (destroyed
 * already), changes nothing.
 */
PAVO_EXPORT int Pavo_AVCtrl_Destroy(void* handle);

/*
 * The one A/V control object, for callers without a handle: non-null only
 * while exactly one object exists and none has been destroyed since it was
 * made. Otherwise logs "Error: initialized the avc %d times." and returns
 * null.
 */
PAVO_EXPORT void* Pavo_AVCtrl_GetHandle();

/* ---- Callbacks and MIME type -------------------------------------------- */

/* Sets (or, with Unregister, clears) the object's event callback and the user
 * data handed back to it; waits for a request of the object in progress.
 * Unregister also waits until no post of the object runs on another thread,
 * so that the user data may be released when it returns: it must not be
 * called while holding a lock that the callback takes. From inside the
 * object's callback it does not wait. Returns 0; -3 for a null handle. */
PAVO_EXPORT int Pavo_AVCtrl_RegisterCallback(void* handle, PavoAVCtrlCallback cb,
                                             const void* user_data);
PAVO_EXPORT int Pavo_AVCtrl_UnregisterCallback(void* handle);

/* Passes the TV side's callback to the plug-in library; the handle is not
 * used and may be null. Always 0. */
PAVO_EXPORT int Pavo_AVCtrl_RegisterCallbackForTV(void* handle,
                                                  PAVO_ERR (*cb)(PavoPluginIPCAvContrl,
                                                                 PavoAVComponentType, int),
                                                  const void* user_data);
/* Asks the plug-in library to drop it, handing it `handle`. Always 0. */
PAVO_EXPORT int Pavo_AVCtrl_UnregisterCallbackForTV(void* handle);

/* Hands the stream's MIME type to the player. The service's result; -3. */
PAVO_EXPORT int Pavo_AVCtrl_SetMimeType(void* handle, const char* mime);
/* Not supported: writes nothing. Always 0. */
PAVO_EXPORT int Pavo_AVCtrl_GetMimeType(void* handle, char* buffer, unsigned* length);

/* ---- Playback ----------------------------------------------------------- */

/*
 * Loads `url`. A stopped, finished or failed object moves to connecting
 * first (a play-state change is posted). An object whose player is gone (its
 * service was restarted: the object was told error with GetError 1; or it
 * was created while the service was down) first gets a new player; when that
 * fails, its result is returned and nothing else happens. The service's
 * result; -3.
 */
PAVO_EXPORT int Pavo_AVCtrl_Load(void* handle, const char* url);
/*
 * Plays at `speed`. With the object's speed unchanged, a speed change is
 * posted at once (on this thread, without the callback lock); otherwise the
 * new rate is sent and the service's report posts it. The play state changes
 * when the service reports. The result of the play request; -3.
 */
PAVO_EXPORT int Pavo_AVCtrl_Play(void* handle, double speed);
/*
 * Stopped, connecting or buffering: the object moves to paused at once
 * (posted), the service is not asked. Playing: the service is asked to pause
 * and a speed change to 0 is posted (on this thread, without the callback
 * lock); the service reports the state. Otherwise nothing. 0; -3.
 */
PAVO_EXPORT int Pavo_AVCtrl_Pause(void* handle);
/* Stops the player; success also ends a seek in flight. No event is posted
 * (the service reports the stop). The service's result; -3. */
PAVO_EXPORT int Pavo_AVCtrl_Stop(void* handle);
/*
 * Seeks to `position_ms`. One seek is in flight at a time: while one is,
 * the request waits (a later one replaces it) and 0 is returned; it is sent
 * when the service reports the seek complete. A refused request posts a
 * position change with the position the service reports.
 * The service's result, or 0 when the seek waits; -3.
 */
PAVO_EXPORT int Pavo_AVCtrl_Seek(void* handle, double position_ms);
/* Sets the object's play state on the plug-in's behalf and posts the change
 * if it is one; the service is not told. Always 0 (also for a null handle). */
PAVO_EXPORT int Pavo_AVCtrl_SetPlayState(void* handle, PavoAVCtrlPlayState state);
/* The object's play state. 0; -3. */
PAVO_EXPORT int Pavo_AVCtrl_GetPlayState(void* handle, PavoAVCtrlPlayState* state);
/* The stream's duration in ms. 0; the service's non-zero result; -3. */
PAVO_EXPORT int Pavo_AVCtrl_GetPlayTime(void* handle, double* duration_ms);
/* The play position in ms. 0, also when the request fails (*position_ms is
 * then untouched); -3. */
PAVO_EXPORT int Pavo_AVCtrl_GetPosition(void* handle, double* position_ms);
/* The object's speed, without asking the service. 0; -3. */
PAVO_EXPORT int Pavo_AVCtrl_GetCurrentSpeed(void* handle, double* speed);
/* The recorded error code. 0; -1 when there is none (*error untouched); -3. */
PAVO_EXPORT int Pavo_AVCtrl_GetError(void* handle, PavoAVCtrlPlayStateError* error);
PAVO_EXPORT int Pavo_AVCtrl_SetFullScreen(void* handle, bool full);
/* 0; the service's non-zero result (*full untouched); -3. */
PAVO_EXPORT int Pavo_AVCtrl_GetFullScreen(void* handle, bool* full);

/* ---- Components --------------------------------------------------------- */
/* Component type -1 and every type outside -1..2 address the service's track
 * type 3 ("other"). */

/* Number of components of `type`. The service's result; -3. */
PAVO_EXPORT int Pavo_AVCtrl_GetAVComponentNum(void* handle, PavoAVComponentType type,
                                              unsigned* count);
/* Fills the common members and the group of `type` of *info in place. The
 * service's result; -3. */
PAVO_EXPORT int Pavo_AVCtrl_GetAVComponentByIndex(void* handle, PavoAVComponentType type,
                                                  unsigned index, PavoAVCtrlTrackInfo* info);
PAVO_EXPORT int Pavo_AVCtrl_SelectComponent(void* handle, PavoAVComponentType type, int index);
/* 0 even when the service refuses; -3. */
PAVO_EXPORT int Pavo_AVCtrl_UnselectComponent(void* handle, PavoAVComponentType type, int index);
/* Switches the player's subtitles (without the operation lock). The
 * service's result; -3. */
PAVO_EXPORT int Pavo_AVCtrl_Component_EnableSubtitle(void* handle, bool enable);
/*
 * The service's index of the active component of `type`; 0 when none is
 * active. Asks for at most PAVO_AVCTRL_MAX_COMPONENTS components. Prints
 * the component count on standard output. 0; -3.
 */
PAVO_EXPORT int Pavo_AVCtrl_GetCurrentActiveComponent(void* handle, PavoAVComponentType type,
                                                      int* index);

/* Most components of one type that the library asks the service for. */
#define PAVO_AVCTRL_MAX_COMPONENTS 256u

/*
 * Platform callbacks, handed to the plug-in library by Pavo_AVCtrl_Initialize
 * and called without a handle: each works on the object that
 * Pavo_AVCtrl_GetHandle finds and returns what the A/V control function it
 * names returns, or -1 (logging "avHandle is null.") when there is none.
 */
PAVO_EXPORT int Pavo_Platform_Get_Track_Number(PavoAVComponentType type, unsigned* count);
PAVO_EXPORT int Pavo_Platform_Get_Track_By_Index(PavoAVComponentType type, unsigned index,
                                                 PavoAVCtrlTrackInfo* info);
PAVO_EXPORT int Pavo_Platform_Select_Track(PavoAVComponentType type, int index);
PAVO_EXPORT int Pavo_Platform_Unselect_Track(PavoAVComponentType type, int index);
PAVO_EXPORT int Pavo_Platform_Get_Current_Track(PavoAVComponentType type, int* index);
/* Tells the service whether the platform shows subtitles at all (one-way
 * notice, no object needed). Always 0. */
PAVO_EXPORT int Pavo_Platform_SubtitleEnable(bool enable);

/* ---- Settings ----------------------------------------------------------- */
/* Each is one request to the object's player; the service's result, or -3
 * for a null handle or argument. Nothing is kept in the object. */

/* Sends the description's url, language and label (a null member as an
 * empty text). -4 when the record cannot be built. */
PAVO_EXPORT int Pavo_AVCtrl_SetSubtitle(void* handle, const PavoAVCtrlSubtitleInfo* info);
PAVO_EXPORT int Pavo_AVCtrl_SetFont(void* handle, const char* font);
/* `count` must be -1 (for ever) or more, else -3. */
PAVO_EXPORT int Pavo_AVCtrl_SetLoop(void* handle, int count);
PAVO_EXPORT int Pavo_AVCtrl_SetLAURL(void* handle, const char* url);
PAVO_EXPORT int Pavo_AVCtrl_SetCustomData(void* handle, const char* data);
PAVO_EXPORT int Pavo_AVCtrl_UpdateWindow(void* handle, const PavoRect* rect);

/* ---- Accepted and not supported ------------------------------------------
 * Each returns 0 at once and writes none of its out-parameters. */

PAVO_EXPORT int Pavo_AVCtrl_Queue(void* handle, const char* url);
PAVO_EXPORT int Pavo_AVCtrl_NextTrack(void* handle);
PAVO_EXPORT int Pavo_AVCtrl_PreviousTrack(void* handle);
PAVO_EXPORT int Pavo_AVCtrl_SetVolume(void* handle, double volume);
PAVO_EXPORT int Pavo_AVCtrl_GetVolume(void* handle, double* volume);
PAVO_EXPORT int Pavo_AVCtrl_GetPlaybackSpeedNum(void* handle, unsigned* count);
PAVO_EXPORT int Pavo_AVCtrl_GetPlaybackSpeedByIndex(void* handle, unsigned index, double* speed);
PAVO_EXPORT int Pavo_AVCtrl_GetTrackNum(void* handle, unsigned* count);
PAVO_EXPORT int Pavo_AVCtrl_SetCurTrackIndex(void* handle, unsigned index);
PAVO_EXPORT int Pavo_AVCtrl_GetCurTrackIndex(void* handle, unsigned* index);
PAVO_EXPORT int Pavo_AVCtrl_RegisterMediaSyncCallback(
    void* handle, void (*cb)(PavoMediaSyncMsgType, const PavoMSEventInfo*, const void*),
    const void* user_data);
PAVO_EXPORT int Pavo_AVCtrl_UnregisterMediaSyncCallback(void* handle);
PAVO_EXPORT int Pavo_AVCtrl_StartMediaSync(void* handle);
PAVO_EXPORT int Pavo_AVCtrl_StopMediaSync(void* handle);
PAVO_EXPORT int Pavo_AVCtrl_SetTimelineSelector(void* handle, const char* selector);
PAVO_EXPORT int Pavo_AVCtrl_GetMRSUrl(void* handle, char* buffer, unsigned* length);
PAVO_EXPORT int Pavo_AVCtrl_GetCurrentTimeline(void* handle, PavoTimeline* timeline);
PAVO_EXPORT int Pavo_AVCtrl_GetContentId(void* handle, char* buffer, unsigned* length,
                                         PavoContentIdStatus* status);
PAVO_EXPORT int Pavo_AVCtrl_EnableMutilStreamSync(void* handle, bool enable);

#endif /* PAVO_AVCTRL_H */
