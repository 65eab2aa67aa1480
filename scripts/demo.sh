#!/usr/bin/env bash
# The library's main job on a fresh Debian machine, in one command: installs the packages that
# are missing, builds the library and the kestrix program (Release, without tests and
# benchmarks), and runs `kestrix detail` on the bundled photograph, which writes detail.png in
# the current folder. Arguments are handed to `kestrix detail`, e.g.
#   ./scripts/demo.sh --preset strong -o strong.png
#   ./scripts/demo.sh my-photo.tif -o my-photo-detail.tif
# The build goes to build-demo/ in the repository (or to $KESTRIX_BUILD_DIR).
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=${KESTRIX_BUILD_DIR:-$root/build-demo}

"$root/scripts/install-deps.sh"

cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release \
      -DKESTRIX1_BUILD_TESTS=OFF -DKESTRIX1_BUILD_BENCH=OFF >/dev/null
cmake --build "$build" -j"$(nproc)" --target kestrix

"$build/cli/kestrix" detail "$@"

# Say where the result went: the -o argument if there was one, else the default name.
out=""
prev=""
for arg in "$@"; do
  case "$prev" in -o|--output) out=$arg ;; esac
  case "$arg" in --output=*) out=${arg#--output=} ;; esac
  prev=$arg
done
if [ -z "$out" ]; then
  out="detail.png (or .tif, .jpg after the input's format)"
  [ $# -eq 0 ] && out="detail.png"
fi
echo "demo: wrote $out in $(pwd); the program is $build/cli/kestrix"
