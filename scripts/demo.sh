#!/usr/bin/env bash
# Sets up the machine, builds the project and runs the demo: a server and a
# client of the message-queue transport in two processes, printing what
# crossed and the round-trip times.
#
# Usage: scripts/demo.sh [demo arguments...]
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh --no-arm
mkdir -p build
cmake -S . -B build/demo -DCMAKE_BUILD_TYPE=Release -DPAVO_BUILD_TESTS=OFF -DPAVO_BUILD_BENCHMARKS=OFF \
  >build/demo.configure.log 2>&1 || { cat build/demo.configure.log; exit 1; }
cmake --build build/demo -j"$(nproc)" --target pavo-ipc-demo
exec build/demo/tools/pavo-ipc-demo "$@"
