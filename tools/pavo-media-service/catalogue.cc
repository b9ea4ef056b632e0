#include "pavo-media-service/catalogue.h"

#include "pavo-media-service/protocol.h"

namespace pavo::service {
namespace {

Track video(int id, bool encrypted) {
  Track t;
  t.kind = kVideoTrack;
  t.track_id = id;
  t.encrypted = encrypted;
  t.pid = 0x100 + static_cast<unsigned>(id);
  t.component_tag = static_cast<unsigned>(id);
  t.encoding = "video/H264";
  t.width = 1920;
  t.height = 1080;
  return t;
}

Track audio(int id, bool encrypted, const char* encoding, const char* language, int priority,
            int channels, int description) {
  Track t;
  t.kind = kAudioTrack;
  t.track_id = id;
  t.encrypted = encrypted;
  t.pid = 0x100 + static_cast<unsigned>(id);
  t.component_tag = static_cast<unsigned>(id);
  t.encoding = encoding;
  t.priority = priority;
  t.audio_channels = channels;
  t.audio_description = description;
  t.language = language;
  return t;
}

Track subtitle(int id, const char* language, const char* label, bool hearing_impaired) {
  Track t;
  t.kind = kSubtitleTrack;
  t.track_id = id;
  t.pid = 0x100 + static_cast<unsigned>(id);
  t.component_tag = static_cast<unsigned>(id);
  t.encoding = "application/ttml+xml";
  t.language = language;
  t.label = label;
  t.hearing_impaired = hearing_impaired;
  return t;
}

// The VOD tracks: one video, audio "eng" and "de" (a two-letter code on
// purpose: the library turns it into three letters), subtitles "eng" and
// "fra" (which the library spells "fre").
std::vector<Track> vod_tracks(bool encrypted) {
  return {video(1, encrypted),
          audio(2, encrypted, "audio/mp4a-latm", "eng", 1, 2, 0),
          audio(3, encrypted, "audio/ac3", "de", 2, 6, 1),
          subtitle(4, "eng", "English", false),
          subtitle(5, "fra", "Francais (sourds et malentendants)", true)};
}

const std::vector<MediaItem>& catalogue() {
  static const std::vector<MediaItem> items = {
      {"vod.mp4", false, 60.0, -1, 0, "", "dvb://233a.1004.1044;363a", "http://mrs.media.test/vod",
       vod_tracks(false)},
      {"short.mp4", false, 3.0, -1, 0, "", "dvb://233a.1004.1044;363b", "http://mrs.media.test/short",
       vod_tracks(false)},
      {"live.ts", true, kUnknownDuration, -1, 0, "", "dvb://233a.1004.1045", "http://mrs.media.test/live",
       {video(1, false), audio(2, false, "audio/mp4a-latm", "eng", 1, 2, 0)}},
      {"drm.mp4", false, 30.0, -1, 0, "19188", "dvb://233a.1004.1044;363c", "http://mrs.media.test/drm",
       vod_tracks(true)},
      {"error-network.mp4", false, 0.0, kNetworkError, 0, "", "", "", {}},
      {"error-format.mp4", false, 0.0, kFormatError, 0, "", "", "", {}},
      {"error-decoder.mp4", false, 0.0, kDecoderError, 0, "", "", "", {}},
      // 2001: the DRM system's "no licence" code, handed to the page as is.
      {"error-encrypted.mp4", false, 0.0, kEncryptedError, 2001, "19188", "", "", {}},
  };
  return items;
}

}  // namespace

std::string media_name(const std::string& url) {
  std::string path = url.substr(0, url.find_first_of("?#"));
  const std::size_t slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

const MediaItem& find_media(const std::string& url) {
  const std::string name = media_name(url);
  const MediaItem* not_found = nullptr;
  for (const MediaItem& item : catalogue()) {
    if (name == item.name) return item;
    if (std::string(item.name) == "error-network.mp4") not_found = &item;
  }
  return *not_found;
}

}  // namespace pavo::service
