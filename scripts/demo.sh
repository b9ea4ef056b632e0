#!/usr/bin/env bash
# The demo: sets up the machine, builds pavo-media-service (the media-player
# service) and pavo-avctl (a command-line stand-in for the HbbTV plug-in),
# starts the service and runs the scripted session
# tools/pavo-avctl/demo.session against it, printing the timeline of what
# the plug-in receives. Exits with pavo-avctl's status (0: every step
# succeeded).
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

# Runs the session; inside a private IPC namespace when called with --session.
run_session() {
  local service_log=$build/media-service.log
  "$build/tools/pavo-media-service" --time-scale "$time_scale" --verbose >"$service_log" 2>&1 &
  local service=$!
  local waited=0
  until grep -qx 'pavo-media-service: ready' "$service_log"; do
    if ! kill -0 "$service" 2>/dev/null || ((waited >= 100)); then
      echo "demo: pavo-media-service did not start:" >&2
      cat "$service_log" >&2
      kill -TERM "$service" 2>/dev/null || true
      exit 1
    fi
    sleep 0.1
    waited=$((waited + 1))
  done
  echo "demo: pavo-media-service ready (time scale $time_scale, process $service)"
  local status=0
  "$build/tools/pavo-avctl" --progress 500 --media-log "$build/media-log.txt" \
    session tools/pavo-avctl/demo.session || status=$?
  kill -TERM "$service"
  wait "$service" || echo "demo: pavo-media-service ended with status $?" >&2
  tail -n 1 "$service_log"
  echo "demo: the service's log: $service_log; the A/V control layer's log: $build/media-log.txt"
  exit "$status"
}

if [[ ${1:-} == --session ]]; then
  run_session
fi
if [[ ${1:-} != --no-setup ]]; then
  scripts/setup.sh --no-arm
fi
mkdir -p build
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DPAVO_BUILD_TESTS=OFF -DPAVO_BUILD_BENCHMARKS=OFF \
  >build/demo.configure.log 2>&1 || { cat build/demo.configure.log; exit 1; }
echo "demo: building pavo-avctl and pavo-media-service (log: build/demo.build.log)"
cmake --build "$build" -j"$(nproc)" --target pavo-avctl pavo-media-service >build/demo.build.log 2>&1 ||
  { cat build/demo.build.log; exit 1; }
# The service's queues have fixed keys: a private IPC namespace keeps the demo
# apart from anything else on the machine (and removes its queues at the end).
if unshare --ipc true 2>/dev/null; then
  exec unshare --ipc "$0" --session
fi
run_session
