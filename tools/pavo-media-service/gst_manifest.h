// What a DASH manifest or an HLS master playlist says about its audio
// renditions, for the tracks that the pipeline has not fetched yet (an
// adaptive demuxer gives an unselected rendition's stream no channels, and
// hlsdemux2 not even its codec).
//
// The manifest is read as it passes into the adaptive demuxer: a probe on
// the demuxer's input keeps a copy of the bytes (kManifestLimit at most).
#ifndef PAVO_MEDIA_SERVICE_GST_MANIFEST_H
#define PAVO_MEDIA_SERVICE_GST_MANIFEST_H

#include <gst/gst.h>

#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "pavo-media-service/catalogue.h"

namespace pavo::service {

constexpr std::size_t kManifestLimit = 1 << 20;  // bytes kept; a longer manifest is cut

// The bytes of the manifest a pipeline's adaptive demuxer read. Thread-safe:
// filled on a streaming thread, read by the engine.
class ManifestCopy {
 public:
  void append(const guint8* data, std::size_t size);
  std::string text() const;

 private:
  mutable std::mutex mu_;
  std::string bytes_;
};

// Connects to playbin3's element-setup: the input of every adaptive demuxer
// of `playbin` is copied into `copy`, which the handlers keep alive. Call
// once per pipeline, before it runs.
void copy_manifests(GstElement* playbin, std::shared_ptr<ManifestCopy> copy);

// One audio rendition as the manifest describes it; empty or 0 what it
// does not say.
struct Rendition {
  std::string language;  // as written
  std::string encoding;  // caps name of the codec ("audio/mpeg" for mp4a)
  int channels = 0;
};

// The audio renditions of a DASH manifest (adaptation sets) or an HLS
// master playlist (EXT-X-MEDIA of type AUDIO), in the manifest's order;
// none for anything else. Never throws; reads at most the text given.
std::vector<Rendition> audio_renditions(const std::string& manifest);

// Fills what `track` (an audio track) lacks, encoding and channels, from
// the rendition of its language, or else the one at `index` (its place
// among the audio tracks).
void complete_audio_track(const std::vector<Rendition>& renditions, int index, Track* track);

}  // namespace pavo::service

#endif  // PAVO_MEDIA_SERVICE_GST_MANIFEST_H
