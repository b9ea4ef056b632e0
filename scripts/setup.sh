#!/usr/bin/env bash
# Installs every Debian package that building, testing, benchmarking and fuzzing need.
# Idempotent: packages already present are left alone. Runs as root or through sudo.
#
# Usage: scripts/setup.sh [--no-arm]
#   --no-arm  skip the 32-bit Arm cross tool chain and qemu (x86-64 work only)
set -euo pipefail

with_arm=1
for arg in "$@"; do
  case "$arg" in
    --no-arm) with_arm=0 ;;
    -h|--help) sed -n '2,7p' "$0"; exit 0 ;;
    *) echo "setup.sh: unknown argument '$arg'" >&2; exit 2 ;;
  esac
done

sudo_cmd=()
if [ "$(id -u)" -ne 0 ]; then sudo_cmd=(sudo); fi
apt_get() { "${sudo_cmd[@]}" env DEBIAN_FRONTEND=noninteractive apt-get "$@"; }

host_pkgs=(cmake make g++ pkg-config libjsoncpp-dev libgtest-dev libgmock-dev libbenchmark-dev
           clang libclang-rt-dev util-linux iproute2)
# The GStreamer engine of pavo-media-service and its generated test media (VP8 and Vorbis
# in Matroska: encoders and decoders of plugins-base and plugins-good). Broadband streams:
# HTTP and the DASH/HLS demuxers are in plugins-good, H.264 parsing in plugins-bad, H.264
# and AAC decoding in libav, further formats in plugins-ugly; ffmpeg makes the DASH, HLS
# and MP4 test streams. The HTTP source uses libsoup 3, or 2.4 when that one is in the
# process first: both are installed so that the tests see both libraries' network errors.
host_pkgs+=(libgstreamer1.0-dev libgstreamer-plugins-base1.0-dev gstreamer1.0-plugins-base
            gstreamer1.0-plugins-good gstreamer1.0-plugins-bad gstreamer1.0-plugins-ugly
            gstreamer1.0-libav gstreamer1.0-tools ffmpeg libsoup-3.0-0 libsoup2.4-1)
# pavo-hbbtv-browser and its tests: Chromium's headless shell (about 300 MB installed), and
# Python for the tests' page server and the test media server (standard library only).
host_pkgs+=(chromium-headless-shell python3)
arm_pkgs=(g++-arm-linux-gnueabihf qemu-user libjsoncpp-dev:armhf libgtest-dev:armhf libgmock-dev:armhf)

missing() {
  local p out=()
  for p in "$@"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || out+=("$p")
  done
  printf '%s\n' "${out[@]}"
}

if [ "$with_arm" = 1 ] && ! dpkg --print-foreign-architectures | grep -qx armhf; then
  "${sudo_cmd[@]}" dpkg --add-architecture armhf
  need_update=1
fi

wanted=("${host_pkgs[@]}")
[ "$with_arm" = 1 ] && wanted+=("${arm_pkgs[@]}")
mapfile -t todo < <(missing "${wanted[@]}")
if [ "${#todo[@]}" -gt 0 ] && [ "${todo[0]}" != "" ] || [ "${need_update:-0}" = 1 ]; then
  # A partly failed index (one mirror unreachable) is not fatal: the install below tells
  # whether what we need could be found.
  apt_get update || echo "setup.sh: apt-get update reported errors; trying the installs anyway" >&2
  mapfile -t todo < <(missing "${wanted[@]}")
  if [ "${#todo[@]}" -gt 0 ] && [ -n "${todo[0]}" ]; then
    apt_get install -y --no-install-recommends "${todo[@]}"
  fi
fi
echo "setup.sh: all build and test packages present"
