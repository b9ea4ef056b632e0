#!/usr/bin/env bash
# The demo: sets up the machine, builds pavo-media-service (the media-player
# service), pavo-avctl (a command-line stand-in for the HbbTV plug-in) and
# pavo-hbbtv-browser (the plug-in's role for Chromium),
# starts the service and runs the scripted session
# tools/pavo-avctl/demo.session against it, printing the timeline of what
# the plug-in receives. Then, where the service has its GStreamer engine, a
# second service run plays a generated DASH stream (scripts/make_broadband_media.sh)
# from the test media server (scripts/media_server.py, on 127.0.0.1) through
# tools/pavo-avctl/real-media.session. Last, an HbbTV page in headless
# Chromium (see run_browser_step). Exits 0 when every step succeeded.
#
# The service's own log (every request, reply and event) goes to
# build/demo/media-service.log, the A/V control layer's platform log to
# build/demo/media-log.txt.
#
# Usage: scripts/demo.sh [--no-setup]    (--no-setup: skip scripts/setup.sh)
set -euo pipefail
cd "$(dirname "$0")/.."

build=build/demo
time_scale=5  # the media clock runs five times faster: the session takes seconds

# Waits up to 10 s for process PID to write a line matching the extended
# regular expression RE into FILE; fails (1) when it ends or the time runs out.
# Usage: wait_for_line PID FILE RE
wait_for_line() {
  local pid=$1 file=$2 re=$3 waited=0
  until grep -qE "$re" "$file"; do
    if ! kill -0 "$pid" 2>/dev/null || ((waited >= 100)); then return 1; fi
    sleep 0.1
    waited=$((waited + 1))
  done
}

# Starts pavo-media-service with SERVICE_OPTION... (and --verbose), its output in
# SERVICE_LOG, and waits until it is ready; sets `service` to its process id.
# Usage: start_service SERVICE_LOG SERVICE_OPTION...
start_service() {
  local log=$1
  shift
  "$build/tools/pavo-media-service" "$@" --verbose >"$log" 2>&1 &
  service=$!
  if ! wait_for_line "$service" "$log" '^pavo-media-service: ready$'; then
    echo "demo: pavo-media-service did not start:" >&2
    cat "$log" >&2
    kill -TERM "$service" 2>/dev/null || true
    return 1
  fi
}

# Runs one session against a service started with the given options.
# Usage: run_session SESSION SERVICE_LOG SERVICE_OPTION...
run_session() {
  local session=$1 service_log=$2
  shift 2
  local service
  start_service "$service_log" "$@" || exit 1
  echo "demo: pavo-media-service ready ($*, process $service)"
  local status=0
  "$build/tools/pavo-avctl" --progress 500 --media-log "$build/media-log.txt" \
    session "$session" || status=$?
  kill -TERM "$service"
  wait "$service" || echo "demo: pavo-media-service ended with status $?" >&2
  tail -n 1 "$service_log"
  echo "demo: the service's log: $service_log; the A/V control layer's log: $build/media-log.txt"
  return "$status"
}

# The browser step: the demo's HbbTV-style page (tools/pavo-hbbtv-browser/demo/menu.html) in
# headless Chromium through pavo-hbbtv-browser, driven by remote-control keys (play, seek
# +10 s, the next audio language, pause), its timeline printed and a screenshot written to
# build/demo/hbbtv-demo.png. Against the GStreamer engine playing a 30-second test file, its
# frames painted into the page's video box, where the build has the engine; else against the
# model engine's catalogue (an empty box).
# Usage: run_browser_step MEDIA SERVICE_OPTION...
run_browser_step() {
  local media=$1
  shift
  if [[ ! -x /usr/lib/chromium/chromium-headless-shell ]]; then
    echo "demo: no browser step: chromium-headless-shell is not installed (scripts/setup.sh installs it)"
    return 0
  fi
  local service_log="$build/media-service-browser.log" frames="$build/frames"
  mkdir -p "$frames"
  local service
  PAVO_FRAME_PREVIEW_DIR="$frames" start_service "$service_log" "$@" || return 1
  echo "demo: the browser step: an HbbTV page in headless Chromium, keys ENTER (play), DOWN DOWN ENTER" \
    "(seek +10 s), DOWN ENTER (audio language), UP UP ENTER (pause)"
  local status=0
  "$build/tools/pavo-hbbtv-browser" --keys ENTER,DOWN,DOWN,ENTER,DOWN,ENTER,UP,UP,ENTER \
    --key-interval 800 --for 10 --frames "$frames" --screenshot "$build/hbbtv-demo.png" \
    "file://$PWD/tools/pavo-hbbtv-browser/demo/menu.html?media=$media" \
    2>"$build/media-log-browser.txt" || status=$?
  kill -TERM "$service"
  wait "$service" || echo "demo: pavo-media-service ended with status $?" >&2
  echo "demo: the page's screenshot: $build/hbbtv-demo.png; the service's log: $service_log"
  return "$status"
}

# The model session, then the real-media one (GStreamer engine, generated
# file) where the build has the engine, then the browser step; inside a
# private IPC namespace when called with --session.
run_sessions() {
  run_session tools/pavo-avctl/demo.session "$build/media-service.log" --time-scale "$time_scale" || exit
  if ! grep -q '^PAVO_WITH_GSTREAMER_FOUND:INTERNAL=ON' "$build/CMakeCache.txt" 2>/dev/null; then
    echo "demo: no real-media step: pavo-media-service was built without GStreamer"
    run_browser_step http://media.test/vod.mp4
    exit
  fi
  # The media server on a port of the system's choice; the session gets its address.
  python3 scripts/media_server.py "$build/media/broadband" --port 0 >"$build/media-server.out" &
  local server=$!
  if ! wait_for_line "$server" "$build/media-server.out" '^media_server: '; then
    echo "demo: the media server did not start" >&2
    exit 1
  fi
  local base
  base=$(sed -n 's/^media_server: //p' "$build/media-server.out")
  sed "s|@MEDIA@|$base|" tools/pavo-avctl/real-media.session >"$build/real-media.session"
  echo "demo: real media: the GStreamer engine plays ${base}dash/manifest.mpd"
  local status=0
  run_session "$build/real-media.session" "$build/media-service-gstreamer.log" \
    --engine gstreamer --sinks fake || status=$?
  kill -TERM "$server"
  wait "$server" 2>/dev/null || true
  ((status == 0)) || exit "$status"
  run_browser_step "$PWD/$build/media/browser.mkv" --engine gstreamer --sinks fake
  exit
}

if [[ ${1:-} == --session ]]; then
  run_sessions
fi
if [[ ${1:-} != --no-setup ]]; then
  scripts/setup.sh --no-arm
fi
mkdir -p build
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DPAVO_BUILD_TESTS=OFF -DPAVO_BUILD_BENCHMARKS=OFF \
  >build/demo.configure.log 2>&1 || { cat build/demo.configure.log; exit 1; }
echo "demo: building pavo-avctl, pavo-hbbtv-browser and pavo-media-service (log: build/demo.build.log)"
cmake --build "$build" -j"$(nproc)" --target pavo-avctl pavo-hbbtv-browser pavo-media-service \
  >build/demo.build.log 2>&1 ||
  { cat build/demo.build.log; exit 1; }
if grep -q '^PAVO_WITH_GSTREAMER_FOUND:INTERNAL=ON' "$build/CMakeCache.txt"; then
  scripts/make_broadband_media.sh "$build/media/broadband" 20
  scripts/make_test_media.sh "$build/media/browser.mkv" 30
fi
# The service's queues have fixed keys: a private IPC namespace keeps the demo
# apart from anything else on the machine (and removes its queues at the end).
if unshare --ipc true 2>/dev/null; then
  exec unshare --ipc "$0" --session
fi
run_sessions
