// GStreamer as the engine reads media through it: owners of GStreamer
// references, the protocol's error number for a pipeline error, and the
// protocol's track record of a stream.
#ifndef PAVO_MEDIA_SERVICE_GST_STREAMS_H
#define PAVO_MEDIA_SERVICE_GST_STREAMS_H

#include <gst/gst.h>

#include <functional>
#include <memory>

#include "pavo-media-service/catalogue.h"

namespace pavo::service {

// Owners of GStreamer references.
struct GstObjectUnref {
  void operator()(gpointer object) const { gst_object_unref(object); }
};
struct GstMessageUnref {
  void operator()(GstMessage* message) const { gst_message_unref(message); }
};
struct GstCapsUnref {
  void operator()(GstCaps* caps) const { gst_caps_unref(caps); }
};
struct GstTagListUnref {
  void operator()(GstTagList* tags) const { gst_tag_list_unref(tags); }
};
struct GFreeDeleter {
  void operator()(gpointer p) const { g_free(p); }
};
using MessagePtr = std::unique_ptr<GstMessage, GstMessageUnref>;
using CollectionPtr = std::unique_ptr<GstStreamCollection, GstObjectUnref>;
using GCharPtr = std::unique_ptr<gchar, GFreeDeleter>;

// The protocol's error number for a pipeline error: resource errors are
// network errors; codec, decode and library errors and missing plug-ins are
// decoder errors; decryption errors are encrypted; the rest format errors.
int media_error(const GError* error);

// The protocol's track kind of a stream type (kOtherTrack for none of ours).
int kind_of(GstStreamType type);

// Whether `element` was made by the factory named `factory`.
bool made_by(GstElement* element, const char* factory);

// Calls `visit` for every element inside `bin`, at any depth, until it
// returns false. Elements added meanwhile may be missed.
void for_each_element(GstElement* bin, const std::function<bool(GstElement*)>& visit);

// Subtitles shown or hidden on the picture that playbin3 renders. The text
// stream itself stays selected and consumed whatever the page wants: an
// adaptive demuxer hands all its streams on from one thread, so a text
// stream that nothing takes (playbin3 without its text flag) stops it and
// playback with it. Hiding silences the subtitle overlay, also one that
// playbin3 makes later. watch_text() once per pipeline before it runs;
// show_text() on the pipeline's thread while it runs.
void watch_text(GstElement* playbin, bool shown);
void show_text(GstElement* playbin, bool shown);

// One track record from a stream of the collection: caps name as encoding,
// the language tag as GStreamer's two-letter code where it knows the
// language (as given otherwise), channels, size and title.
Track describe_stream(GstStream* stream, int kind, int number);

}  // namespace pavo::service

#endif  // PAVO_MEDIA_SERVICE_GST_STREAMS_H
