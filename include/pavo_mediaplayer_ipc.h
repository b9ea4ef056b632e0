/*
 * Media-player IPC client: the library's JSON command protocol with the
 * media-player service process.
 *
 * Every command sends one JSON object ("event_type" = the command number,
 * "player_id" where the command addresses one player, then the command's
 * members) as a synchronous request on the request client (queue key
 * 0x95000100, replies on 0x95000101) and blocks for the service's JSON
 * reply (its result in "ret").
 *
 * Results (every function returns int):
 *   - the transport's code, unchanged, when the exchange fails (-1, -3 - also
 *     before Pavo_MediaPlayer_IPC_Initialize -, -4); out-parameters untouched;
 *   - -1 when the reply is not a JSON object or a member has a type that
 *     cannot be read as the command's output; out-parameters untouched;
 *   - otherwise the service's "ret" (0 when absent), never interpreted, with
 *     every out-parameter written from the reply (a missing member reads as
 *     0, 0.0, false or the empty string), whatever "ret" says;
 *   - -1 for a null pointer argument (a text, a record or an out-parameter),
 *     refused with an error record before anything is sent; exceptions are
 *     stated where they apply (GetMRSUrl's and GetContentId's buffer, the
 *     texts and id buffer of DrmAgent_sendDRMMessage);
 *   - -4 when memory runs out.
 * Each blocks until the reply arrives, at most for the transport's reply
 * time-out (then -1).
 *
 * Thread safety: every function may be called from any thread; the transport
 * serialises the exchanges (one request in flight), and each caller gets its
 * own reply. Callbacks registered here run on the event receive thread, one
 * event at a time and without any lock of this client held, so they may call
 * any function here except Initialize and Finalize. Removing a registration
 * (UnregisterCallback, Destory, Finalize, UnregisterMediaSyncCallback, the
 * DRM agent's UnregisterCallback) returns only when no call of that
 * registration is running on the event thread (unless it is made from that
 * call itself), so its user data may be released then.
 * REQUIRES: a removal is not made while holding a lock that the callback
 * takes.
 *
 * Symbols carry their argument types (C++ linkage).
 */
#ifndef PAVO_MEDIAPLAYER_IPC_H
#define PAVO_MEDIAPLAYER_IPC_H

#include <string>

#include "pavo_export.h"
#include "pavo_ipc.h"
#include "pavo_media_types.h"

/* Queue keys of the four endpoints. */
#define PAVO_MEDIAPLAYER_REQUEST_KEY 0x95000100      /* synchronous client; replies on + 1 */
#define PAVO_MEDIAPLAYER_NOTICE_KEY 0x95000080       /* one-way client */
#define PAVO_MEDIAPLAYER_SERVICE_REQUEST_KEY 0x95000090 /* synchronous server */
#define PAVO_MEDIAPLAYER_EVENT_KEY 0x95000070        /* one-way (event) server */

/*
 * The request client and the one-way notice client (null while closed), the
 * one player callback of the process (last registered wins) and the
 * media-synchronisation callback. Written only by this client, with atomic
 * stores; read them with atomic loads (__atomic_load_n), never write them.
 */
PAVO_EXPORT extern pavo_ipc_client* g_mediaplayer_ipc_client_handle;
PAVO_EXPORT extern pavo_ipc_client* g_mediaplayer_ipc_client_async_handle;
PAVO_EXPORT extern PavoMediaPlayerCallback g_mediaplayer_cb;
PAVO_EXPORT extern PavoMediaSyncCallback g_mediasync_cb;

/* ---- Endpoints and players ---------------------------------------------- */

/* Opens the four endpoints (idempotent; an open state registers the two
 * server callbacks again). The argument is ignored. Returns 0 or -1.
 * REQUIRES: not called from a callback of this client. */
PAVO_EXPORT int Pavo_MediaPlayer_IPC_Initialize(int);
/* Closes the endpoints and empties the player registry. A command in flight
 * (also one made by a callback on the event thread) is waited for, at most
 * for the reply time-out; later ones fail with -3. Returns 0 or -1.
 * REQUIRES: not called from a callback of this client. */
PAVO_EXPORT int Pavo_MediaPlayer_IPC_Finalize();
/* Command 0: a new player; writes its id. */
PAVO_EXPORT int Pavo_MediaPlayer_IPC_Create(unsigned* player_id);
/* Command 1: destroys the player; a parsed reply drops its registry entry. */
PAVO_EXPORT int Pavo_MediaPlayer_IPC_Destory(unsigned player_id);
/* Local: sets the process-wide player callback and this player's user data.
 * Returns 0; -4 (nothing changed) when the registry cannot grow. */
PAVO_EXPORT int Pavo_MediaPlayer_IPC_RegisterCallback(unsigned player_id, PavoMediaPlayerCallback cb,
                                                      void* user_data);
/* Local: drops the player's registry entry (its events are dropped from now
 * on); logs nothing. Always 0. */
PAVO_EXPORT int Pavo_MediaPlayer_IPC_UnregisterCallback(unsigned player_id);

/* ---- Playback (commands 2 to 22) ---------------------------------------- */

PAVO_EXPORT int Pavo_MediaPlayer_IPC_Load(unsigned player_id, const char* url);
PAVO_EXPORT int Pavo_MediaPlayer_IPC_Play(unsigned player_id);
PAVO_EXPORT int Pavo_MediaPlayer_IPC_Pause(unsigned player_id);
PAVO_EXPORT int Pavo_MediaPlayer_IPC_Stop(unsigned player_id);
/* pos in seconds. */
PAVO_EXPORT int Pavo_MediaPlayer_IPC_Seek(unsigned player_id, double pos);
/* rate: speed x 1000.0 (1000.0 is normal speed). */
PAVO_EXPORT int Pavo_MediaPlayer_IPC_SetPlayRate(unsigned player_id, double rate);
PAVO_EXPORT int Pavo_MediaPlayer_IPC_GetDuration(unsigned player_id, double* duration);
PAVO_EXPORT int Pavo_MediaPlayer_IPC_GetPlayRate(unsigned player_id, double* rate);
PAVO_EXPORT int Pavo_MediaPlayer_IPC_GetCurrentTime(unsigned player_id, double* time);
PAVO_EXPORT int Pavo_MediaPlayer_IPC_GetFullScreen(unsigned player_id, int* full);
PAVO_EXPORT int Pavo_MediaPlayer_IPC_SetFullScreen(unsigned player_id, int full);
PAVO_EXPORT int Pavo_MediaPlayer_IPC_SetVideoWindowRect(unsigned player_id, const PavoRect* rect);
/* Writes the service's player state (a PavoMediaPlayerPlayState) unchanged. */
PAVO_EXPORT int Pavo_MediaPlayer_IPC_GetPlayState(unsigned player_id, int* state);
PAVO_EXPORT int Pavo_MediaPlayer_IPC_SetMimetype(unsigned player_id, const char* mime);
PAVO_EXPORT int Pavo_MediaPlayer_IPC_SetLicenseServerUrl(unsigned player_id, const char* url);
/* A null `data` is refused with -1 before anything is sent. */
PAVO_EXPORT int Pavo_MediaPlayer_IPC_SetCustomData(unsigned player_id, const char* data);
PAVO_EXPORT int Pavo_MediaPlayer_IPC_EnableSubtitle(unsigned player_id, bool enable);
/* Sends the record's url, language and label; `size` is ignored. */
PAVO_EXPORT int Pavo_MediaPlayer_IPC_SetSubtitle(unsigned player_id, _PavoSubtitleTrackInfo* info,
                                                 int size);
/* `length` is ignored. */
PAVO_EXPORT int Pavo_MediaPlayer_IPC_SetFontFile(unsigned player_id, const char* font, int length);
PAVO_EXPORT int Pavo_MediaPlayer_IPC_SetLoopCount(unsigned player_id, int loop);
PAVO_EXPORT int Pavo_MediaPlayer_IPC_SetCookie(unsigned player_id, const char* cookie);

/* ---- Tracks (commands 23 to 26, 31) ------------------------------------- */

PAVO_EXPORT int Pavo_MediaPlayer_IPC_GetTrackNumber(unsigned player_id, PavoTrackType type,
                                                    unsigned* count);
/* Fills the common members and the group of `type` in place. */
PAVO_EXPORT int Pavo_MediaPlayer_IPC_GetTrackByIndex(unsigned player_id, PavoTrackType type, int index,
                                                     PavoAVCtrlTrackInfo* info);
PAVO_EXPORT int Pavo_MediaPlayer_IPC_SelectTrack(unsigned player_id, PavoTrackType type, int index);
PAVO_EXPORT int Pavo_MediaPlayer_IPC_UnselectTrack(unsigned player_id, PavoTrackType type, int index);
/* One-way notice on the notice client; returns the send's result. */
PAVO_EXPORT int Pavo_MediaPlayer_IPC_PlatformSubtitleEnable(bool enable);

/* ---- Display source and media synchronisation (28 to 30, 100 to 109) ---- */

PAVO_EXPORT int Pavo_MediaPlayer_IPC_StopAllPlayers();
PAVO_EXPORT int Pavo_MediaPlayer_IPC_ChangeDisPlaySourceToDTV();
/* Returns 0 for every parsed reply. */
PAVO_EXPORT int Pavo_MediaPlayer_IPC_GetCurrentSource(int& source);
PAVO_EXPORT int Pavo_MediaPlayer_IPC_RegisterMediaSyncCallback(unsigned player_id, PavoMediaSyncCallback cb,
                                                               const void* user_data);
PAVO_EXPORT int Pavo_MediaPlayer_IPC_UnregisterMediaSyncCallback(unsigned player_id);
PAVO_EXPORT int Pavo_MediaPlayer_IPC_StartMediaSync(unsigned player_id);
PAVO_EXPORT int Pavo_MediaPlayer_IPC_StopMediaSync(unsigned player_id);
PAVO_EXPORT int Pavo_MediaPlayer_IPC_SetTimelineSelector(unsigned player_id, const char* selector);
/*
 * *len: in, the capacity of buf (sent as "len"); out, the reply's "len".
 * `buf` may be null (only the length is asked for); otherwise it receives
 * "len" bytes of the URL, bounded by the capacity and by the URL and its
 * terminator: it is terminated only when "len" counts the terminator. A
 * "len" beyond either bound is reported by an error record (and in *len).
 */
PAVO_EXPORT int Pavo_MediaPlayer_IPC_GetMRSUrl(unsigned player_id, char* buf, unsigned* len);
PAVO_EXPORT int Pavo_MediaPlayer_IPC_GetCurrentTimeline(unsigned player_id, PavoTimeline* timeline);
/* As GetMRSUrl, with the content id and its status; returns 0 for every
 * readable reply. */
PAVO_EXPORT int Pavo_MediaPlayer_IPC_GetContentId(unsigned player_id, char* buf, unsigned* len,
                                                  PavoContentIdStatus* status);
PAVO_EXPORT int Pavo_MediaPlayer_IPC_EnableMutilStreamSync(unsigned player_id, bool enable);
PAVO_EXPORT int Pavo_MediaPlayer_IPC_GetPlayerIdBySource(std::string source, unsigned& player_id);

/* ---- DRM agent commands (200 to 208) ------------------------------------ */
/* The Pavo_DrmAgent_* functions (pavo_drm_agent.h) check their arguments and
 * call these. sendDRMMessage sends null texts as empty strings and copies the
 * id only into a non-null buffer. */

PAVO_EXPORT int Pavo_MediaPlayer_IPC_DrmAgent_Create(void** handle);
PAVO_EXPORT int Pavo_MediaPlayer_IPC_DrmAgent_Destroy(void* handle);
PAVO_EXPORT int Pavo_MediaPlayer_IPC_DrmAgent_RegisterCallback(void* handle, PavoDrmCallback cb,
                                                               const void* user_data);
PAVO_EXPORT int Pavo_MediaPlayer_IPC_DrmAgent_UnregisterCallback(void* handle);
PAVO_EXPORT int Pavo_MediaPlayer_IPC_DrmAgent_sendDRMMessage(void* handle, const char* msg_type,
                                                             const char* msg, const char* system_id,
                                                             char* msg_id, unsigned msg_id_len);
PAVO_EXPORT int Pavo_MediaPlayer_IPC_DrmAgent_DRMSystemStatus(void* handle, const char* system_id,
                                                              int* status);
PAVO_EXPORT int Pavo_MediaPlayer_IPC_DrmAgent_canPlayContent(void* handle, const char* private_data,
                                                             const char* system_id, bool* result);
PAVO_EXPORT int Pavo_MediaPlayer_IPC_DrmAgent_canRecordContent(void* handle, const char* private_data,
                                                               const char* system_id, bool* result);
PAVO_EXPORT int Pavo_MediaPlayer_IPC_DrmAgent_clearLicense(void* handle);

#endif /* PAVO_MEDIAPLAYER_IPC_H */
