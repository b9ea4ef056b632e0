#!/usr/bin/env bash
# Sets up the machine, builds the project and runs the demo: the library from
# end to end, with the HbbTV plug-in's calls in one process and a simulated
# media-player service in another. The A/V control layer's platform log goes
# to build/demo/media-log.txt.
#
# Usage: scripts/demo.sh
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh --no-arm
mkdir -p build
cmake -S . -B build/demo -DCMAKE_BUILD_TYPE=Release -DPAVO_BUILD_TESTS=OFF -DPAVO_BUILD_BENCHMARKS=OFF \
  >build/demo.configure.log 2>&1 || { cat build/demo.configure.log; exit 1; }
cmake --build build/demo -j"$(nproc)" --target pavo-demo pavo-ipc-demo
# The service's queues have fixed keys: a private IPC namespace keeps the demo
# apart from anything else on the machine (and removes its queues at the end).
isolate=()
if unshare --ipc true 2>/dev/null; then isolate=(unshare --ipc); fi
"${isolate[@]}" build/demo/tools/pavo-demo 2>build/demo/media-log.txt
echo "(the A/V control layer's log lines: build/demo/media-log.txt)"
