// The virtual media that the service plays, chosen by the last path segment
// of the URL (any "?query" and "#fragment" ignored; any scheme and host).
#ifndef PAVO_MEDIA_SERVICE_CATALOGUE_H
#define PAVO_MEDIA_SERVICE_CATALOGUE_H

#include <string>
#include <vector>

namespace pavo::service {

// One track, with every member of the protocol's track record.
struct Track {
  int kind = 0;  // TrackKind
  int track_id = 0;
  bool encrypted = false;
  unsigned pid = 0;
  unsigned component_tag = 0;
  std::string encoding;
  // video
  int width = 0;
  int height = 0;
  // audio
  int priority = 0;
  int audio_description = 0;
  int audio_channels = 0;
  // audio and subtitle
  std::string language;
  // subtitle
  bool hearing_impaired = false;
  std::string url;
  std::string label;
};

// Duration of a live item: the stream has no end.
constexpr double kUnknownDuration = -1.0;

struct MediaItem {
  const char* name;          // last path segment that selects it
  bool live;                 // no end; the position keeps growing
  double duration;           // seconds; kUnknownDuration when live
  int load_error;            // MediaError raised while connecting; -1 none
  int drm_error_code;        // data1 of an encrypted-media error
  const char* drm_system;    // DRM system id of a protected item; "" clear
  const char* content_id;    // media-sync content identifier
  const char* mrs_url;       // media-sync MRS URL
  std::vector<Track> tracks;
};

// The item for `url`; an unknown name gives the item that fails with a
// network error. Never null; the catalogue lives as long as the process.
const MediaItem& find_media(const std::string& url);

// The name of the item that `url` selects (the last path segment).
std::string media_name(const std::string& url);

}  // namespace pavo::service

#endif  // PAVO_MEDIA_SERVICE_CATALOGUE_H
