#!/usr/bin/env bash
# check_install.sh BUILD_DIR SOURCE_DIR: installs the build tree as the README's
# install section says and follows it as an integrator would. The consumer
# examples are taken from the README itself (the blocks after its
# "consumer:" markers), so the README cannot drift from what works.
#  - a full install: kzol --version, man kzol, both consumer builds; each
#    consumer allows a file outside the user areas (1), refuses a missing one
#    (0) and, on an emulated television, refuses an unsigned script (0);
#  - every installed header compiles on its own: one consumer translation unit
#    per header, that header alone, with the flags pkg-config gives (C headers
#    as C and as C++, the class headers as C++17);
#  - no file of the full install carries a platform library's name in <libdir>;
#  - a device-only install (component Runtime) holds the library and nothing else.
set -euo pipefail
build=$(realpath "$1") source=$(realpath "$2")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "FAIL: $*"; exit 1; }

block() {  # block NAME: the fenced block after "<!-- consumer:NAME -->" in the README
  awk -v marker="<!-- consumer:$1 -->" '
    $0 == marker { found = 1; next }
    found && /^```/ { if (inside) exit; inside = 1; next }
    inside { print }' "$source/README.md"
}

export PREFIX=$work/prefix
cmake --install "$build" --prefix "$PREFIX" >/dev/null
libdir=$(dirname "$(find "$PREFIX" -name 'libkZOLUser.so.1' | head -1)")
expected=$(sed -n 's/^project(kZOLUser VERSION \([0-9.]*\).*/\1/p' "$source/CMakeLists.txt")

[[ "$("$PREFIX/bin/kzol" --version)" == "kzol $expected" ]] || fail "kzol --version: $("$PREFIX/bin/kzol" --version)"
page=$PREFIX/share/man/man1/kzol.1
for command in keygen sign check exec emulate; do
  grep -q "^\.SS kzol $command\$" "$page" || fail "the man page does not describe kzol $command"
done
# man itself, where the machine has it, finds the page through MANPATH.
if command -v man >/dev/null; then
  [[ "$(MANPATH=$PREFIX/share/man man -w kzol)" == "$page" ]] || fail "man kzol does not find $page"
fi

platform_names='libdlog\.so|libvconf\.so|libusb_device\.so'
if find "$libdir" -maxdepth 1 | grep -E "$platform_names"; then fail "platform library names in $libdir"; fi

mkdir "$work/tv-files"
"$PREFIX/bin/kzol" profile init "$work/tv" --tv --duid TV-0001 --usb stick >/dev/null
unsigned=$(mktemp /tmp/kzol-install-XXXXXX.sh)
trap 'rm -rf "$work" "$unsigned"' EXIT
check() {  # check NAME RUN...: the consumer's answers on three files
  local name=$1; shift
  [[ "$("$@" /etc/passwd 2>/dev/null)" == 1 ]] || fail "$name: a file outside the user areas is not allowed"
  [[ "$("$@" "$work/missing" 2>/dev/null)" == 0 ]] || fail "$name: a missing file is not refused"
  [[ "$("$PREFIX/bin/kzol" emulate "$work/tv" -- "$@" "$unsigned" 2>/dev/null)" == 0 ]] \
    || fail "$name: an unsigned script is not refused on a television"
}

mkdir "$work/pc" "$work/cm"
cp "$source/tests/consumer/consumer.c" "$work/pc/app.c"
cp "$source/tests/consumer/consumer.c" "$work/cm/app.c"
block pkg-config > "$work/pc/build.sh"
[[ -s "$work/pc/build.sh" ]] || fail "no pkg-config example in the README"
(cd "$work/pc" && bash -e build.sh >/dev/null) || fail "the README's pkg-config example does not build"
pkgconfig() { PKG_CONFIG_PATH=$libdir/pkgconfig pkg-config "$@" kzol; }
[[ "$(pkgconfig --modversion)" == "$expected" ]] || fail "kzol.pc version"

includedir=$(pkgconfig --variable=includedir)
mapfile -t headers < <(cd "$includedir" && find . -name '*.h' | sed 's|^\./||' | sort)
[[ ${#headers[@]} -gt 2 ]] || fail "no headers under $includedir"
mkdir "$work/headers"
broken=()
for header in "${headers[@]}"; do
  unit=$work/headers/${header//\//_}
  printf '#include <%s>\n' "$header" > "$unit.cpp"
  # shellcheck disable=SC2046  # the flags are words
  compiled=$("${CXX:-c++}" -std=c++17 -Wall -Wextra -Werror $(pkgconfig --cflags) -c "$unit.cpp" -o "$unit.o" 2>&1) \
    || broken+=("$header (C++): $compiled")
  if [[ $header != internal/* ]]; then
    cp "$unit.cpp" "$unit.c"
    # shellcheck disable=SC2046
    compiled=$("${CC:-cc}" -std=c99 -Wall -Wextra -Werror $(pkgconfig --cflags) -c "$unit.c" -o "$unit.c.o" 2>&1) \
      || broken+=("$header (C): $compiled")
  fi
done
[[ ${#broken[@]} -eq 0 ]] || fail "installed headers that do not compile on their own:$(printf '\n  %s' "${broken[@]}")"

{ printf 'cmake_minimum_required(VERSION 3.25)\nproject(app C)\n'; block cmake; } > "$work/cm/CMakeLists.txt"
[[ $(wc -l < "$work/cm/CMakeLists.txt") -gt 2 ]] || fail "no CMake example in the README"
block cmake-build > "$work/cm/build.sh"
(cd "$work/cm" && bash -e build.sh >/dev/null) || fail "the README's CMake example does not build"

block run-time > "$work/run.sh"
grep -q '\./app ' "$work/run.sh" || fail "no run-time example in the README"
sed -i 's|\./app [^ ]*|"$APP" "$1"|' "$work/run.sh"  # the same line, for each consumer and file
check pkg-config env APP="$work/pc/app" bash -e "$work/run.sh"
check cmake env APP="$work/cm/build/app" bash -e "$work/run.sh"

device=$work/device
cmake --install "$build" --prefix "$device" --component Runtime >/dev/null
found=$(cd "$device" && find . -type f -o -type l | sort)
if grep -E "$platform_names|kzol|include|pkgconfig|cmake" <<<"$found"; then fail "the device install holds more than the library"; fi
grep -q 'libkZOLUser\.so\.1$' <<<"$found" || fail "the device install lacks libkZOLUser.so.1: $found"
echo "install: full and device-only installs as documented; ${#headers[@]} headers compile on their own"
