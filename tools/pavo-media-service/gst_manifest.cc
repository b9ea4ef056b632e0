#include "pavo-media-service/gst_manifest.h"

#include <gst/tag/tag.h>

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace pavo::service {

void ManifestCopy::append(const guint8* data, std::size_t size) {
  std::lock_guard<std::mutex> lock(mu_);
  const std::size_t room = kManifestLimit - bytes_.size();
  bytes_.append(reinterpret_cast<const char*>(data), size < room ? size : room);
}

std::string ManifestCopy::text() const {
  std::lock_guard<std::mutex> lock(mu_);
  return bytes_;
}

namespace {

using CopyRef = std::shared_ptr<ManifestCopy>;

void drop_ref(gpointer ref) { delete static_cast<CopyRef*>(ref); }

GstPadProbeReturn on_manifest_bytes(GstPad*, GstPadProbeInfo* info, gpointer ref) {
  GstBuffer* buffer = GST_PAD_PROBE_INFO_BUFFER(info);
  GstMapInfo map;
  if (buffer != nullptr && gst_buffer_map(buffer, &map, GST_MAP_READ)) {
    (*static_cast<CopyRef*>(ref))->append(map.data, map.size);
    gst_buffer_unmap(buffer, &map);
  }
  return GST_PAD_PROBE_OK;
}

// On the thread that made the element.
void on_element_setup(GstElement*, GstElement* element, gpointer ref) {
  GstElementFactory* factory = gst_element_get_factory(element);
  const char* klass =
      factory != nullptr ? gst_element_factory_get_metadata(factory, GST_ELEMENT_METADATA_KLASS) : nullptr;
  if (klass == nullptr || std::strstr(klass, "Demuxer/Adaptive") == nullptr) return;
  GstPad* sink = gst_element_get_static_pad(element, "sink");
  if (sink == nullptr) return;
  gst_pad_add_probe(sink, GST_PAD_PROBE_TYPE_BUFFER, on_manifest_bytes, new CopyRef(*static_cast<CopyRef*>(ref)),
                    drop_ref);
  gst_object_unref(sink);
}

// The value of attribute `name` in `text` (NAME="v" or NAME=v up to a comma
// or blank); empty when absent. Names match whole: a letter before them
// does not belong to them.
std::string attribute(const std::string& text, const std::string& name) {
  for (std::size_t at = text.find(name + "="); at != std::string::npos; at = text.find(name + "=", at + 1)) {
    if (at > 0 && (std::isalnum(static_cast<unsigned char>(text[at - 1])) || text[at - 1] == '-')) continue;
    std::size_t from = at + name.size() + 1;
    if (from < text.size() && text[from] == '"') {
      const std::size_t end = text.find('"', from + 1);
      return end == std::string::npos ? std::string() : text.substr(from + 1, end - from - 1);
    }
    const std::size_t end = text.find_first_of(", \t\r\n/>", from);
    return text.substr(from, end == std::string::npos ? std::string::npos : end - from);
  }
  return {};
}

std::string encoding_of(const std::string& codecs) {
  for (std::size_t from = 0; from < codecs.size();) {
    std::size_t end = codecs.find(',', from);
    if (end == std::string::npos) end = codecs.size();
    std::string codec = codecs.substr(from, end - from);
    codec.erase(0, codec.find_first_not_of(' '));
    if (codec.compare(0, 4, "mp4a") == 0) return "audio/mpeg";
    if (codec == "ac-3") return "audio/x-ac3";
    if (codec == "ec-3") return "audio/x-eac3";
    if (codec == "opus" || codec == "Opus") return "audio/x-opus";
    from = end + 1;
  }
  return {};
}

std::vector<Rendition> dash_renditions(const std::string& mpd) {
  std::vector<Rendition> out;
  for (std::size_t at = mpd.find("<AdaptationSet"); at != std::string::npos; at = mpd.find("<AdaptationSet", at + 1)) {
    std::size_t end = mpd.find("</AdaptationSet>", at);
    if (end == std::string::npos) end = mpd.size();
    const std::string set = mpd.substr(at, end - at);
    const std::string head = set.substr(0, set.find('>'));
    const bool audio = attribute(head, "contentType") == "audio" ||
                       attribute(set, "mimeType").compare(0, 6, "audio/") == 0;
    if (!audio) continue;
    Rendition r;
    r.language = attribute(head, "lang");
    r.encoding = encoding_of(attribute(set, "codecs"));
    const std::size_t config = set.find("<AudioChannelConfiguration");
    if (config != std::string::npos) r.channels = std::atoi(attribute(set.substr(config), "value").c_str());
    out.push_back(std::move(r));
  }
  return out;
}

std::vector<Rendition> hls_renditions(const std::string& playlist) {
  std::vector<Rendition> out;
  std::string codecs;
  std::size_t from = 0;
  while (from < playlist.size()) {
    std::size_t end = playlist.find('\n', from);
    if (end == std::string::npos) end = playlist.size();
    const std::string line = playlist.substr(from, end - from);
    from = end + 1;
    if (line.compare(0, 18, "#EXT-X-STREAM-INF:") == 0 && codecs.empty()) codecs = attribute(line, "CODECS");
    if (line.compare(0, 13, "#EXT-X-MEDIA:") != 0 || attribute(line, "TYPE") != "AUDIO") continue;
    Rendition r;
    r.language = attribute(line, "LANGUAGE");
    r.channels = std::atoi(attribute(line, "CHANNELS").c_str());  // "6/JOC": 6
    out.push_back(std::move(r));
  }
  const std::string encoding = encoding_of(codecs);
  for (Rendition& r : out) r.encoding = encoding;
  return out;
}

std::string same_language(const std::string& language) {
  const gchar* two_letters = gst_tag_get_language_code(language.c_str());
  return two_letters != nullptr ? two_letters : language;
}

}  // namespace

void copy_manifests(GstElement* playbin, std::shared_ptr<ManifestCopy> copy) {
  g_signal_connect_data(playbin, "element-setup", G_CALLBACK(on_element_setup), new CopyRef(std::move(copy)),
                        [](gpointer ref, GClosure*) { drop_ref(ref); }, GConnectFlags(0));
}

std::vector<Rendition> audio_renditions(const std::string& manifest) {
  if (manifest.find("<MPD") != std::string::npos) return dash_renditions(manifest);
  if (manifest.compare(0, 7, "#EXTM3U") == 0) return hls_renditions(manifest);
  return {};
}

void complete_audio_track(const std::vector<Rendition>& renditions, int index, Track* track) {
  const Rendition* match = nullptr;
  for (const Rendition& r : renditions) {
    if (!track->language.empty() && same_language(r.language) == track->language) {
      match = &r;
      break;
    }
  }
  if (match == nullptr && index >= 0 && static_cast<std::size_t>(index) < renditions.size()) {
    match = &renditions[static_cast<std::size_t>(index)];
  }
  if (match == nullptr) return;
  if (track->encoding.empty()) track->encoding = match->encoding;
  if (track->audio_channels <= 0) track->audio_channels = match->channels;
}

}  // namespace pavo::service
