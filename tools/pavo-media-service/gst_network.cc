#include "pavo-media-service/gst_network.h"

#include <cstring>
#include <initializer_list>

namespace pavo::service {
namespace {

bool is_adaptive_demuxer(GstElement* element) {
  GstElementFactory* factory = gst_element_get_factory(element);
  if (factory == nullptr) return false;
  const char* klass = gst_element_factory_get_metadata(factory, GST_ELEMENT_METADATA_KLASS);
  return klass != nullptr && std::strstr(klass, "Demuxer/Adaptive") != nullptr;
}

// On the thread that made the element: only sets properties.
void on_element_setup(GstElement*, GstElement* element, gpointer) {
  if (!is_adaptive_demuxer(element)) return;
  for (const char* property : {"max-buffering-time", "high-watermark-time"}) {
    if (g_object_class_find_property(G_OBJECT_GET_CLASS(element), property) != nullptr) {
      g_object_set(element, property, static_cast<guint64>(kAdaptiveBufferTime), nullptr);
    }
  }
}

}  // namespace

void tune_adaptive_demuxers(GstElement* playbin) {
  g_signal_connect(playbin, "element-setup", G_CALLBACK(on_element_setup), nullptr);
}

void buffer_progressive_downloads(GstElement* playbin) {
  constexpr guint kDownloadFlag = 0x80;  // GST_PLAY_FLAG_DOWNLOAD: playbin's flags are no public header
  guint flags = 0;
  g_object_get(playbin, "flags", &flags, nullptr);
  g_object_set(playbin, "flags", flags | kDownloadFlag, "ring-buffer-max-size", kProgressiveBufferBytes, nullptr);
}

bool reads_network(GstObject* source) {
  if (source == nullptr || !GST_IS_URI_HANDLER(source)) return false;
  if (gst_uri_handler_get_uri_type(GST_URI_HANDLER(source)) != GST_URI_SRC) return false;
  const gchar* const* protocols = gst_uri_handler_get_protocols(GST_URI_HANDLER(source));
  for (; protocols != nullptr && *protocols != nullptr; ++protocols) {
    if (g_ascii_strcasecmp(*protocols, "http") == 0 || g_ascii_strcasecmp(*protocols, "https") == 0) return true;
  }
  return false;
}

bool lacks_decoder(GstMessage* message) {
  if (GST_MESSAGE_TYPE(message) != GST_MESSAGE_ELEMENT) return false;
  const GstStructure* s = gst_message_get_structure(message);
  if (s == nullptr || !gst_structure_has_name(s, "missing-plugin")) return false;
  const gchar* type = gst_structure_get_string(s, "type");
  if (type == nullptr || std::strcmp(type, "decoder") != 0) return false;
  GstCaps* caps = nullptr;
  if (!gst_structure_get(s, "detail", GST_TYPE_CAPS, &caps, nullptr) || caps == nullptr) return false;
  const bool media = gst_caps_get_size(caps) > 0 &&
                     (g_str_has_prefix(gst_structure_get_name(gst_caps_get_structure(caps, 0)), "video/") ||
                      g_str_has_prefix(gst_structure_get_name(gst_caps_get_structure(caps, 0)), "audio/"));
  gst_caps_unref(caps);
  return media;
}

}  // namespace pavo::service
