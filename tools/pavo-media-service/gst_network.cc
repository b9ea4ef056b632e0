#include "pavo-media-service/gst_network.h"

#include <cstring>
#include <initializer_list>

#include "pavo-media-service/gst_streams.h"

namespace pavo::service {
namespace {

bool has_property(GstElement* element, const char* property) {
  return g_object_class_find_property(G_OBJECT_GET_CLASS(element), property) != nullptr;
}

// decodebin3's multiqueue, which playbin3 makes with itself; null when
// there is none (a playbin3 built otherwise). Returns a new reference.
GstElement* decoder_queue(GstElement* playbin) {
  GstElement* found = nullptr;
  for_each_element(playbin, [&found](GstElement* element) {
    if (made_by(element, "multiqueue")) found = GST_ELEMENT(gst_object_ref(element));
    return found == nullptr;
  });
  return found;
}

// On the thread that made the element: only sets properties. `queue` is
// the decoders' queue (or null), owned by the signal's connection.
void on_adaptive_setup(GstElement*, GstElement* element, gpointer queue) {
  if (!is_adaptive_demuxer(GST_OBJECT(element))) return;
  for (const char* property : {"max-buffering-time", "high-watermark-time"}) {
    if (has_property(element, property)) {
      g_object_set(element, property, static_cast<guint64>(kAdaptiveBufferTime), nullptr);
    }
  }
  auto* decoders = static_cast<GstElement*>(queue);
  if (decoders != nullptr && has_property(decoders, "use-interleave")) {
    g_object_set(decoders, "use-interleave", FALSE, "max-size-time", static_cast<guint64>(kAdaptiveQueueTime),
                 nullptr);
  }
}

void on_audio_queue_setup(GstElement*, GstElement* element, gpointer) {
  if (g_str_has_prefix(GST_OBJECT_NAME(element), "aqueue") && has_property(element, "max-size-time")) {
    g_object_set(element, "max-size-time", static_cast<guint64>(kAudioQueueTime), nullptr);
  }
}

}  // namespace

bool is_adaptive_demuxer(GstObject* element) {
  if (element == nullptr || !GST_IS_ELEMENT(element)) return false;
  GstElementFactory* factory = gst_element_get_factory(GST_ELEMENT(element));
  if (factory == nullptr) return false;
  const char* klass = gst_element_factory_get_metadata(factory, GST_ELEMENT_METADATA_KLASS);
  return klass != nullptr && std::strstr(klass, "Demuxer/Adaptive") != nullptr;
}

void tune_adaptive_demuxers(GstElement* playbin) {
  g_signal_connect_data(playbin, "element-setup", G_CALLBACK(on_adaptive_setup), decoder_queue(playbin),
                        [](gpointer queue, GClosure*) {
                          if (queue != nullptr) gst_object_unref(queue);
                        },
                        GConnectFlags(0));
}

void shorten_audio_queue(GstElement* playbin) {
  g_signal_connect(playbin, "element-setup", G_CALLBACK(on_audio_queue_setup), nullptr);
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
