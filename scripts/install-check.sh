#!/usr/bin/env bash
# Checks that kestrix1 installs and can be used by another program, the way a packager and
# a host developer would do it:
#   1. builds the library alone (Release, no tests or benchmarks) in build-install/,
#   2. installs it into a fresh temporary prefix,
#   3. checks the shared library's SONAME links, the headers and the package files,
#   4. builds examples/host against the prefix twice, with find_package and with pkg-config,
#   5. runs both programs and requires the same single line from each.
# The temporary prefix is removed at the end; any failure exits non-zero.
# Usage: scripts/install-check.sh [build-dir]   (default: build-install in the repository)
set -euo pipefail

root="$(cd "$(dirname "$0")/.." && pwd)"
build="${1:-$root/build-install}"
jobs="$(nproc 2>/dev/null || echo 2)"

fail() {
  echo "install-check: FAILED: $*" >&2
  exit 1
}

"$root/scripts/install-deps.sh"

work="$(mktemp -d "${TMPDIR:-/tmp}/kestrix1-install.XXXXXX")"
trap 'rm -rf "$work"' EXIT
prefix="$work/prefix"

# Runs a command quietly; on failure shows its output and stops with `what`.
quiet() {
  local what="$1"
  shift
  "$@" >"$work/log" 2>&1 || {
    cat "$work/log" >&2
    fail "$what"
  }
}

echo "install-check: building the library in $build"
quiet "configuring the library" cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release \
  -DKESTRIX1_BUILD_TESTS=OFF -DKESTRIX1_BUILD_BENCH=OFF
quiet "building the library" cmake --build "$build" -j "$jobs"

echo "install-check: installing into $prefix"
quiet "installing" cmake --install "$build" --prefix "$prefix"

# ---- what was installed ----------------------------------------------------------------

real="$(find "$prefix" -name 'libkestrix1.so.1.0.0' -type f | head -n 1)"
[ -n "$real" ] || fail "libkestrix1.so.1.0.0 is not installed"
libdir="$(dirname "$real")"

[ -L "$libdir/libkestrix1.so" ] || fail "libkestrix1.so is not a symbolic link"
[ -L "$libdir/libkestrix1.so.1" ] || fail "libkestrix1.so.1 is not a symbolic link"
[ "$(readlink "$libdir/libkestrix1.so")" = "libkestrix1.so.1" ] ||
  fail "libkestrix1.so does not point to libkestrix1.so.1"
[ "$(readlink "$libdir/libkestrix1.so.1")" = "libkestrix1.so.1.0.0" ] ||
  fail "libkestrix1.so.1 does not point to libkestrix1.so.1.0.0"
soname="$(objdump -p "$real" | awk '$1 == "SONAME" { print $2 }')"
[ "$soname" = "libkestrix1.so.1" ] || fail "SONAME is '$soname', not libkestrix1.so.1"

# The internal archive is for our tests only.
archives="$(find "$prefix" -name '*.a')"
[ -z "$archives" ] || fail "a static library was installed: $archives"

for f in "$libdir/cmake/kestrix1/kestrix1Config.cmake" \
  "$libdir/cmake/kestrix1/kestrix1ConfigVersion.cmake" \
  "$libdir/cmake/kestrix1/kestrix1Targets.cmake" \
  "$libdir/pkgconfig/kestrix1.pc"; do
  [ -f "$f" ] || fail "missing $f"
done

include="$prefix/include"
for h in kestrix1/kestrix1.h kestrix1/frame/export.h kestrix1/image/tp_image.h \
  kestrix1/image/scaling.h; do
  [ -f "$include/$h" ] || fail "missing header $include/$h"
done
# Every library header that an installed header includes must be installed too.
while read -r h; do
  [ -f "$include/$h" ] || fail "installed headers include $h, which is not installed"
done < <(grep -rhoE '#include "kestrix1/[^"]+"' "$include" | sed -E 's/.*"(.*)"/\1/' | sort -u)

# The umbrella header compiles on its own from the installed tree.
export PKG_CONFIG_PATH="$libdir/pkgconfig${PKG_CONFIG_PATH:+:$PKG_CONFIG_PATH}"
pkg-config --exists --print-errors kestrix1 || fail "pkg-config does not find kestrix1"
[ "$(pkg-config --modversion kestrix1)" = "1.0.0" ] || fail "pkg-config version is not 1.0.0"
echo '#include "kestrix1/kestrix1.h"' > "$work/umbrella.cpp"
# shellcheck disable=SC2046
g++ -std=c++17 -fsyntax-only $(pkg-config --cflags kestrix1) "$work/umbrella.cpp" ||
  fail "kestrix1/kestrix1.h does not compile from $include"

# ---- a host program built both ways -----------------------------------------------------

echo "install-check: building examples/host with find_package"
quiet "configuring the host with find_package(kestrix1)" \
  cmake -S "$root/examples/host" -B "$work/host-cmake" -DCMAKE_BUILD_TYPE=Release \
  -DCMAKE_PREFIX_PATH="$prefix"
quiet "building the host with find_package" cmake --build "$work/host-cmake" -j "$jobs"

echo "install-check: building examples/host with pkg-config"
# shellcheck disable=SC2046
g++ -std=c++17 -O2 "$root/examples/host/main.cpp" $(pkg-config --cflags --libs kestrix1) \
  -o "$work/host-pkgconfig" || fail "build with pkg-config"

out_cmake="$(LD_LIBRARY_PATH="$libdir" "$work/host-cmake/kestrix1_host")" ||
  fail "the find_package build of the host did not run"
out_pc="$(LD_LIBRARY_PATH="$libdir" "$work/host-pkgconfig")" ||
  fail "the pkg-config build of the host did not run"
echo "  find_package: $out_cmake"
echo "  pkg-config:   $out_pc"
[ -n "$out_cmake" ] || fail "the host printed nothing"
[ "$out_cmake" = "$out_pc" ] || fail "the two builds of the host disagree"

# Both must have loaded the installed library, not one found elsewhere.
for exe in "$work/host-cmake/kestrix1_host" "$work/host-pkgconfig"; do
  LD_LIBRARY_PATH="$libdir" ldd "$exe" >"$work/ldd"
  grep -qF "$libdir/libkestrix1.so.1" "$work/ldd" ||
    fail "$(basename "$exe") does not load $libdir/libkestrix1.so.1"
done

# The installed program needs no file beside it: the sample photograph is built in.
echo "install-check: running the installed kestrix"
(cd "$work" && "$prefix/bin/kestrix" detail -q -o "$work/detail.png") ||
  fail "the installed kestrix detail did not run"
[ -s "$work/detail.png" ] || fail "the installed kestrix detail wrote nothing"
for line in "smooth --filter bilateral" "local --strength 0.2" \
  "color --hue red=0.1 --saturation all=0.2 --warmth 0.2" "color --space hls --lightness blue=-0.2" \
  "icc --from srgb --to prophoto"; do
  # shellcheck disable=SC2086
  (cd "$work" && "$prefix/bin/kestrix" $line -q -o "$work/out.png") ||
    fail "the installed kestrix $line did not run"
done

# A mask from the example script, over the built-in photograph (600 x 400).
(cd "$work" && "$prefix/bin/kestrix" mask -q --script "$root/examples/mask_coffee.json" \
  -o "$work/mask.png" --overlay "$work/overlay.png") || fail "the installed kestrix mask did not run"
[ -s "$work/mask.png" ] && [ -s "$work/overlay.png" ] || fail "the installed kestrix mask wrote nothing"
# The PNG header: width 600, height 400 (big-endian), depth 8, colour type 0 (grey).
header="$(od -An -tu1 -j16 -N10 "$work/mask.png" | tr -s ' ')"
[ "$header" = " 0 0 2 88 0 0 1 144 8 0" ] ||
  fail "the installed kestrix mask did not write a 600 x 400 8-bit grey PNG (header$header)"

# Colour from a reference picture, its histograms saved and taken back as the reference; the
# detail of a reference; the histogram picture (512 x 200, 8-bit RGB).
cp "$root/data/chelsea.png" "$work/ref.png"
for line in "transfer --reference $work/ref.png --mode colour --save-reference $work/ref.xml" \
  "transfer --reference $work/ref.xml --mode colour" \
  "transfer --reference $work/ref.png --mode tone" \
  "transfer --reference $work/ref.png --mode detail"; do
  # shellcheck disable=SC2086
  (cd "$work" && "$prefix/bin/kestrix" $line -q -o "$work/out.png") ||
    fail "the installed kestrix $line did not run"
done
[ -s "$work/ref.xml" ] || fail "the installed kestrix transfer saved no reference"
(cd "$work" && "$prefix/bin/kestrix" hist -q -o "$work/hist.png") ||
  fail "the installed kestrix hist did not run"
header="$(od -An -tu1 -j16 -N10 "$work/hist.png" | tr -s ' ')"
[ "$header" = " 0 0 2 0 0 0 0 200 8 2" ] ||
  fail "the installed kestrix hist did not write a 512 x 200 8-bit RGB PNG (header$header)"

echo "install-check: OK"
