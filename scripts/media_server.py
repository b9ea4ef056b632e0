#!/usr/bin/env python3
"""The test media server: serves a directory of test streams over HTTP on
127.0.0.1 only, with the network's faults on demand.

Usage: media_server.py ROOT [--port N] [--rate BYTES_PER_S] [--die-after S] [--verbose]

  --port N        the port (0, the default: one the system picks)
  --rate B        every response body at B bytes per second at most
  --die-after S   the process ends S seconds after the first request, in the
                  middle of whatever it is sending (a server that dies)
  --verbose       every request on standard error

Once listening it prints "media_server: http://127.0.0.1:PORT/" and flushes.

Paths select behaviour per request, so that one server serves every case:
  /404/P          404 Not Found
  /slow/B/P       P at B bytes per second
  /stall/N/D/P    P, but after N segment requests (anything but manifests
                  and playlists) the link stops for D seconds: the requests
                  that come in that window wait until its end
  /flaky/P        P when it is a manifest or playlist, 404 for anything else
                  (every segment download fails)
  /live/P         an HLS media playlist P as a live window: no end tag, three
                  segments, one more every target duration since the first
                  live request (wrapping over the pre-made segments with a
                  discontinuity); the master playlist and segments as they are.
                  A DASH manifest P becomes a dynamic one over the same clock
                  (live_dash.py): 6 s of time shift, its segments wrapping
                  with their timestamps moved on
  P               the file ROOT/P, with byte ranges (Range: bytes=A-B, A-, -N)

Standard library only; nothing but 127.0.0.1 is ever bound.
"""
import argparse
import http.server
import os
import re
import sys
import threading
import time
import urllib.parse

import live_dash

TYPES = {
    ".mpd": "application/dash+xml",
    ".m3u8": "application/vnd.apple.mpegurl",
    ".ts": "video/mp2t",
    ".m4s": "video/iso.segment",
    ".mp4": "video/mp4",
    ".mkv": "video/x-matroska",
    ".vtt": "text/vtt",
}
LIVE_WINDOW = 3  # segments in a live playlist


class Server(http.server.ThreadingHTTPServer):
    daemon_threads = True

    def __init__(self, root, port, rate, die_after, verbose=False):
        super().__init__(("127.0.0.1", port), Handler)
        self.root = os.path.realpath(root)
        self.rate = rate
        self.die_after = die_after
        self.verbose = verbose
        self.lock = threading.Lock()
        self.first_request = None
        self.live_start = None
        self.stall_start = None  # when the stall window opened
        self.stall_count = 0  # segment requests under /stall/

    def handle_error(self, request, client_address):
        """A client that goes away is no error of the server's."""
        if not isinstance(sys.exc_info()[1], ConnectionError):
            super().handle_error(request, client_address)

    def note_request(self):
        with self.lock:
            if self.first_request is not None:
                return
            self.first_request = time.monotonic()
        if self.die_after is not None:
            timer = threading.Timer(self.die_after, lambda: os._exit(0))
            timer.daemon = True
            timer.start()

    def stall(self, after, length):
        """Counts a segment request; waits out the stall window when in it."""
        with self.lock:
            self.stall_count += 1
            now = time.monotonic()
            if self.stall_count > after and self.stall_start is None:
                self.stall_start = now
            left = 0 if self.stall_start is None else self.stall_start + length - now
        if left > 0:
            time.sleep(left)

    def live_elapsed(self):
        """Seconds since the first live request."""
        with self.lock:
            if self.live_start is None:
                self.live_start = time.monotonic()
            return time.monotonic() - self.live_start

    def live_wall_start(self):
        """The first live request's wall-clock time (seconds since the epoch)."""
        return time.time() - self.live_elapsed()


def live_playlist(text, elapsed):
    """The live window of a VOD media playlist `text`, `elapsed` s after the start."""
    head, segments, target = [], [], 2.0
    pending = []
    for line in text.splitlines():
        if line.startswith("#EXT-X-TARGETDURATION:"):
            target = float(line.split(":", 1)[1])
        if line.startswith(("#EXT-X-ENDLIST", "#EXT-X-PLAYLIST-TYPE", "#EXT-X-MEDIA-SEQUENCE")):
            continue
        if line.startswith("#EXTINF") or (pending and line.startswith("#")):
            pending.append(line)
        elif line and not line.startswith("#"):
            segments.append((pending, line))
            pending = []
        elif not segments and not pending:
            head.append(line)
    if not segments:
        return text
    newest = LIVE_WINDOW - 1 + int(elapsed // target)
    first = newest - LIVE_WINDOW + 1
    out = head + ["#EXT-X-MEDIA-SEQUENCE:%d" % first, "#EXT-X-DISCONTINUITY-SEQUENCE:%d" % (first // len(segments))]
    for n in range(first, newest + 1):
        tags, uri = segments[n % len(segments)]
        if n % len(segments) == 0 and n != first:
            out.append("#EXT-X-DISCONTINUITY")
        out += tags + ["%s?n=%d" % (uri, n)]
    return "\n".join(out) + "\n"


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def log_message(self, fmt, *args):  # on standard error with --verbose only
        if self.server.verbose:
            sys.stderr.write("%.3f %s\n" % (time.monotonic(), fmt % args))

    def do_HEAD(self):
        self.serve(body=False)

    def do_GET(self):
        self.serve(body=True)

    def serve(self, body):
        self.server.note_request()
        path = urllib.parse.unquote(urllib.parse.urlsplit(self.path).path)
        parts = [p for p in path.split("/") if p]
        rate, live = self.server.rate, False
        if parts[:1] == ["404"]:
            return self.fail(404)
        if parts[:1] == ["slow"] and len(parts) > 2 and parts[1].isdigit():
            rate, parts = int(parts[1]), parts[2:]
        elif parts[:1] == ["stall"] and len(parts) > 3:
            try:
                after, length = int(parts[1]), float(parts[2])
            except ValueError:
                return self.fail(400)
            parts = parts[3:]
            if not parts[-1].endswith((".mpd", ".m3u8")):
                self.server.stall(after, min(length, 60.0))
        elif parts[:1] == ["flaky"]:
            parts = parts[1:]
            if not parts or not parts[-1].endswith((".mpd", ".m3u8")):
                return self.fail(404)
        elif parts[:1] == ["live"]:
            live, parts = True, parts[1:]
        if any(p in ("..", ".") for p in parts):
            return self.fail(403)
        file = os.path.join(self.server.root, *parts)
        ctype = TYPES.get(os.path.splitext(file)[1], "application/octet-stream")
        if live and file.endswith(".m4s") and not os.path.isfile(file):  # past the pre-made ones
            data = live_dash.segment_beside_manifest(file)
            if data is None:
                return self.fail(404)
            return self.send(200, ctype, len(data), lambda: [data], body, rate, {})
        if not os.path.isfile(file):
            return self.fail(404)
        if live and file.endswith((".m3u8", ".mpd")):
            with open(file, encoding="utf-8") as f:
                text = f.read()
            if file.endswith(".m3u8"):
                text = live_playlist(text, self.server.live_elapsed())
            else:
                text = live_dash.manifest(text, self.server.live_wall_start(), LIVE_WINDOW * 2.0)
            data = text.encode()
            return self.send(200, ctype, len(data), lambda: [data], body, rate, {"Cache-Control": "no-cache"})
        size = os.path.getsize(file)
        start, end, status, extra = 0, size - 1, 200, {"Accept-Ranges": "bytes"}
        match = re.fullmatch(r"bytes=(\d*)-(\d*)", self.headers.get("Range", "").strip())
        if match and (match.group(1) or match.group(2)):
            if match.group(1):
                start = int(match.group(1))
                end = min(int(match.group(2)), size - 1) if match.group(2) else size - 1
            else:
                start = max(size - int(match.group(2)), 0)
            if start > end or start >= size:
                return self.fail(416, {"Content-Range": "bytes */%d" % size})
            status = 206
            extra["Content-Range"] = "bytes %d-%d/%d" % (start, end, size)

        def chunks():
            with open(file, "rb") as f:
                f.seek(start)
                left = end - start + 1
                while left > 0:
                    block = f.read(min(left, 65536))
                    if not block:
                        return
                    left -= len(block)
                    yield block

        self.send(status, ctype, end - start + 1, chunks, body, rate, extra)

    def fail(self, status, extra=None):
        data = ("%d\n" % status).encode()
        self.send(status, "text/plain", len(data), lambda: [data], True, None, extra or {})

    def send(self, status, ctype, length, chunks, body, rate, extra):
        try:
            self.send_response(status)
            self.send_header("Content-Type", ctype)
            self.send_header("Content-Length", str(length))
            for k, v in extra.items():
                self.send_header(k, v)
            self.end_headers()
            if not body:
                return
            started, sent = time.monotonic(), 0
            for block in chunks():
                step = len(block) if rate is None else max(rate // 20, 1)
                for i in range(0, len(block), step):
                    piece = block[i:i + step]
                    self.wfile.write(piece)
                    sent += len(piece)
                    if rate is not None:  # ahead of the rate: wait until it catches up
                        ahead = sent / rate - (time.monotonic() - started)
                        if ahead > 0:
                            time.sleep(ahead)
        except (BrokenPipeError, ConnectionResetError):
            self.close_connection = True


def main():
    parser = argparse.ArgumentParser(description="Test media server on 127.0.0.1")
    parser.add_argument("root")
    parser.add_argument("--port", type=int, default=0)
    parser.add_argument("--rate", type=int, default=None)
    parser.add_argument("--die-after", type=float, default=None)
    parser.add_argument("--verbose", action="store_true")
    args = parser.parse_args()
    if not os.path.isdir(args.root):
        parser.error("no directory %s" % args.root)
    if args.rate is not None and args.rate <= 0:
        parser.error("--rate must be above 0")
    server = Server(args.root, args.port, args.rate, args.die_after, args.verbose)
    print("media_server: http://127.0.0.1:%d/" % server.server_address[1], flush=True)
    try:
        server.serve_forever(poll_interval=0.1)
    except KeyboardInterrupt:
        pass
    return 0


if __name__ == "__main__":
    sys.exit(main())
