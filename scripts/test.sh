#!/usr/bin/env bash
# Sets up the machine, then builds and runs every test leg:
#   plain   x86-64 optimised build: every test, and a short run of each benchmark
#   asan    x86-64 with AddressSanitizer and UndefinedBehaviorSanitizer: every test
#   tsan    x86-64 with ThreadSanitizer: the threaded tests (stress tests 30 s each)
#   armhf   32-bit Arm hard-float cross build: every test, under qemu-arm; the
#           mixed test runs against the plain leg's x86-64 service when that
#           leg has been configured
#   fuzz    clang libFuzzer targets for a bounded time (when present)
#
# Usage: scripts/test.sh [leg...]     (default: all legs, in the order above)
# Build trees go to build/<leg>. Exit status 0 only when every leg passed.
set -euo pipefail
cd "$(dirname "$0")/.."

all_legs=(plain asan tsan armhf fuzz)
legs=("$@")
[ ${#legs[@]} -gt 0 ] || legs=("${all_legs[@]}")

need_arm=0
for leg in "${legs[@]}"; do [ "$leg" = armhf ] && need_arm=1; done
if [ "$need_arm" = 1 ]; then scripts/setup.sh; else scripts/setup.sh --no-arm; fi

jobs=$(nproc)
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1
summary=()

# configure_and_build <leg> <cmake args>...
configure_and_build() {
  local leg=$1
  shift
  cmake -S . -B "build/$leg" "$@" >"build/$leg.configure.log" 2>&1 ||
    { cat "build/$leg.configure.log"; return 1; }
  cmake --build "build/$leg" -j"$jobs"
}

# run_ctest <leg> <ctest args>...: runs the tests, records the counts.
run_ctest() {
  local leg=$1
  shift
  local out="build/$leg.ctest.log" rc=0
  ctest --test-dir "build/$leg" --output-on-failure -j"$jobs" --timeout 900 "$@" 2>&1 | tee "$out" || rc=$?
  local programs cases
  programs=$(grep -E 'tests passed, [0-9]+ tests? failed out of' "$out" | tail -n 1)
  cases=$(grep -ao '\[  PASSED  \] [0-9]* test' "build/$leg/Testing/Temporary/LastTest.log" 2>/dev/null |
    awk '{s += $4} END {print s + 0}')
  summary+=("$leg: ${programs:-no result} (test programs); $cases test cases passed")
  # The failed ones by name, and their failed checks, where the summary shows them.
  local failed_tests
  failed_tests=$(sed -n '/The following tests FAILED:/,$p' "$out" | grep -E '^[[:space:]]+[0-9]+ - ' || true)
  if [ -n "$failed_tests" ]; then
    summary+=("$leg: failed:" "$failed_tests")
    summary+=("$(grep -a -E ': Failure$|\[  FAILED  \]|Sanitizer|runtime error|^FAIL:|Error: |^Expected|Which is|Value of' \
      "build/$leg/Testing/Temporary/LastTest.log" 2>/dev/null | head -n 40)")
  fi
  return $rc
}

failed=0
mkdir -p build
for leg in "${legs[@]}"; do
  echo "=== leg: $leg"
  case "$leg" in
    plain)
      configure_and_build plain -DCMAKE_BUILD_TYPE=Release &&
        run_ctest plain &&
        scripts/bench.sh --smoke build/plain || failed=1
      ;;
    asan)
      configure_and_build asan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DPAVO_SANITIZE=address,undefined \
        -DPAVO_BUILD_BENCHMARKS=OFF && run_ctest asan || failed=1
      ;;
    tsan)
      configure_and_build tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DPAVO_SANITIZE=thread \
        -DPAVO_BUILD_BENCHMARKS=OFF -DPAVO_STRESS_SECONDS=30 && run_ctest tsan -L threaded || failed=1
      ;;
    armhf)
      # The mixed-architecture test needs an x86-64 service: the plain leg's.
      host_service=""
      if [ -f build/plain/CMakeCache.txt ] &&
        cmake --build build/plain -j"$jobs" --target pavo-media-service >/dev/null; then
        host_service="$PWD/build/plain/tools/pavo-media-service"
      fi
      configure_and_build armhf -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/armhf.cmake -DPAVO_BUILD_BENCHMARKS=OFF \
        -DPAVO_HOST_MEDIA_SERVICE="$host_service" && run_ctest armhf || failed=1
      ;;
    fuzz)
      if [ -x scripts/fuzz.sh ]; then
        # The fuzzers' progress lines go to a log; on a finding, its end is shown.
        if scripts/fuzz.sh 60 >build/fuzz.log 2>&1; then
          summary+=("fuzz: no findings")
        else
          tail -n 60 build/fuzz.log
          failed=1
          summary+=("fuzz: FINDINGS (build/fuzz.log)")
        fi
      else
        summary+=("fuzz: no fuzz targets yet")
      fi
      ;;
    *) echo "unknown leg '$leg' (legs: ${all_legs[*]})" >&2; exit 2 ;;
  esac
done

echo
echo "=== summary"
printf '%s\n' "${summary[@]}"
exit $failed
