// Settings of the stream and of its presentation: each is one request to the
// object's player under `op_mutex`. The object keeps no copy of any of them.
#include <climits>
#include <cstring>
#include <new>

#include "av_control_adaptor/object.h"
#include "av_control_adaptor/media_log.h"
#include "av_control_adaptor/request.h"
#include "pavo_avctrl.h"

using pavo::avctrl::locked_request;

int Pavo_AVCtrl_SetSubtitle(void* handle, const PavoAVCtrlSubtitleInfo* info) {
  AVCTRL_LOG("Pavo_AVCtrl_SetSubtitle");
  PavoAVCtrlContext* ctx = avctrl_context(handle);
  if (ctx == nullptr || info == nullptr) return -3;
  // The record's other members keep the initial values of its type (zeros,
  // -1 and empty texts); a null text of the description is sent empty.
  _PavoSubtitleTrackInfo record;
  try {
    if (info->url != nullptr) record.url = info->url;
    if (info->language != nullptr) record.language = info->language;
    if (info->label != nullptr) record.label = info->label;
  } catch (const std::bad_alloc&) {
    return -4;
  }
  return locked_request(ctx, [&](MediaPlayerAdaptor& mp, unsigned id) {
    return mp.SetSubtitle(id, &record, static_cast<int>(sizeof record));
  });
}

int Pavo_AVCtrl_SetFont(void* handle, const char* font) {
  PavoAVCtrlContext* ctx = avctrl_context(handle);
  if (ctx == nullptr || font == nullptr) return -3;
  const size_t length = std::strlen(font);
  const int sent_length = length > INT_MAX ? INT_MAX : static_cast<int>(length);
  return locked_request(
      ctx, [&](MediaPlayerAdaptor& mp, unsigned id) { return mp.SetFont(id, font, sent_length); });
}

// -1 repeats for ever; a count below that means nothing.
int Pavo_AVCtrl_SetLoop(void* handle, int count) {
  PavoAVCtrlContext* ctx = avctrl_context(handle);
  if (ctx == nullptr || count < -1) return -3;
  return locked_request(
      ctx, [&](MediaPlayerAdaptor& mp, unsigned id) { return mp.SetLoopCount(id, count); });
}

int Pavo_AVCtrl_SetMimeType(void* handle, const char* mime) {
  PavoAVCtrlContext* ctx = avctrl_context(handle);
  if (ctx == nullptr || mime == nullptr) return -3;
  return locked_request(
      ctx, [&](MediaPlayerAdaptor& mp, unsigned id) { return mp.SetMimetype(id, mime); });
}

int Pavo_AVCtrl_SetLAURL(void* handle, const char* url) {
  PavoAVCtrlContext* ctx = avctrl_context(handle);
  if (ctx == nullptr || url == nullptr) return -3;
  return locked_request(
      ctx, [&](MediaPlayerAdaptor& mp, unsigned id) { return mp.SetLicenseServerUrl(id, url); });
}

int Pavo_AVCtrl_SetCustomData(void* handle, const char* data) {
  PavoAVCtrlContext* ctx = avctrl_context(handle);
  if (ctx == nullptr || data == nullptr) return -3;
  return locked_request(
      ctx, [&](MediaPlayerAdaptor& mp, unsigned id) { return mp.SetCustomData(id, data); });
}

int Pavo_AVCtrl_UpdateWindow(void* handle, const PavoRect* rect) {
  AVCTRL_LOG("Pavo_AVCtrl_UpdateWindow");
  PavoAVCtrlContext* ctx = avctrl_context(handle);
  if (ctx == nullptr || rect == nullptr) return -3;
  return locked_request(
      ctx, [&](MediaPlayerAdaptor& mp, unsigned id) { return mp.SetVideoWindowRect(id, rect); });
}
