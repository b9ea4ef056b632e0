// The GStreamer engine: players that play their URL through a playbin3
// pipeline, with the service's state events following the pipeline's
// messages (see gst_player.h for the mapping).
//
// Built only where pkg-config finds GStreamer (PAVO_WITH_GSTREAMER); without
// it gstreamer_engine() says so and fails.
#ifndef PAVO_MEDIA_SERVICE_GST_ENGINE_H
#define PAVO_MEDIA_SERVICE_GST_ENGINE_H

#include <string>

#include "pavo-media-service/engine.h"

namespace pavo::service {

// Starts GStreamer (once per process, from the main thread before any other
// thread of the service runs) and sets *factory to make GStreamer players.
// `sinks`: "fake" (nothing rendered, the pipeline still runs on its clock),
// "auto" (the desktop's video and audio output), or "" for fake when there
// is no display. Returns false with *error set, *factory untouched, when
// this build has no GStreamer engine, GStreamer cannot start, or playbin3 or
// the sinks are missing.
bool gstreamer_engine(const std::string& sinks, EngineFactory* factory, std::string* error);

}  // namespace pavo::service

#endif  // PAVO_MEDIA_SERVICE_GST_ENGINE_H
