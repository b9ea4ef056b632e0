// Tracks: counting, describing, selecting and unselecting a player's tracks
// (commands 23 to 26), and the platform's subtitle switch (31), a one-way
// notice. Null pointers are refused as in player_commands.cc.
#include <new>
#include <string>

#include "mediaplayer_ipc/endpoints.h"
#include "mediaplayer_ipc/log_records.h"
#include "mediaplayer_ipc/request_frame.h"
#include "mediaplayer_ipc/styled_object.h"
#include "pavo_mediaplayer_ipc.h"

using pavo::mediaplayer::Command;
using pavo::mediaplayer::refuse_null_argument;

// "num" is read as a signed integer and stored in the unsigned count, so
// -1 arrives as 4294967295.
int Pavo_MediaPlayer_IPC_GetTrackNumber(unsigned id, PavoTrackType type, unsigned* count) {
  if (count == nullptr) return refuse_null_argument(__func__);
  return Command(__func__, 23).player(id).with("track_type", static_cast<int>(type)).read_signed("num", count).run();
}

// Fills the common members and the group of the requested kind (chosen by
// `type`, not by the reply); the other groups keep what they held. "language"
// goes to the audio or the subtitle group, never both.
int Pavo_MediaPlayer_IPC_GetTrackByIndex(unsigned id, PavoTrackType type, int index,
                                         PavoAVCtrlTrackInfo* info) {
  if (info == nullptr) return refuse_null_argument(__func__);
  Command command(__func__, 24);
  command.player(id).with("track_type", static_cast<int>(type)).with("index", index);
  if (type == PAVO_TRACK_TYPE_VIDEO || type == PAVO_TRACK_TYPE_AUDIO ||
      type == PAVO_TRACK_TYPE_SUBTITLE) {
    command.read("index", &info->index)
        .read("trackId", &info->trackId)
        .read("activated", &info->activated)
        .read("encrypted", &info->encrypted)
        .read("type", &info->type)
        .read("pid", &info->pid)
        .read("componentTag", &info->componentTag)
        .read("encoding", &info->encoding);
  }
  switch (type) {
    case PAVO_TRACK_TYPE_VIDEO:
      command.read("width", &info->video.width).read("height", &info->video.height);
      break;
    case PAVO_TRACK_TYPE_AUDIO:
      command.read("priority", &info->audio.priority)
          .read("audioDescription", &info->audio.audioDescription)
          .read("audioChannels", &info->audio.audioChannels)
          .read("language", &info->audio.language);
      break;
    case PAVO_TRACK_TYPE_SUBTITLE:
      command.read("hearingImpaired", &info->subtitle.hearingImpaired)
          .read("url", &info->subtitle.url)
          .read("language", &info->subtitle.language)
          .read("label", &info->subtitle.label);
      break;
    default:
      break;  // no group: the record is not written
  }
  return command.run();
}

int Pavo_MediaPlayer_IPC_SelectTrack(unsigned id, PavoTrackType type, int index) {
  return Command(__func__, 25).player(id).with("track_type", static_cast<int>(type)).with("index", index).run();
}

int Pavo_MediaPlayer_IPC_UnselectTrack(unsigned id, PavoTrackType type, int index) {
  return Command(__func__, 26).player(id).with("track_type", static_cast<int>(type)).with("index", index).run();
}

// A one-way notice for the whole platform, on the notice client: no
// "player_id", no reply, no Leave record. Returns the send's result.
int Pavo_MediaPlayer_IPC_PlatformSubtitleEnable(bool enable) {
  using namespace pavo::mediaplayer;
  log_enter(__func__);
  try {
    StyledObject notice;
    notice.add_int("event_type", 31);
    notice.add_bool("subtitleEnable", enable);
    std::string text;
    notice.render(&text);
    pavo_ipc_msg message{static_cast<uint32_t>(text.size()), text.data()};
    const ClientLease client(ClientLease::kNotice);
    const int sent = pavo_ipc_client_send(client.get(), &message);
    if (sent != 0) log_error(__func__);
    return sent;
  } catch (const std::bad_alloc&) {
    log_error(__func__);
    return -4;
  }
}
