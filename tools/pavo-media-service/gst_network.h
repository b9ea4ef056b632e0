// How the GStreamer engine meets the network: the adaptive demuxers' buffer
// set for start-up on slow links, which pipeline messages come from the
// network, and a decoder that the pipeline lacks.
#ifndef PAVO_MEDIA_SERVICE_GST_NETWORK_H
#define PAVO_MEDIA_SERVICE_GST_NETWORK_H

#include <gst/gst.h>

namespace pavo::service {

// Connects to playbin3's element-setup: every adaptive demuxer (DASH, HLS)
// that the pipeline makes buffers kAdaptiveBufferTime ahead at most. Its
// buffering messages count towards that time, so playback starts, or goes on
// after a stall, once that much is in, not after its default of 30 s (which
// on a slow link is a long silent wait). Call once per pipeline, before it
// runs.
//
// Once the pipeline has an adaptive demuxer, the queue in front of its
// decoders (decodebin3's multiqueue) holds kAdaptiveQueueTime per stream, a
// fixed limit: the demuxer buffers for the network itself, and it switches
// an audio track only at the point where it hands data on, which waits for
// the queue to take more. The queue's own limit follows the interleave of
// its streams, which is wide at start-up (the subtitle stream lags) and
// narrows once playback runs; a queue filled under the wide limit then
// blocks the demuxer until it has played down to the narrow one, which put
// an audio switch half a second to a second after the request.
void tune_adaptive_demuxers(GstElement* playbin);
// 2 s: one segment of the usual broadband streams; playback starts about as
// soon as a bare playbin3's pre-roll (which does not wait for buffering).
// At 1 s, below the 2 s segments of the test stream, its DASH audio switch
// never completed.
constexpr GstClockTime kAdaptiveBufferTime = 2 * GST_SECOND;

// The share of kAdaptiveBufferTime (percent, as the demuxer's buffering
// messages count) that an adaptive stream plays on: it starts once
// pre-rolled with at least this much buffered (a bare playbin3 starts at
// pre-roll, whatever is buffered), and while playing it pauses for the
// network only below it; once paused or pre-rolled with less, it waits
// for the whole buffer (100 %).
constexpr int kAdaptivePlayPercent = 50;

// Whether `element` is an adaptive demuxer (DASH, HLS).
bool is_adaptive_demuxer(GstObject* element);

constexpr GstClockTime kAdaptiveQueueTime = 250 * GST_MSECOND;

// Connects to playbin3's element-setup: the queue of decoded audio in front
// of the audio sink (playsink's "aqueue", 1 s by default) holds
// kAudioQueueTime at most. Decoded audio waiting there is what is heard
// after an audio switch reached the decoder, and a new track's format
// reaches the sink only once that queue has played out (the allocation
// query waits behind it), holding the next switch up meanwhile. The
// compressed stream stays buffered upstream. Call once per pipeline, before
// it runs.
void shorten_audio_queue(GstElement* playbin);
constexpr GstClockTime kAudioQueueTime = 200 * GST_MSECOND;

// Makes playbin3 buffer progressive files read over the network (MP4,
// Matroska over HTTP) in a ring buffer of kProgressiveBufferBytes at most,
// in memory: without it, such a file plays at once and, on a link slower
// than its bitrate, stalls without a word when the data runs out; with it,
// the pipeline posts buffering messages (below 100 % until the download can
// keep ahead of playback), which the player turns into the buffering state.
// Adaptive streams and local files are not affected. Call once per
// pipeline, before it runs.
void buffer_progressive_downloads(GstElement* playbin);
constexpr guint64 kProgressiveBufferBytes = 32 * 1024 * 1024;

// Whether `source` is an element that reads a network URI (http, https):
// its stream errors are the connection's (a refused connection, a server
// that went away), whatever the GError says.
bool reads_network(GstObject* source);

// Whether `message` says that the pipeline has no decoder for an audio or
// video stream (playbin3's missing-plugin element message).
bool lacks_decoder(GstMessage* message);

}  // namespace pavo::service

#endif  // PAVO_MEDIA_SERVICE_GST_NETWORK_H
