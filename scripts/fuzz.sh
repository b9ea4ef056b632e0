#!/bin/sh
# Builds the libFuzzer targets (the media-player client's texts, the
# transport's frame reassembly) with clang, AddressSanitizer and
# UndefinedBehaviorSanitizer in build/fuzz, and runs each for its share of a
# bounded time.
#
#   scripts/fuzz.sh [seconds]     (default 60: the total for all targets)
#
# Each target starts from its seed corpus in tests/fuzz/corpus/<target>; what
# the run adds goes to build/fuzz/corpus/<target>, never into the repository. Exits non-zero on a finding
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
targets="mediaplayer_ipc ipc_reassembly"
set -- $targets
share=$((seconds / $#))
[ "$share" -gt 0 ] || share=1
for target in $targets; do
  cmake --build "$build" --target "${target}_fuzzer" -j2
done

cd "$build"
for target in $targets; do
  echo "=== ${target}_fuzzer, ${share} s"
  mkdir -p "$build/corpus/$target"
  ./tests/fuzz/"${target}_fuzzer" -max_total_time="$share" -timeout=10 \
    -rss_limit_mb=2048 -max_len=20000 -print_final_stats=1 \
    "$build/corpus/$target" "$root/tests/fuzz/corpus/$target"
done
