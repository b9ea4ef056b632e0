/*
 * MediaPlayerAdaptor: the one object through which the A/V control layer
 * reaches the media-player service.
 *
 * A thin facade over the media-player IPC client (pavo_mediaplayer_ipc.h):
 * every member forwards its arguments, in order, to one
 * Pavo_MediaPlayer_IPC_* function and returns that function's result
 * unchanged, unless its comment says otherwise. The facade keeps no state of
 * the conversation, takes no lock, logs nothing and checks no argument: a
 * null pointer reaches the IPC client as it is. Results are therefore the
 * IPC client's: the transport's code (-1, -3, -4), -1 for an unreadable
 * reply, or the service's "ret". Members that make a request block until the
 * reply has arrived (at most the transport's reply time-out).
 *
 * The process-wide instance comes from GetInstance() and is never deleted.
 * It does not change when the IPC client is started or stopped
 * (mediaplayer_initialize / mediaplayer_finalize); while the client is
 * closed every request fails in the transport with -3.
 *
 * Thread safety: every member may be called from any thread at the same
 * time, the event thread included (inside the player callback); the
 * transport serialises the requests. GetInstance is safe when threads race
 * to the first creation.
 *
 * Symbols carry their argument types (C++ linkage).
 */
#ifndef PAVO_MEDIAPLAYER_ADAPTOR_H
#define PAVO_MEDIAPLAYER_ADAPTOR_H

#include <string>

#include "pavo_export.h"
#include "pavo_media_types.h"

class PAVO_EXPORT MediaPlayerAdaptor {
 public:
  /*
   * The process-wide instance, created on first use (the resolution is read
   * then). Returns null only when the object cannot be allocated; a later
   * call tries again. Never blocks except while another thread is creating
   * the instance.
   */
  static MediaPlayerAdaptor* GetInstance();

  /* The instance that GetInstance hands out; null until its first success. */
  static MediaPlayerAdaptor* m_instance;

  /*
   * Reads "ResolutionWidth" and "ResolutionHeight" from the platform
   * configuration; a key that cannot be read gives 1280 and 720. A value
   * that is read is kept as it is, without a range check.
   */
  MediaPlayerAdaptor();
  /* Releases nothing: the facade owns nothing. */
  virtual ~MediaPlayerAdaptor();
  MediaPlayerAdaptor(const MediaPlayerAdaptor&) = delete;
  MediaPlayerAdaptor& operator=(const MediaPlayerAdaptor&) = delete;

  /* Starts (Pavo_MediaPlayer_IPC_Initialize(1)) / stops the IPC client.
   * Always 0: the client's result is dropped (mediaplayer_initialize and
   * mediaplayer_finalize report it). */
  int Initialize();
  int Finalize();

  /* ---- Players --------------------------------------------------------- */
  /* Creates a service player and writes its id to `id` when the reply has
   * parsed. The second argument is accepted and ignored. */
  int Create(unsigned& id, unsigned);
  int Destroy(unsigned id);
  /* Sets the process-wide player callback and this player's user data
   * (local, no request). Always 0. `cb` runs on the event thread. */
  int RegisterCallback(unsigned id, PavoMediaPlayerCallback cb, void* user_data);
  /* Forgets the player's user data (local, no request). Always 0. */
  int UnregisterCallback(unsigned id);

  /* ---- Playback -------------------------------------------------------- */
  int Load(unsigned id, const char* url);
  int Play(unsigned id);
  int Pause(unsigned id);
  int Stop(unsigned id);
  /* `position` in seconds. */
  int Seek(unsigned id, double position);
  /* `rate`: the speed multiplied by 1000.0 (1000.0 is normal speed). */
  int SetPlayRate(unsigned id, double rate);
  /* Out-parameters are written only when the reply has parsed. */
  int GetDuration(unsigned id, double* duration);    /* seconds */
  int GetPlayRate(unsigned id, double* rate);        /* as SetPlayRate */
  int GetCurrentTime(unsigned id, double* position); /* seconds */
  int GetFullscreen(unsigned id, int* full);
  int SetFullscreen(unsigned id, int full);
  int SetVideoWindowRect(unsigned id, const PavoRect* rect);
  /* The service's own player state, unchanged. */
  int GetPlayState(unsigned id, PavoMediaPlayerPlayState* state);

  /* ---- Stream settings ------------------------------------------------- */
  int SetMimetype(unsigned id, const char* mime);
  int SetLicenseServerUrl(unsigned id, const char* url);
  int SetCustomData(unsigned id, const char* data);
  int EnableSubtitle(unsigned id, bool enable);
  /* `size` (the record's size in bytes) is passed on and ignored there. */
  int SetSubtitle(unsigned id, _PavoSubtitleTrackInfo* info, int size);
  /* `length` (the text's length) is passed on and ignored there. */
  int SetFont(unsigned id, const char* font_file, int length);
  int SetLoopCount(unsigned id, int count);
  int SetCookie(unsigned id, const char* cookie);

  /* ---- Tracks ---------------------------------------------------------- */
  int GetTrackNumber(unsigned id, PavoTrackType type, unsigned* count);
  /* Fills the common members and the group of `type` in place. */
  int GetTrackByIndex(unsigned id, PavoTrackType type, int index, PavoAVCtrlTrackInfo* info);
  int SelectTrack(unsigned id, PavoTrackType type, int index);
  int UnselectTrack(unsigned id, PavoTrackType type, int index);
  /* One-way notice for the whole platform; the send's result. */
  static int platformSetSubtitleEnable(bool enable);

  /* ---- Display source -------------------------------------------------- */
  int StopAllPlayers();
  int ChangeDisplaySourceToDTV();
  /* Stores the source that the service reports, or -1 when the request
   * fails; returns the IPC result. */
  static int GetCurrentSource(pavoDisplayerSource& source);
  /* `source` is a copy of the caller's text. */
  int GetPlayerIdBySource(std::string source, unsigned& id);

  /* ---- Media synchronisation ------------------------------------------- */
  int RegisterMediaSyncCallback(unsigned id, PavoMediaSyncCallback cb, const void* user_data);
  int UnregisterMediaSyncCallback(unsigned id);
  int StartMediaSync(unsigned id);
  int StopMediaSync(unsigned id);
  int SetTimelineSelector(unsigned id, const char* selector);
  /* *length: in, the capacity of `buffer`; out, the length the service
   * reports. */
  int GetMRSUrl(unsigned id, char* buffer, unsigned* length);
  int GetCurrentTimeline(unsigned id, PavoTimeline* timeline);
  int GetContentId(unsigned id, char* buffer, unsigned* length, PavoContentIdStatus* status);
  int EnableMutilStreamSync(unsigned id, bool enable);

  /* Display resolution read by the constructor; read by no member, held for
   * the users of the object. */
  int m_resolutionHeight;
  int m_resolutionWidth;
};

/* Starts the media-player IPC client (Pavo_MediaPlayer_IPC_Initialize(1)).
 * Returns its result: 0, or -1 when an endpoint cannot be opened. */
PAVO_EXPORT int mediaplayer_initialize();
/* Stops it (Pavo_MediaPlayer_IPC_Finalize()). Returns its result: 0 or -1. */
PAVO_EXPORT int mediaplayer_finalize();

#endif /* PAVO_MEDIAPLAYER_ADAPTOR_H */
