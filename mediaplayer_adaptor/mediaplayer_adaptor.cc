// The MediaPlayerAdaptor facade: each member is one call of the media-player
// IPC client. The few members whose result or arguments differ from the IPC
// function they call say so.
#include <exception>
#include <mutex>
#include <new>
#include <type_traits>
#include <utility>

#include "pavo_mediaplayer_adaptor.h"
#include "pavo_mediaplayer_ipc.h"
#include "tov_config.h"

static_assert(sizeof(PavoMediaPlayerPlayState) == sizeof(int) &&
                  std::is_same_v<std::underlying_type_t<PavoMediaPlayerPlayState>, int>,
              "GetPlayState hands the state to the IPC client as an int");

MediaPlayerAdaptor* MediaPlayerAdaptor::m_instance = nullptr;

namespace {

// Serialises the first creation of the instance; never taken once it exists.
std::mutex g_creation_mutex;

// Reads one resolution value, or stores `fallback` when the configuration
// cannot give it. Building the key may allocate; a failure there, or a
// standard exception of the configuration library, counts as a key that
// cannot be read.
void read_resolution(const char* key, int* member, int fallback) {
  try {
    if (pavo_tov_config_get_int(std::string(key), member) == 0) return;
  } catch (const std::exception&) {
  }
  *member = fallback;
}

}  // namespace

// m_instance is published once, with release order, and never changes
// afterwards: the usual path is one acquire load. Racing first callers meet
// at the creation mutex and the loser finds the winner's instance. A failed
// allocation stores nothing, so a later call tries again. The pointer stays a
// plain data member (it is part of the interface); the GCC atomic built-ins
// give the accesses the ordering that an std::atomic would.
MediaPlayerAdaptor* MediaPlayerAdaptor::GetInstance() {
  if (MediaPlayerAdaptor* instance = __atomic_load_n(&m_instance, __ATOMIC_ACQUIRE)) {
    return instance;
  }
  std::lock_guard<std::mutex> lock(g_creation_mutex);
  MediaPlayerAdaptor* instance = __atomic_load_n(&m_instance, __ATOMIC_RELAXED);
  if (instance == nullptr) {
    instance = new (std::nothrow) MediaPlayerAdaptor;
    if (instance != nullptr) __atomic_store_n(&m_instance, instance, __ATOMIC_RELEASE);
  }
  return instance;
}

MediaPlayerAdaptor::MediaPlayerAdaptor() {
  read_resolution("ResolutionWidth", &m_resolutionWidth, 1280);
  read_resolution("ResolutionHeight", &m_resolutionHeight, 720);
}

MediaPlayerAdaptor::~MediaPlayerAdaptor() = default;

int MediaPlayerAdaptor::Initialize() {
  Pavo_MediaPlayer_IPC_Initialize(1);
  return 0;
}

int MediaPlayerAdaptor::Finalize() {
  Pavo_MediaPlayer_IPC_Finalize();
  return 0;
}

int MediaPlayerAdaptor::Create(unsigned& id, unsigned) { return Pavo_MediaPlayer_IPC_Create(&id); }

int MediaPlayerAdaptor::Destroy(unsigned id) { return Pavo_MediaPlayer_IPC_Destory(id); }

int MediaPlayerAdaptor::RegisterCallback(unsigned id, PavoMediaPlayerCallback cb, void* user_data) {
  Pavo_MediaPlayer_IPC_RegisterCallback(id, cb, user_data);
  return 0;
}

int MediaPlayerAdaptor::UnregisterCallback(unsigned id) {
  Pavo_MediaPlayer_IPC_UnregisterCallback(id);
  return 0;
}

int MediaPlayerAdaptor::Load(unsigned id, const char* url) {
  return Pavo_MediaPlayer_IPC_Load(id, url);
}
int MediaPlayerAdaptor::Play(unsigned id) { return Pavo_MediaPlayer_IPC_Play(id); }
int MediaPlayerAdaptor::Pause(unsigned id) { return Pavo_MediaPlayer_IPC_Pause(id); }
int MediaPlayerAdaptor::Stop(unsigned id) { return Pavo_MediaPlayer_IPC_Stop(id); }

int MediaPlayerAdaptor::Seek(unsigned id, double position) {
  return Pavo_MediaPlayer_IPC_Seek(id, position);
}

int MediaPlayerAdaptor::SetPlayRate(unsigned id, double rate) {
  return Pavo_MediaPlayer_IPC_SetPlayRate(id, rate);
}

int MediaPlayerAdaptor::GetDuration(unsigned id, double* duration) {
  return Pavo_MediaPlayer_IPC_GetDuration(id, duration);
}

int MediaPlayerAdaptor::GetPlayRate(unsigned id, double* rate) {
  return Pavo_MediaPlayer_IPC_GetPlayRate(id, rate);
}

int MediaPlayerAdaptor::GetCurrentTime(unsigned id, double* position) {
  return Pavo_MediaPlayer_IPC_GetCurrentTime(id, position);
}

int MediaPlayerAdaptor::GetFullscreen(unsigned id, int* full) {
  return Pavo_MediaPlayer_IPC_GetFullScreen(id, full);
}

int MediaPlayerAdaptor::SetFullscreen(unsigned id, int full) {
  return Pavo_MediaPlayer_IPC_SetFullScreen(id, full);
}

int MediaPlayerAdaptor::SetVideoWindowRect(unsigned id, const PavoRect* rect) {
  return Pavo_MediaPlayer_IPC_SetVideoWindowRect(id, rect);
}

int MediaPlayerAdaptor::GetPlayState(unsigned id, PavoMediaPlayerPlayState* state) {
  return Pavo_MediaPlayer_IPC_GetPlayState(id, reinterpret_cast<int*>(state));
}

int MediaPlayerAdaptor::SetMimetype(unsigned id, const char* mime) {
  return Pavo_MediaPlayer_IPC_SetMimetype(id, mime);
}

int MediaPlayerAdaptor::SetLicenseServerUrl(unsigned id, const char* url) {
  return Pavo_MediaPlayer_IPC_SetLicenseServerUrl(id, url);
}

int MediaPlayerAdaptor::SetCustomData(unsigned id, const char* data) {
  return Pavo_MediaPlayer_IPC_SetCustomData(id, data);
}

int MediaPlayerAdaptor::EnableSubtitle(unsigned id, bool enable) {
  return Pavo_MediaPlayer_IPC_EnableSubtitle(id, enable);
}

int MediaPlayerAdaptor::SetSubtitle(unsigned id, _PavoSubtitleTrackInfo* info, int size) {
  return Pavo_MediaPlayer_IPC_SetSubtitle(id, info, size);
}

int MediaPlayerAdaptor::SetFont(unsigned id, const char* font_file, int length) {
  return Pavo_MediaPlayer_IPC_SetFontFile(id, font_file, length);
}

int MediaPlayerAdaptor::SetLoopCount(unsigned id, int count) {
  return Pavo_MediaPlayer_IPC_SetLoopCount(id, count);
}

int MediaPlayerAdaptor::SetCookie(unsigned id, const char* cookie) {
  return Pavo_MediaPlayer_IPC_SetCookie(id, cookie);
}

int MediaPlayerAdaptor::GetTrackNumber(unsigned id, PavoTrackType type, unsigned* count) {
  return Pavo_MediaPlayer_IPC_GetTrackNumber(id, type, count);
}

int MediaPlayerAdaptor::GetTrackByIndex(unsigned id, PavoTrackType type, int index,
                                        PavoAVCtrlTrackInfo* info) {
  return Pavo_MediaPlayer_IPC_GetTrackByIndex(id, type, index, info);
}

int MediaPlayerAdaptor::SelectTrack(unsigned id, PavoTrackType type, int index) {
  return Pavo_MediaPlayer_IPC_SelectTrack(id, type, index);
}

int MediaPlayerAdaptor::UnselectTrack(unsigned id, PavoTrackType type, int index) {
  return Pavo_MediaPlayer_IPC_UnselectTrack(id, type, index);
}

int MediaPlayerAdaptor::platformSetSubtitleEnable(bool enable) {
  return Pavo_MediaPlayer_IPC_PlatformSubtitleEnable(enable);
}

int MediaPlayerAdaptor::StopAllPlayers() { return Pavo_MediaPlayer_IPC_StopAllPlayers(); }

int MediaPlayerAdaptor::ChangeDisplaySourceToDTV() {
  return Pavo_MediaPlayer_IPC_ChangeDisPlaySourceToDTV();
}

// The IPC client reports the source in an int; a failed request leaves the
// preset -1, which is stored all the same.
int MediaPlayerAdaptor::GetCurrentSource(pavoDisplayerSource& source) {
  int value = -1;
  const int result = Pavo_MediaPlayer_IPC_GetCurrentSource(value);
  source = static_cast<pavoDisplayerSource>(value);
  return result;
}

// `source` is already this member's own copy of the caller's text; moving it
// on keeps the caller's string untouched and cannot fail.
int MediaPlayerAdaptor::GetPlayerIdBySource(std::string source, unsigned& id) {
  return Pavo_MediaPlayer_IPC_GetPlayerIdBySource(std::move(source), id);
}

int MediaPlayerAdaptor::RegisterMediaSyncCallback(unsigned id, PavoMediaSyncCallback cb,
                                                  const void* user_data) {
  return Pavo_MediaPlayer_IPC_RegisterMediaSyncCallback(id, cb, user_data);
}

int MediaPlayerAdaptor::UnregisterMediaSyncCallback(unsigned id) {
  return Pavo_MediaPlayer_IPC_UnregisterMediaSyncCallback(id);
}

int MediaPlayerAdaptor::StartMediaSync(unsigned id) {
  return Pavo_MediaPlayer_IPC_StartMediaSync(id);
}
int MediaPlayerAdaptor::StopMediaSync(unsigned id) {
  return Pavo_MediaPlayer_IPC_StopMediaSync(id);
}

int MediaPlayerAdaptor::SetTimelineSelector(unsigned id, const char* selector) {
  return Pavo_MediaPlayer_IPC_SetTimelineSelector(id, selector);
}

int MediaPlayerAdaptor::GetMRSUrl(unsigned id, char* buffer, unsigned* length) {
  return Pavo_MediaPlayer_IPC_GetMRSUrl(id, buffer, length);
}

int MediaPlayerAdaptor::GetCurrentTimeline(unsigned id, PavoTimeline* timeline) {
  return Pavo_MediaPlayer_IPC_GetCurrentTimeline(id, timeline);
}

int MediaPlayerAdaptor::GetContentId(unsigned id, char* buffer, unsigned* length,
                                     PavoContentIdStatus* status) {
  return Pavo_MediaPlayer_IPC_GetContentId(id, buffer, length, status);
}

int MediaPlayerAdaptor::EnableMutilStreamSync(unsigned id, bool enable) {
  return Pavo_MediaPlayer_IPC_EnableMutilStreamSync(id, enable);
}

int mediaplayer_initialize() { return Pavo_MediaPlayer_IPC_Initialize(1); }

int mediaplayer_finalize() { return Pavo_MediaPlayer_IPC_Finalize(); }
