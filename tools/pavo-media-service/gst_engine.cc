#include <gst/gst.h>

#include <cstdlib>
#include <memory>
#include <string>

#include "pavo-media-service/console.h"
#include "pavo-media-service/gst_engine.h"
#include "pavo-media-service/gst_player.h"

namespace pavo::service {
namespace {

bool have_display() {
  const char* x11 = std::getenv("DISPLAY");
  const char* wayland = std::getenv("WAYLAND_DISPLAY");
  return (x11 != nullptr && *x11 != '\0') || (wayland != nullptr && *wayland != '\0');
}

}  // namespace

bool gstreamer_engine(const std::string& sinks, EngineFactory* factory, std::string* error) {
  GError* init_error = nullptr;
  if (!gst_init_check(nullptr, nullptr, &init_error)) {
    *error = std::string("GStreamer does not start: ") +
             (init_error != nullptr ? init_error->message : "unknown reason");
    if (init_error != nullptr) g_error_free(init_error);
    return false;
  }
  const EngineConfig config{sinks == "fake" || (sinks.empty() && !have_display())};
  for (const char* needed : {"playbin3", config.fake_sinks ? "fakesink" : "playbin3"}) {
    GstElementFactory* found = gst_element_factory_find(needed);
    if (found == nullptr) {
      *error = std::string("GStreamer has no ") + needed + " (package gstreamer1.0-plugins-base)";
      return false;
    }
    gst_object_unref(found);
  }
  guint major = 0, minor = 0, micro = 0, nano = 0;
  gst_version(&major, &minor, &micro, &nano);
  trace("gstreamer engine: GStreamer %u.%u.%u, %s sinks", major, minor, micro,
        config.fake_sinks ? "fake" : "desktop");
  *factory = [config](unsigned id) { return std::make_unique<GstPlayer>(id, config); };
  return true;
}

}  // namespace pavo::service
