#!/usr/bin/env bash
# check_install.sh BUILD_DIR SOURCE_DIR [CC [LDFLAGS [CMAKE-ARGS...]]]:
# installs the build tree into a fresh prefix and builds a small consumer
# against it with pkg-config and with find_package(kZOLUser); both must run a
# file outside the user areas (1) and refuse a missing one (0). A cross build
# passes its compiler, its linker flags and its toolchain file.
set -euo pipefail
build=$1 source=$2 cc=${3:-cc} ldflags=${4:-}
shift 2; shift $(($# < 2 ? $# : 2))
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$build" --prefix "$work/prefix" >/dev/null
libdir=$(dirname "$(find "$work/prefix" -name 'libkZOLUser.so' | head -1)")
check() {
  [[ "$(LD_LIBRARY_PATH=$libdir "$1" /etc/passwd 2>/dev/null)" == 1 ]] || { echo "$1: outside file not allowed"; exit 1; }
  [[ "$(LD_LIBRARY_PATH=$libdir "$1" "$work/missing" 2>/dev/null)" == 0 ]] || { echo "$1: missing file not refused"; exit 1; }
}
export PKG_CONFIG_PATH=$libdir/pkgconfig
[[ "$(pkg-config --modversion kzol)" == "$(sed -n 's/^project(kZOLUser VERSION \([0-9.]*\).*/\1/p' "$source/CMakeLists.txt")" ]]
# shellcheck disable=SC2086
"$cc" -o "$work/consumer-pc" "$source/tests/consumer/consumer.c" $(pkg-config --cflags --libs kzol) \
  -Wl,-rpath-link,"$libdir" $ldflags
check "$work/consumer-pc"
config=$(dirname "$(find "$work/prefix" -name kZOLUserConfig.cmake | head -1)")
cmake -S "$source/tests/consumer" -B "$work/cmake-build" -G Ninja -DkZOLUser_DIR="$config" "$@" >/dev/null
cmake --build "$work/cmake-build" >/dev/null
check "$work/cmake-build/consumer"
