#!/usr/bin/env bash
# Makes the broadband test streams that scripts/media_server.py serves to
# pavo-media-service's GStreamer engine in the demo, the end-to-end tests and
# the benchmarks, with ffmpeg alone (nothing is downloaded):
#
#   dash/manifest.mpd   MPEG-DASH, fragmented MP4, 2 s segments: H.264 video
#                       320x180 25 frames/s, AAC audio "eng" (stereo, 440 Hz)
#                       and "deu" (mono, 880 Hz) in adaptation sets of their
#                       own, a WebVTT subtitle "fr"
#   hls/master.m3u8     HLS, MPEG-TS, 2 s segments: the same video, the audio
#                       languages as renditions of one group, WebVTT "fra"
#   progressive.mp4     the same in one MP4 (moov first), subtitles as mov_text
#   progressive.mkv     the same in Matroska, subtitles as SubRip (GStreamer
#                       does not read WebVTT in Matroska as ffmpeg writes it)
#   nodecoder.mp4       video whose sample entry names a codec nobody decodes
#   broken.mpd          a manifest that is not XML
#   notes.mp4           a text file with a video file's name
#
# Usage: scripts/make_broadband_media.sh OUTDIR [SECONDS]   (default 20)
# Exits 0 with OUTDIR filled, 1 when ffmpeg (or its libx264) is missing.
set -euo pipefail

out=${1:?usage: make_broadband_media.sh OUTDIR [SECONDS]}
seconds=${2:-20}
if ! [[ $seconds =~ ^[1-9][0-9]*$ ]] || ((seconds % 2 != 0)); then
  echo "make_broadband_media.sh: SECONDS must be an even whole number above 0" >&2
  exit 2
fi
if ! command -v ffmpeg >/dev/null || ! ffmpeg -hide_banner -encoders 2>/dev/null | grep libx264 >/dev/null; then
  echo "make_broadband_media.sh: ffmpeg with libx264 not found (scripts/setup.sh installs it)" >&2
  exit 1
fi
ff() { ffmpeg -hide_banner -loglevel error -nostdin -y "$@"; }

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
# One French subtitle a second.
{
  printf 'WEBVTT\n\n'
  for ((i = 0; i < seconds; i++)); do
    printf '00:%02d:%02d.100 --> 00:%02d:%02d.900\nLigne %d\n\n' $((i / 60)) $((i % 60)) $((i / 60)) $((i % 60)) $((i + 1))
  done
} >"$work/fra.vtt"

# The source: a key frame every 2 s, so that every segment starts with one.
ff -f lavfi -i "testsrc2=size=320x180:rate=25:duration=$seconds" \
  -f lavfi -i "sine=frequency=440:sample_rate=48000:duration=$seconds" \
  -f lavfi -i "sine=frequency=880:sample_rate=48000:duration=$seconds" -i "$work/fra.vtt" \
  -map 0:v -map 1:a -map 2:a -map 3 \
  -c:v libx264 -preset ultrafast -profile:v baseline -pix_fmt yuv420p -g 50 -keyint_min 50 -sc_threshold 0 \
  -c:a aac -b:a 64k -ac:a:0 2 -ac:a:1 1 -c:s mov_text \
  -metadata:s:a:0 language=eng -metadata:s:a:1 language=deu -metadata:s:s:0 language=fra \
  -movflags +faststart "$work/progressive.mp4"
ff -i "$work/progressive.mp4" -map 0 -c:v copy -c:a copy -c:s srt "$work/progressive.mkv"

mkdir -p "$work/dash" "$work/hls"
ff -i "$work/progressive.mp4" -map 0:v -map 0:a:0 -map 0:a:1 -c copy -f dash -seg_duration 2 -use_timeline 0 \
  -adaptation_sets "id=0,streams=v id=1,streams=1 id=2,streams=2" "$work/dash/manifest.mpd"
# ffmpeg's DASH muxer writes no text streams: the subtitle is one WebVTT file
# in an adaptation set of its own (its language as DASH manifests often give
# it, two letters).
cp "$work/fra.vtt" "$work/dash/sub-fra.vtt"
subtitles='\t\t<AdaptationSet id="3" contentType="text" mimeType="text/vtt" lang="fr">\n'
subtitles+='\t\t\t<Role schemeIdUri="urn:mpeg:dash:role:2011" value="subtitle" />\n'
subtitles+='\t\t\t<Representation id="3" bandwidth="256"><BaseURL>sub-fra.vtt</BaseURL></Representation>\n'
subtitles+='\t\t</AdaptationSet>\n'
sed -i "s#^\t</Period>#$subtitles\t</Period>#" "$work/dash/manifest.mpd"

ff -i "$work/progressive.mp4" -map 0:v -map 0:a:0 -map 0:a:1 -map 0:s -c:v copy -c:a copy -c:s webvtt \
  -metadata:s:s:0 language=fra -f hls -hls_time 2 -hls_playlist_type vod \
  -hls_segment_filename "$work/hls/seg_%v_%03d.ts" -master_pl_name master.m3u8 \
  -var_stream_map "v:0,s:0,agroup:aud,sgroup:sub a:0,agroup:aud,language:eng,default:yes a:1,agroup:aud,language:deu" \
  "$work/hls/stream_%v.m3u8"
# The master playlist as players expect it: codecs (the DASH muxer's reading
# of the video) and channels of the renditions, the subtitle's language.
video_codec=$(grep -o 'codecs="avc1[^"]*"' "$work/dash/manifest.mpd" | head -n 1 | cut -d'"' -f2)
sed -i -e "s/^\(#EXT-X-STREAM-INF:.*\)\$/\1,CODECS=\"$video_codec,mp4a.40.2\"/" \
  -e 's/\(LANGUAGE="eng"\)/\1,CHANNELS="2"/' -e 's/\(LANGUAGE="deu"\)/\1,CHANNELS="1"/' \
  -e 's/\(TYPE=SUBTITLES,.*\),URI=/\1,LANGUAGE="fra",URI=/' "$work/hls/master.m3u8"

# Faulty media: an unknown sample entry instead of avc1 (same length), XML
# that does not parse, text named as video.
ff -i "$work/progressive.mp4" -map 0:v -c copy "$work/video.mp4"
LC_ALL=C sed 's/avc1/xyz1/g; s/avcC/xyzC/g' "$work/video.mp4" >"$work/nodecoder.mp4"
printf '<?xml version="1.0"?>\n<MPD type="static"><Period><AdaptationSet\n' >"$work/broken.mpd"
printf 'These are notes, not a video.\n%.0s' $(seq 200) >"$work/notes.mp4"
rm -f "$work/video.mp4" "$work/fra.vtt"

mkdir -p "$out"
rm -rf "${out:?}/dash" "${out:?}/hls"
mv "$work"/* "$out"/
