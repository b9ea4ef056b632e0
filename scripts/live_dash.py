"""A live MPEG-DASH stream made from a VOD one, for the test media server.

The VOD manifest (ffmpeg's: one period, SegmentTemplate with $Number$ and a
fixed segment duration) becomes a dynamic one whose availability start lies
`window` seconds before the live start, so that the newest segments of a
window are there at once and one more appears every segment duration. The
segment list wraps: segment number n past the pre-made ones is the file of
number (n - 1) % count + 1 with its timestamps (the fragment's decode time
and the segment index's earliest presentation time) moved by whole passes of
the VOD's length, so that the stream goes on for ever. Sidecar subtitle
files (a whole-stream WebVTT) are left out: they have no live form.

Standard library only.
"""
import os
import re
import struct
import time

SEGMENT_NAME = re.compile(r"(.*-)(\d+)(\.m4s)$")


def _duration(text, attribute):
    """Seconds of an ISO 8601 duration attribute like PT20.0S (0 when absent)."""
    match = re.search(attribute + r'="PT(?:(\d+)H)?(?:(\d+)M)?(?:([\d.]+)S)?"', text)
    if not match:
        return 0.0
    hours, minutes, seconds = (float(g) if g else 0.0 for g in match.groups())
    return hours * 3600 + minutes * 60 + seconds


def _utc(seconds):
    return time.strftime("%Y-%m-%dT%H:%M:%S", time.gmtime(seconds)) + "Z"


def manifest(text, live_start, window):
    """The dynamic form of the VOD manifest `text` for a live start at wall
    clock `live_start` (seconds since the epoch) with `window` seconds of
    time shift."""
    now = time.time()
    text = re.sub(r'\s+mediaPresentationDuration="[^"]*"', "", text)
    text = text.replace(
        'type="static"',
        'type="dynamic" availabilityStartTime="%s" publishTime="%s" minimumUpdatePeriod="PT2S" '
        'timeShiftBufferDepth="PT%gS" suggestedPresentationDelay="PT%gS"'
        % (_utc(live_start - window), _utc(now), window, window / 2),
    )
    return re.sub(r'\s*<AdaptationSet[^>]*contentType="text".*?</AdaptationSet>', "", text, flags=re.S)


def vod_length(manifest_text):
    """Seconds of one pass over the VOD stream."""
    return _duration(manifest_text, "mediaPresentationDuration")


def _boxes(data, start, end):
    """(type, offset, size) of the boxes in data[start:end]."""
    while start + 8 <= end:
        size, kind = struct.unpack_from(">I4s", data, start)
        if size < 8 or start + size > end:
            return
        yield kind, start, size
        start += size


def _timescale(init):
    """The track timescale of an fMP4 initialisation segment (its mdhd)."""
    start, end = 0, len(init)
    for path in (b"moov", b"trak", b"mdia", b"mdhd"):
        found = next(((offset, size) for kind, offset, size in _boxes(init, start, end) if kind == path), None)
        if found is None:
            return None
        start, end = found[0] + 8, found[0] + found[1]
    version = init[start]  # then creation and modification times of 4 or 8 bytes
    return struct.unpack_from(">I", init, start + (20 if version == 1 else 12))[0]


def _shift(data, offset, seconds, timescale, field):
    """Adds `seconds` in `timescale` units to the 32- or 64-bit time at `field`
    (a full box at `offset`: version 1 means 64 bits)."""
    wide = data[offset + 8] == 1
    fmt = ">Q" if wide else ">I"
    value = struct.unpack_from(fmt, data, field)[0] + int(round(seconds * timescale))
    struct.pack_into(fmt, data, field, value & (0xFFFFFFFFFFFFFFFF if wide else 0xFFFFFFFF))


def segment(directory, name, length):
    """The bytes of media segment `name` (e.g. chunk-stream1-00013.m4s) of the
    live stream over the VOD segments in `directory` whose pass lasts
    `length` seconds; None when there is no such segment."""
    match = SEGMENT_NAME.match(name)
    if not match or length <= 0:
        return None
    prefix, number, suffix = match.groups()
    count = len([f for f in os.listdir(directory) if f.startswith(prefix) and f.endswith(suffix)])
    if count == 0:
        return None
    n = int(number)
    passes, index = divmod(max(n, 1) - 1, count)
    path = os.path.join(directory, "%s%0*d%s" % (prefix, len(number), index + 1, suffix))
    representation = re.search(r"stream(\d+)-$", prefix)
    init_path = os.path.join(directory, "init-stream%s.m4s" % (representation.group(1) if representation else ""))
    if not os.path.isfile(path) or not os.path.isfile(init_path):
        return None
    with open(path, "rb") as f:
        data = bytearray(f.read())
    if passes == 0:
        return bytes(data)
    with open(init_path, "rb") as f:
        track_timescale = _timescale(f.read())
    moved = passes * length
    for kind, offset, size in list(_boxes(data, 0, len(data))):
        if kind == b"sidx":
            sidx_timescale = struct.unpack_from(">I", data, offset + 16)[0]
            _shift(data, offset, moved, sidx_timescale, offset + 20)
        elif kind == b"moof" and track_timescale:
            for inner_kind, inner, inner_size in _boxes(data, offset + 8, offset + size):
                if inner_kind == b"mfhd":  # the fragment's sequence number goes on too
                    number = struct.unpack_from(">I", data, inner + 12)[0] + passes * count
                    struct.pack_into(">I", data, inner + 12, number & 0xFFFFFFFF)
                if inner_kind != b"traf":
                    continue
                for box_kind, box, _ in _boxes(data, inner + 8, inner + inner_size):
                    if box_kind == b"tfdt":
                        _shift(data, box, moved, track_timescale, box + 12)
    return bytes(data)


def segment_beside_manifest(path):
    """segment() for the file name at `path`, over the VOD stream whose
    manifest.mpd stands in the same directory; None when there is none."""
    directory = os.path.dirname(path)
    try:
        with open(os.path.join(directory, "manifest.mpd"), encoding="utf-8") as f:
            length = vod_length(f.read())
    except OSError:
        return None
    return segment(directory, os.path.basename(path), length)
