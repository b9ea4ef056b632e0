#include "pavo-media-service/dispatch.h"

#include <iterator>

#include "pavo-media-service/protocol.h"

namespace pavo::service {
namespace {

using Handler = int (*)(Call&);

struct Row {
  int command;
  bool player;  // the request carries "player_id" of an existing player
  Handler handler;
};

// Handlers that only store a string setting of the player.
template <std::string PlayerSettings::*field>
int store_string(Call& c, const char* member) {
  std::string value;
  if (!c.request.get_string(member, &value)) return kRefused;
  c.player->settings().*field = value;
  return 0;
}

// Fills a reply with the track record's members: the common part and the
// group of the track's kind.
void describe(const Track& t, int index, bool active, Json::Value* reply) {
  Json::Value& r = *reply;
  r["index"] = index;
  r["trackId"] = t.track_id;
  r["activated"] = active;
  r["encrypted"] = t.encrypted;
  r["type"] = t.kind;
  r["pid"] = t.pid;
  r["componentTag"] = t.component_tag;
  r["encoding"] = t.encoding;
  switch (t.kind) {
    case kVideoTrack:
      r["width"] = t.width;
      r["height"] = t.height;
      break;
    case kAudioTrack:
      r["priority"] = t.priority;
      r["audioDescription"] = t.audio_description;
      r["audioChannels"] = t.audio_channels;
      r["language"] = t.language;
      break;
    default:
      r["hearingImpaired"] = t.hearing_impaired;
      r["url"] = t.url;
      r["language"] = t.language;
      r["label"] = t.label;
      break;
  }
}

bool track_args(Call& c, int* kind, int* index) {
  return c.request.get_int("track_type", kind) && c.request.get_int("index", index);
}

// A text output with its length ("len" counts the terminating NUL, as the
// library copies "len" bytes); refused (-1) when it does not fit the
// capacity the request gave.
int text_output(Call& c, const char* member, const std::string& text) {
  unsigned capacity = 0;
  if (!c.request.get_uint("len", &capacity)) return kRefused;
  const unsigned needed = static_cast<unsigned>(text.size()) + 1;
  c.reply["len"] = needed;
  c.reply[member] = text;
  return needed <= capacity ? 0 : -1;
}

int drm_handle(Call& c, std::string* handle) {
  return c.request.get_string("in_handle", handle) ? 0 : kRefused;
}

int drm_content_query(Call& c, bool record) {
  std::string handle, data, system;
  if (drm_handle(c, &handle) != 0 || !c.request.get_string("private_data", &data) ||
      !c.request.get_string("system_id", &system)) {
    return kRefused;
  }
  bool support = false;
  const int ret = record ? c.state.drm.can_record(handle, data, system, &support)
                         : c.state.drm.can_play(handle, data, system, &support);
  c.reply["support"] = support;
  return ret;
}

const Row kRows[] = {
    // Players (0 and 1), playback (2 to 22).
    {kCreatePlayer, false,
     [](Call& c) {
       const unsigned id = c.state.next_player_id++;
       c.state.players[id] = c.state.make_player(id);
       c.reply["player_id"] = id;
       return 0;
     }},
    {kDestroyPlayer, true,
     [](Call& c) {
       c.state.sync.forget(c.player->id());
       c.state.players.erase(c.player->id());
       c.player = nullptr;
       return 0;
     }},
    {kLoad, true,
     [](Call& c) {
       std::string url;
       if (!c.request.get_string("url", &url)) return kRefused;
       c.state.current_source = kSourceBroadband;  // the display shows the player from now on
       return c.player->load(url, c.now, &c.out);
     }},
    {kPlay, true, [](Call& c) { return c.player->play(c.now, &c.out); }},
    {kPause, true, [](Call& c) { return c.player->pause(c.now, &c.out); }},
    {kStop, true, [](Call& c) { return c.player->stop(c.now, &c.out); }},
    {kSeek, true,
     [](Call& c) {
       double pos = 0;
       if (!c.request.get_number("pos", &pos)) return kRefused;
       return c.player->seek(pos, c.now, &c.out);
     }},
    {kSetPlayRate, true,
     [](Call& c) {
       double rate = 0;
       if (!c.request.get_number("play_rate", &rate)) return kRefused;
       const int ret = c.player->set_rate(rate, c.now, &c.out);
       if (ret == 0) c.state.sync.speed_changed(c.player->id(), rate / 1000.0, &c.out);
       return ret;
     }},
    {kGetDuration, true,
     [](Call& c) {
       c.reply["duration"] = c.player->duration();
       return 0;
     }},
    {kGetPlayRate, true,
     [](Call& c) {
       c.reply["play_rate"] = c.player->rate();
       return 0;
     }},
    {kGetCurrentTime, true,
     [](Call& c) {
       c.reply["current_time"] = c.player->position(c.now);
       return 0;
     }},
    {kGetFullScreen, true,
     [](Call& c) {
       c.reply["is_fullScreen"] = c.player->settings().full_screen;  // capital S in the reply
       return 0;
     }},
    {kSetFullScreen, true,
     [](Call& c) {
       return c.request.get_int("is_fullscreen", &c.player->settings().full_screen) ? 0 : kRefused;
     }},
    {kSetVideoWindowRect, true,
     [](Call& c) {
       int r[4];
       if (!c.request.get_int("rect_x", &r[0]) || !c.request.get_int("rect_y", &r[1]) ||
           !c.request.get_int("rect_w", &r[2]) || !c.request.get_int("rect_h", &r[3])) {
         return kRefused;
       }
       if (r[2] < 0 || r[3] < 0) return -1;
       std::copy(std::begin(r), std::end(r), c.player->settings().rect);
       return 0;
     }},
    {kGetPlayState, true,
     [](Call& c) {
       c.reply["play_state"] = c.player->state();
       return 0;
     }},
    {kSetMimeType, true, [](Call& c) { return store_string<&PlayerSettings::mime_type>(c, "mime_type"); }},
    {kSetLicenseServerUrl, true,
     [](Call& c) { return store_string<&PlayerSettings::licence_server_url>(c, "url"); }},
    {kSetCustomData, true, [](Call& c) { return store_string<&PlayerSettings::custom_data>(c, "data"); }},
    {kEnableSubtitle, true,
     [](Call& c) {
       bool enable = false;
       if (!c.request.get_bool("enable", &enable)) return kRefused;
       return c.player->enable_subtitles(enable, &c.out);
     }},
    {kSetSubtitle, true,
     [](Call& c) {
       std::string url, language, label;
       if (!c.request.get_string("url", &url) || !c.request.get_string("language", &language) ||
           !c.request.get_string("label", &label)) {
         return kRefused;
       }
       return c.player->add_subtitle(url, language, label, &c.out);
     }},
    {kSetFontFile, true, [](Call& c) { return store_string<&PlayerSettings::font_file>(c, "fontfile"); }},
    {kSetLoopCount, true,
     [](Call& c) { return c.request.get_int("loop", &c.player->settings().loop_count) ? 0 : kRefused; }},
    {kSetCookie, true, [](Call& c) { return store_string<&PlayerSettings::cookie>(c, "cookie"); }},

    // Tracks (23 to 26).
    {kGetTrackNumber, true,
     [](Call& c) {
       int kind = 0;
       if (!c.request.get_int("track_type", &kind)) return kRefused;
       c.reply["num"] = c.player->track_count(kind);
       return 0;
     }},
    {kGetTrackByIndex, true,
     [](Call& c) {
       int kind = 0, index = 0;
       if (!track_args(c, &kind, &index)) return kRefused;
       const Track* t = c.player->track(kind, index);
       if (t == nullptr) return -1;
       // Subtitles that the platform hides are selected but not active.
       const bool shown = kind != kSubtitleTrack || c.state.platform_subtitles;
       describe(*t, index, shown && c.player->track_active(kind, index), &c.reply);
       return 0;
     }},
    {kSelectTrack, true,
     [](Call& c) {
       int kind = 0, index = 0;
       if (!track_args(c, &kind, &index)) return kRefused;
       return c.player->select_track(kind, index, &c.out);
     }},
    {kUnselectTrack, true,
     [](Call& c) {
       int kind = 0, index = 0;
       if (!track_args(c, &kind, &index)) return kRefused;
       return c.player->unselect_track(kind, index, &c.out);
     }},

    // The display as a whole (28 to 30).
    {kStopAllPlayers, false,
     [](Call& c) {
       for (auto& entry : c.state.players) entry.second->stop(c.now, &c.out);
       return 0;
     }},
    {kChangeDisplaySourceToDtv, false,
     [](Call& c) {
       // Broadband playback ends when the broadcast is shown again.
       for (auto& entry : c.state.players) entry.second->stop(c.now, &c.out);
       c.display_source = kSourceDtv;
       return 0;
     }},
    {kGetCurrentSource, false,
     [](Call& c) {
       c.reply["source_type"] = c.state.current_source;
       return 0;
     }},

    // Media synchronisation (100 to 109).
    {kRegisterMediaSync, true,
     [](Call& c) {
       c.state.sync.set_registered(c.player->id(), true);
       return 0;
     }},
    {kUnregisterMediaSync, true,
     [](Call& c) {
       c.state.sync.set_registered(c.player->id(), false);
       return 0;
     }},
    {kStartMediaSync, true,
     [](Call& c) {
       c.state.sync.start(*c.player, &c.out);
       return 0;
     }},
    {kStopMediaSync, true,
     [](Call& c) {
       c.state.sync.stop(c.player->id(), &c.out);
       return 0;
     }},
    {kSetTimelineSelector, true,
     [](Call& c) {
       std::string selector;
       if (!c.request.get_string("timeline_selector", &selector)) return kRefused;
       c.state.sync.select_timeline(*c.player, selector, &c.out);
       return 0;
     }},
    {kGetMrsUrl, true,
     [](Call& c) {
       const MediaItem* item = c.player->item();
       return text_output(c, "mrs_url", item == nullptr ? "" : item->mrs_url);
     }},
    {kGetCurrentTimeline, true,
     [](Call& c) {
       const TimelineValues v = c.state.sync.timeline(c.player->id(), c.player->position(c.now));
       c.reply["unitsPerTick"] = Json::UInt64(v.units_per_tick);
       c.reply["unitsPerSecond"] = Json::UInt64(v.units_per_second);
       c.reply["contentTime"] = Json::UInt64(v.content_time);
       c.reply["wallclockTime"] = Json::UInt64(v.wallclock_time);
       return 0;
     }},
    {kGetContentId, true,
     [](Call& c) {
       const MediaItem* item = c.player->item();
       c.reply["status"] = kContentIdFinal;
       return text_output(c, "content_id", item == nullptr ? "" : item->content_id);
     }},
    {kEnableMultiStreamSync, true,
     [](Call& c) {
       bool enable = false;
       if (!c.request.get_bool("enable", &enable)) return kRefused;
       c.state.sync.enable_multi_stream(c.player->id(), enable);
       return 0;
     }},
    {kGetPlayerIdBySource, false,
     [](Call& c) {
       std::string source;
       if (!c.request.get_string("source", &source)) return kRefused;
       for (const auto& entry : c.state.players) {
         const std::string& url = entry.second->url();
         if (!url.empty() && (url == source || media_name(url) == source)) {
           c.reply["player_id"] = entry.first;
           return 0;
         }
       }
       c.reply["player_id"] = 0u;
       return -1;
     }},

    // DRM agents (200 to 208).
    {kDrmCreate, false,
     [](Call& c) {
       c.reply["out_handle"] = c.state.drm.create();
       return 0;
     }},
    {kDrmDestroy, false,
     [](Call& c) {
       std::string handle;
       return drm_handle(c, &handle) != 0 ? kRefused : c.state.drm.destroy(handle);
     }},
    {kDrmRegisterCallback, false,
     [](Call& c) {
       std::string handle, context;
       if (drm_handle(c, &handle) != 0 || !c.request.get_string("context", &context)) return kRefused;
       return c.state.drm.register_callback(handle, context);
     }},
    {kDrmUnregisterCallback, false,
     [](Call& c) {
       std::string handle;
       return drm_handle(c, &handle) != 0 ? kRefused : c.state.drm.unregister_callback(handle);
     }},
    {kDrmSendMessage, false,
     [](Call& c) {
       std::string handle, type, msg, system, id;
       unsigned capacity = 0;
       if (drm_handle(c, &handle) != 0 || !c.request.get_string("msg_type", &type) ||
           !c.request.get_string("msg", &msg) || !c.request.get_string("system_id", &system) ||
           !c.request.get_uint("msg_id_len", &capacity)) {
         return kRefused;
       }
       const int ret = c.state.drm.send_message(handle, type, msg, system, &id, &c.out);
       c.reply["msg_id"] = id;
       return ret;
     }},
    {kDrmSystemStatus, false,
     [](Call& c) {
       std::string handle, system;
       if (drm_handle(c, &handle) != 0 || !c.request.get_string("system_id", &system)) return kRefused;
       int status = kDrmStatusUnknown;
       const int ret = c.state.drm.system_status(handle, system, &status);
       c.reply["status"] = status;
       return ret;
     }},
    {kDrmCanPlayContent, false, [](Call& c) { return drm_content_query(c, false); }},
    {kDrmCanRecordContent, false, [](Call& c) { return drm_content_query(c, true); }},
    {kDrmClearLicense, false,
     [](Call& c) {
       std::string handle;
       return drm_handle(c, &handle) != 0 ? kRefused : c.state.drm.clear_licence(handle, &c.out);
     }},
};

const Row* find_row(int command) {
  for (const Row& row : kRows) {
    if (row.command == command) return &row;
  }
  return nullptr;
}

}  // namespace

bool known_command(int command) { return find_row(command) != nullptr; }

bool addresses_player(int command) {
  const Row* row = find_row(command);
  return row != nullptr && row->player;
}

int dispatch(Call& call) { return find_row(call.request.command())->handler(call); }

}  // namespace pavo::service
