// Components of the stream (the service's tracks): counting, reading,
// selecting, the active one, the handle-less platform callbacks, and the
// component list of a track event.
#include "av_control_adaptor/components.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "av_control_adaptor/object.h"
#include "av_control_adaptor/media_log.h"
#include "av_control_adaptor/object_lifetime.h"
#include "av_control_adaptor/request.h"
#include "pavo_avctrl.h"
#include "pavo_mediaplayer_adaptor.h"

namespace pavo::avctrl {

PavoTrackType track_type_of(PavoAVComponentType type) {
  static constexpr PavoTrackType kByComponent[] = {PAVO_TRACK_TYPE_OTHER, PAVO_TRACK_TYPE_VIDEO,
                                                   PAVO_TRACK_TYPE_AUDIO, PAVO_TRACK_TYPE_SUBTITLE};
  const unsigned slot = static_cast<unsigned>(type) + 1u;
  return slot < 4u ? kByComponent[slot] : PAVO_TRACK_TYPE_OTHER;
}

PavoAVComponentType component_type_of(int track_type) {
  switch (track_type) {
    case PAVO_TRACK_TYPE_VIDEO:
      return PAVO_AV_COMPONENT_TYPE_VIDEO;
    case PAVO_TRACK_TYPE_AUDIO:
      return PAVO_AV_COMPONENT_TYPE_AUDIO;
    case PAVO_TRACK_TYPE_SUBTITLE:
      return PAVO_AV_COMPONENT_TYPE_SUBTITLE;
    default:
      return PAVO_AV_COMPONENT_TYPE_OTHER;
  }
}

// The record's fields are fixed-size; the service's texts are not. A text
// that does not fit is cut, at a character boundary so that a cut UTF-8
// text stays valid, and always terminated.
void copy_text(char* out, std::size_t capacity, const std::string& text) {
  std::size_t n = std::min(text.size(), capacity - 1);
  n = strnlen(text.c_str(), n);
  if (n < text.size() && text[n] != '\0') {
    auto continuation = [&](std::size_t i) {
      return (static_cast<unsigned char>(text[i]) & 0xC0u) == 0x80u;
    };
    // A UTF-8 character has at most three continuation bytes: back off that
    // far at most, so that bytes that are not UTF-8 are cut where they are.
    std::size_t start = n;
    while (start > 0 && n - start < 3 && continuation(start)) --start;
    if (!continuation(start)) n = start;
  }
  std::memcpy(out, text.data(), n);
  out[n] = '\0';
}

int GetComponents(PavoAVComponentType type, PavoRecordList* list) {
  const SingleObjectRef object;  // kept alive while its components are read
  void* handle = object.get();
  if (handle == nullptr) {
    AVCTRL_LOG("avHandle is null.");
    return -1;
  }
  unsigned count = 0;
  if (Pavo_AVCtrl_GetAVComponentNum(handle, type, &count) != 0) return -1;
  AVCTRL_LOG("component type: %d, num: %d", static_cast<int>(type), static_cast<int>(count));
  count = std::min(count, PAVO_AVCTRL_MAX_COMPONENTS);

  // Both records are reused for every component: a member that a later
  // component does not fill keeps the earlier component's value.
  PavoAVComponentRecord record;
  std::memset(&record, 0, sizeof record);
  PavoAVCtrlTrackInfo track{};
  for (unsigned i = 0; i < count; ++i) {
    if (Pavo_AVCtrl_GetAVComponentByIndex(handle, type, i, &track) != 0) {
      AVCTRL_LOG("get component handle error.");
      continue;
    }
    record.type = type;
    if (type == PAVO_AV_COMPONENT_TYPE_VIDEO) {
      list->input(record, list);
      continue;
    }
    copy_text(record.encoding, sizeof record.encoding, track.encoding);
    if (type == PAVO_AV_COMPONENT_TYPE_AUDIO) {
      copy_text(record.language, sizeof record.language, track.audio.language);
    } else if (type == PAVO_AV_COMPONENT_TYPE_SUBTITLE) {
      copy_text(record.language, sizeof record.language, track.subtitle.language);
    } else {
      AVCTRL_LOG("invalid component type for language");
    }
    normalise_language(record.language);
    record.audioChannels = track.audio.audioChannels;
    record.hearingImpaired = track.subtitle.hearingImpaired;
    record.audioDescription = track.audio.audioDescription != 0;
    list->input(record, list);
  }
  return 0;
}

}  // namespace pavo::avctrl

using pavo::avctrl::locked_request;
using pavo::avctrl::track_type_of;

int Pavo_AVCtrl_GetAVComponentNum(void* handle, PavoAVComponentType type, unsigned* count) {
  AVCTRL_LOG("type = %d", static_cast<int>(type));
  PavoAVCtrlContext* ctx = avctrl_context(handle);
  if (ctx == nullptr || count == nullptr) return -3;
  return locked_request(ctx, [&](MediaPlayerAdaptor& mp, unsigned id) {
    return mp.GetTrackNumber(id, track_type_of(type), count);
  });
}

int Pavo_AVCtrl_GetAVComponentByIndex(void* handle, PavoAVComponentType type, unsigned index,
                                      PavoAVCtrlTrackInfo* info) {
  AVCTRL_LOG("index = %u", index);
  PavoAVCtrlContext* ctx = avctrl_context(handle);
  if (ctx == nullptr || info == nullptr) return -3;
  return locked_request(ctx, [&](MediaPlayerAdaptor& mp, unsigned id) {
    return mp.GetTrackByIndex(id, track_type_of(type), static_cast<int>(index), info);
  });
}

int Pavo_AVCtrl_SelectComponent(void* handle, PavoAVComponentType type, int index) {
  AVCTRL_LOG("type=%d index=%d", static_cast<int>(type), index);
  PavoAVCtrlContext* ctx = avctrl_context(handle);
  if (ctx == nullptr) return -3;
  return locked_request(ctx, [&](MediaPlayerAdaptor& mp, unsigned id) {
    return mp.SelectTrack(id, track_type_of(type), index);
  });
}

int Pavo_AVCtrl_UnselectComponent(void* handle, PavoAVComponentType type, int index) {
  AVCTRL_LOG("type=%d index=%d", static_cast<int>(type), index);
  PavoAVCtrlContext* ctx = avctrl_context(handle);
  if (ctx == nullptr) return -3;
  locked_request(ctx, [&](MediaPlayerAdaptor& mp, unsigned id) {
    return mp.UnselectTrack(id, track_type_of(type), index);
  });
  return 0;  // a refusal is not reported
}

int Pavo_AVCtrl_Component_EnableSubtitle(void* handle, bool enable) {
  PavoAVCtrlContext* ctx = avctrl_context(handle);
  if (ctx == nullptr) return -3;
  MediaPlayerAdaptor* mp = MediaPlayerAdaptor::GetInstance();
  if (mp == nullptr) return 0;
  if (!pavo::avctrl::has_player(ctx)) return pavo::avctrl::kNoPlayer;
  return mp->EnableSubtitle(ctx->player_id, enable);
}

// The answer is the service's own index of the active component, and 0 when
// none is active (which a first active component also gives).
int Pavo_AVCtrl_GetCurrentActiveComponent(void* handle, PavoAVComponentType type, int* index) {
  if (handle == nullptr || index == nullptr) return -3;
  unsigned count = 0;
  Pavo_AVCtrl_GetAVComponentNum(handle, type, &count);
  std::printf("Pavo_AVCtrl_GetCurrentActiveComponent() trackNumber=%d\n", static_cast<int>(count));
  *index = 0;
  count = std::min(count, PAVO_AVCTRL_MAX_COMPONENTS);
  for (unsigned i = 0; i < count; ++i) {
    PavoAVCtrlTrackInfo track{};
    Pavo_AVCtrl_GetAVComponentByIndex(handle, type, i, &track);
    if (track.activated) {
      *index = track.index;
      break;
    }
  }
  return 0;
}

// ---- Platform callbacks: the plug-in calls these without a handle ----

namespace {

// Calls `call` with the one A/V control object, referenced for the call;
// -1 without one, after logging on behalf of `function`.
template <typename Call>
int with_platform_object(const char* function, Call&& call) {
  const pavo::avctrl::SingleObjectRef object;
  if (object.get() == nullptr) {
    AVCTRL_LOG_AS(function, "avHandle is null.");
    return -1;
  }
  return call(static_cast<void*>(object.get()));
}

}  // namespace

int Pavo_Platform_Get_Track_Number(PavoAVComponentType type, unsigned* count) {
  return with_platform_object(__func__, [&](void* h) { return Pavo_AVCtrl_GetAVComponentNum(h, type, count); });
}

int Pavo_Platform_Get_Track_By_Index(PavoAVComponentType type, unsigned index,
                                     PavoAVCtrlTrackInfo* info) {
  return with_platform_object(
      __func__, [&](void* h) { return Pavo_AVCtrl_GetAVComponentByIndex(h, type, index, info); });
}

int Pavo_Platform_Select_Track(PavoAVComponentType type, int index) {
  return with_platform_object(__func__, [&](void* h) { return Pavo_AVCtrl_SelectComponent(h, type, index); });
}

int Pavo_Platform_Unselect_Track(PavoAVComponentType type, int index) {
  return with_platform_object(__func__, [&](void* h) { return Pavo_AVCtrl_UnselectComponent(h, type, index); });
}

int Pavo_Platform_Get_Current_Track(PavoAVComponentType type, int* index) {
  return with_platform_object(
      __func__, [&](void* h) { return Pavo_AVCtrl_GetCurrentActiveComponent(h, type, index); });
}

int Pavo_Platform_SubtitleEnable(bool enable) {
  MediaPlayerAdaptor::platformSetSubtitleEnable(enable);
  return 0;
}
