#include "pavo-media-service/gst_streams.h"

#include <gst/tag/tag.h>

#include <cstring>

#include "pavo-media-service/protocol.h"

namespace pavo::service {

int media_error(const GError* error) {
  if (error->domain == GST_RESOURCE_ERROR) return kNetworkError;
  if (error->domain == GST_STREAM_ERROR) {
    switch (error->code) {
      case GST_STREAM_ERROR_CODEC_NOT_FOUND:
      case GST_STREAM_ERROR_DECODE:
        return kDecoderError;
      case GST_STREAM_ERROR_DECRYPT:
      case GST_STREAM_ERROR_DECRYPT_NOKEY:
        return kEncryptedError;
      default:  // type not found, wrong type, demux, format, failed
        return kFormatError;
    }
  }
  if (error->domain == GST_LIBRARY_ERROR) return kDecoderError;
  if (error->domain == GST_CORE_ERROR && error->code == GST_CORE_ERROR_MISSING_PLUGIN) {
    return kDecoderError;
  }
  return kFormatError;
}

int kind_of(GstStreamType type) {
  if (type & GST_STREAM_TYPE_VIDEO) return kVideoTrack;
  if (type & GST_STREAM_TYPE_AUDIO) return kAudioTrack;
  if (type & GST_STREAM_TYPE_TEXT) return kSubtitleTrack;
  return kOtherTrack;
}

Track describe_stream(GstStream* stream, int kind, int number) {
  Track t;
  t.kind = kind;
  t.track_id = number;
  const std::unique_ptr<GstCaps, GstCapsUnref> caps(gst_stream_get_caps(stream));
  if (caps && gst_caps_get_size(caps.get()) > 0) {
    const GstStructure* s = gst_caps_get_structure(caps.get(), 0);
    t.encoding = gst_structure_get_name(s);
    t.encrypted = t.encoding == "application/x-cenc";
    gst_structure_get_int(s, "width", &t.width);
    gst_structure_get_int(s, "height", &t.height);
    gst_structure_get_int(s, "channels", &t.audio_channels);
  }
  const std::unique_ptr<GstTagList, GstTagListUnref> tags(gst_stream_get_tags(stream));
  if (tags) {
    gchar* text = nullptr;
    if (gst_tag_list_get_string(tags.get(), GST_TAG_LANGUAGE_CODE, &text)) {
      // One spelling whatever the source: containers give two letters
      // ("de"), manifests what their author wrote ("deu", "ger", "de");
      // GStreamer's two-letter code where it knows the language, which the
      // library turns into its three-letter one.
      const gchar* two_letters = gst_tag_get_language_code(text);
      t.language = two_letters != nullptr ? two_letters : text;
      g_free(text);
    }
    if (gst_tag_list_get_string(tags.get(), GST_TAG_TITLE, &text)) {
      t.label = text;
      g_free(text);
    }
  }
  return t;
}

bool made_by(GstElement* element, const char* factory) {
  GstElementFactory* made = gst_element_get_factory(element);
  return made != nullptr && std::strcmp(GST_OBJECT_NAME(made), factory) == 0;
}

void for_each_element(GstElement* bin, const std::function<bool(GstElement*)>& visit) {
  GstIterator* it = gst_bin_iterate_recurse(GST_BIN(bin));
  GValue item = G_VALUE_INIT;
  bool more = true;
  while (more && gst_iterator_next(it, &item) == GST_ITERATOR_OK) {
    more = visit(GST_ELEMENT(g_value_get_object(&item)));
    g_value_reset(&item);
  }
  g_value_unset(&item);
  gst_iterator_free(it);
}

namespace {

// The page's wish, kept on the pipeline for the overlays it makes later.
constexpr char kTextShown[] = "pavo-text-shown";

bool text_shown(GstElement* playbin) {
  return g_object_get_data(G_OBJECT(playbin), kTextShown) != nullptr;
}

void silence_if_overlay(GstElement* element, bool shown) {
  if (made_by(element, "subtitleoverlay")) g_object_set(element, "silent", !shown, nullptr);
}

// On the thread that made the element.
void on_element_setup(GstElement* playbin, GstElement* element, gpointer) {
  silence_if_overlay(element, text_shown(playbin));
}

}  // namespace

void watch_text(GstElement* playbin, bool shown) {
  g_object_set_data(G_OBJECT(playbin), kTextShown, shown ? playbin : nullptr);
  g_signal_connect(playbin, "element-setup", G_CALLBACK(on_element_setup), nullptr);
}

void show_text(GstElement* playbin, bool shown) {
  g_object_set_data(G_OBJECT(playbin), kTextShown, shown ? playbin : nullptr);
  for_each_element(playbin, [shown](GstElement* element) {
    silence_if_overlay(element, shown);
    return true;
  });
}

}  // namespace pavo::service
