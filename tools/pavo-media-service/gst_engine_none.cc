// The GStreamer engine of a build without GStreamer.
#include "pavo-media-service/gst_engine.h"

namespace pavo::service {

bool gstreamer_engine(const std::string&, EngineFactory*, std::string* error) {
  *error = "this build of pavo-media-service has no GStreamer engine (PAVO_WITH_GSTREAMER)";
  return false;
}

}  // namespace pavo::service
