#!/bin/sh
# Installs a build tree into a temporary prefix, then builds and runs a small
# consumer program against the installed library twice: found with
# find_package(pavo_media_backend) and found with pkg-config.
#
# Usage: check_install.sh <build-dir> <consumer-source-dir> <work-dir>
#                         <toolchain-file | ""> <sanitizers | ""> [<emulator command>...]
set -eu
build=$1 consumer=$2 work=$3 toolchain=${4:-} sanitize=${5:-}
shift 5

rm -rf "$work"
prefix=$work/prefix
cmake --install "$build" --prefix "$prefix" >/dev/null

run_consumer() {
  mode=$1
  shift
  dir=$work/consumer-$mode
  cmake -S "$consumer" -B "$dir" -DCMAKE_BUILD_TYPE=Release \
    ${toolchain:+-DCMAKE_TOOLCHAIN_FILE="$toolchain"} \
    ${sanitize:+-DPAVO_SANITIZE="$sanitize"} "$@" >"$dir.log" 2>&1 || { cat "$dir.log"; exit 1; }
  cmake --build "$dir" >>"$dir.log" 2>&1 || { cat "$dir.log"; exit 1; }
  echo "== consumer built with $mode"
}

# find_package
run_consumer find_package -DCMAKE_PREFIX_PATH="$prefix"
"$@" "$work/consumer-find_package/consumer"

# pkg-config (the file lives in <libdir>/pkgconfig of the prefix)
pcdir=$(dirname "$(find "$prefix" -name pavo_media_backend.pc | head -n 1)")
PKG_CONFIG_PATH=$pcdir PKG_CONFIG_LIBDIR=$pcdir export PKG_CONFIG_PATH PKG_CONFIG_LIBDIR
run_consumer pkg_config -DUSE_PKG_CONFIG=ON
"$@" "$work/consumer-pkg_config/consumer"
