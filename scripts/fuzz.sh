#!/bin/sh
# Builds the media-player client's libFuzzer target with clang, AddressSanitizer
# and UndefinedBehaviorSanitizer in build/fuzz, and runs it for a bounded time.
#
#   scripts/fuzz.sh [seconds]     (default 60)
#
# Starts from the seed corpus in tests/fuzz/corpus; what the run adds goes to
# build/fuzz/corpus, never into the repository. Exits non-zero on a finding
# (crash, leak, undefined behaviour, time-out of one input); the input that
# caused it is written to build/fuzz/ as crash-*, leak-* or timeout-*.
set -eu

seconds=${1:-60}
case $seconds in
  '' | *[!0-9]*) echo "usage: $0 [seconds]" >&2; exit 2 ;;
esac

root=$(cd "$(dirname "$0")/.." && pwd)
build=$root/build/fuzz

# Coverage instrumentation for every object.
flags="-fsanitize=fuzzer-no-link"
cmake -S "$root" -B "$build" \
  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_C_FLAGS="$flags" -DCMAKE_CXX_FLAGS="$flags" \
  -DPAVO_SANITIZE=address,undefined -DPAVO_BUILD_FUZZERS=ON \
  -DPAVO_BUILD_BENCHMARKS=OFF -DPAVO_BUILD_TOOLS=OFF
cmake --build "$build" --target mediaplayer_ipc_fuzzer -j2

mkdir -p "$build/corpus"
cd "$build"
exec ./tests/fuzz/mediaplayer_ipc_fuzzer -max_total_time="$seconds" -timeout=10 \
  -rss_limit_mb=2048 -max_len=20000 -print_final_stats=1 \
  "$build/corpus" "$root/tests/fuzz/corpus"
