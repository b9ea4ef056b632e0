// Frame previews of the GStreamer engine: the current video frame of each
// watched pipeline, offered to whoever asks as a JPEG file, a few times a
// second. The service knows nothing of its readers; a browser launcher, for
// example, paints the frames into the page's video box.
//
// Active only when the environment variable PAVO_FRAME_PREVIEW_DIR names a
// directory: the frame of the media at URL is then written to
// DIR/<frame_preview::file_name(URL)> (a whole file replaced by rename, so
// a reader never sees half a frame). Without it both functions do nothing.
//
// Thread safety: watch and forget may be called from any thread; the
// frames are taken on a thread of the preview's own, which holds a
// reference to each watched pipeline and never changes its state.
#ifndef PAVO_MEDIA_SERVICE_GST_FRAME_PREVIEW_H
#define PAVO_MEDIA_SERVICE_GST_FRAME_PREVIEW_H

#include <gst/gst.h>

#include <string>

namespace pavo::service {

// Starts offering the frames of `pipeline` (a playbin) under `url`'s name;
// a pipeline already watched gets the new name.
void frame_preview_watch(GstElement* pipeline, const std::string& url);
// Stops offering them (before the pipeline is released) and removes the file.
void frame_preview_forget(GstElement* pipeline);

}  // namespace pavo::service

#endif  // PAVO_MEDIA_SERVICE_GST_FRAME_PREVIEW_H
