#!/usr/bin/env bash
# Makes the test file that pavo-media-service's GStreamer engine plays in the
# demo and the end-to-end tests, with GStreamer's test sources and encoders:
# Matroska with VP8 video (320x240, 25 frames/s), two Vorbis audio tracks
# tagged "eng" (stereo, 440 Hz) and "deu" (mono, 880 Hz), and a text
# subtitle track tagged "fra". Nothing is downloaded.
#
# Usage: scripts/make_test_media.sh OUTPUT.mkv [SECONDS]   (default 6 s)
# Exits 0 with OUTPUT written, 1 when gst-launch-1.0 or an element is missing.
set -euo pipefail

out=${1:?usage: make_test_media.sh OUTPUT.mkv [SECONDS]}
seconds=${2:-6}
if ! [[ $seconds =~ ^[1-9][0-9]*$ ]]; then
  echo "make_test_media.sh: SECONDS must be a whole number above 0" >&2
  exit 2
fi
if ! command -v gst-launch-1.0 >/dev/null; then
  echo "make_test_media.sh: gst-launch-1.0 not found (scripts/setup.sh installs GStreamer)" >&2
  exit 1
fi

mkdir -p "$(dirname "$out")"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# One subtitle a second.
for ((i = 0; i < seconds; i++)); do
  printf '%d\n00:00:%02d,100 --> 00:00:%02d,900\nLigne %d\n\n' $((i + 1)) "$i" "$i" $((i + 1))
done >"$work/subtitles.srt"

frames=$((seconds * 25))
audio_buffers=$((seconds * 10))  # 4800 samples at 48 kHz: 0.1 s each
tmp="$work/media.mkv"
# The subtitle parser gives Pango markup; plain lines are the same text, which
# the muxer takes as UTF-8.
gst-launch-1.0 -q matroskamux name=mux ! filesink location="$tmp" \
  videotestsrc num-buffers=$frames pattern=smpte ! video/x-raw,width=320,height=240,framerate=25/1 \
    ! vp8enc deadline=1 keyframe-max-dist=25 ! mux.video_0 \
  audiotestsrc num-buffers=$audio_buffers samplesperbuffer=4800 freq=440 \
    ! audio/x-raw,channels=2,rate=48000 ! audioconvert ! vorbisenc \
    ! taginject tags="language-code=eng" ! mux.audio_0 \
  audiotestsrc num-buffers=$audio_buffers samplesperbuffer=4800 freq=880 \
    ! audio/x-raw,channels=1,rate=48000 ! audioconvert ! vorbisenc \
    ! taginject tags="language-code=deu" ! mux.audio_1 \
  filesrc location="$work/subtitles.srt" ! subparse \
    ! capssetter replace=true caps="text/x-raw,format=utf8" \
    ! taginject tags="language-code=fra" ! mux.subtitle_0 ||
  { echo "make_test_media.sh: gst-launch-1.0 failed (scripts/setup.sh installs the plug-ins)" >&2; exit 1; }
mv "$tmp" "$out"
