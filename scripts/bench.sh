#!/usr/bin/env bash
# Runs every benchmark program of a build tree and prints its figures.
#
# Usage: scripts/bench.sh [--smoke] [<build-dir>]    (default build dir: build/plain)
#   --smoke  one short repetition each: checks that the benchmarks run, the
#            figures mean nothing
# Each program reports medians of repeated runs and its own ratios against
# the baseline measured in the same run.
set -euo pipefail
cd "$(dirname "$0")/.."
smoke=0
if [ "${1:-}" = --smoke ]; then smoke=1; shift; fi
build=${1:-build/plain}
if [ ! -d "$build/bench" ]; then
  echo "bench.sh: no benchmarks in $build (configure with -DPAVO_BUILD_BENCHMARKS=ON and build first)" >&2
  exit 1
fi
found=0
for program in "$build"/bench/*_bench; do
  [ -x "$program" ] || continue
  found=1
  echo "=== $(basename "$program")"
  if [ "$smoke" = 1 ]; then
    "$program" --benchmark_min_time=0.001 --benchmark_repetitions=1
  else
    "$program" --benchmark_repetitions=9 --benchmark_report_aggregates_only=true
  fi
done
[ "$found" = 1 ] || echo "bench.sh: no benchmark programs built yet"
