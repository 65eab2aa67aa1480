#!/usr/bin/env bash
# Installs what is missing, builds kestrix1 and runs every test.
#
#   scripts/test.sh              Release build in build/
#   scripts/test.sh --sanitize   AddressSanitizer + UndefinedBehaviorSanitizer build in
#                                build-sanitize/, halting on the first report
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
mode=release
case "${1:-}" in
  "") ;;
  --sanitize) mode=sanitize ;;
  *) echo "usage: scripts/test.sh [--sanitize]" >&2; exit 2 ;;
esac

"$root/scripts/install-deps.sh"

jobs=$(nproc 2>/dev/null || echo 2)
if [ "$mode" = sanitize ]; then
  build="$root/build-sanitize"
  # Benchmarks are not run by the tests, so the sanitizer build leaves them out.
  cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKESTRIX1_SANITIZE=ON \
        -DKESTRIX1_BUILD_BENCH=OFF
  export ASAN_OPTIONS=halt_on_error=1:abort_on_error=1:detect_leaks=1
  export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1
else
  build="$root/build"
  cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release
fi
cmake --build "$build" -j"$jobs"
ctest --test-dir "$build" --output-on-failure -j"$jobs"
