#!/usr/bin/env bash
# Builds kestrix1 with --coverage into build-coverage/, runs the tests and prints the line and
# branch coverage of the library (kestrix1/) and the command-line program (cli/).
#
#   scripts/coverage.sh                     every test; a table per file, then the totals
#   scripts/coverage.sh --summary           the totals only
#   scripts/coverage.sh -R '^px_' kestrix1/kernels
#                                           only the CTest tests matching the expression, and
#                                           only the sources under the given paths
#
# Branches count as gcc sees them, less those that exist only because a call may throw and
# those gcc proves unreachable: what is left are the decisions the code makes.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
usage="usage: scripts/coverage.sh [--summary] [-R REGEX] [PATH...]"
detail=yes
tests=()
paths=()
while [ $# -gt 0 ]; do
  case "$1" in
    --summary) detail=no ;;
    -R) [ $# -ge 2 ] || { echo "$usage" >&2; exit 2; }; tests=(-R "$2"); shift ;;
    -*) echo "$usage" >&2; exit 2 ;;
    *) paths+=("$1") ;;
  esac
  shift
done
[ ${#paths[@]} -gt 0 ] || paths=(kestrix1 cli)

"$root/scripts/install-deps.sh"

build="$root/build-coverage"
jobs=$(nproc 2>/dev/null || echo 2)
# -O1 keeps the photograph-sized tests quick while the counts stay exact per line.
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Coverage -DKESTRIX1_BUILD_BENCH=OFF \
      -DCMAKE_CXX_FLAGS_COVERAGE="-O1 -g --coverage -fprofile-update=atomic" \
      -DCMAKE_EXE_LINKER_FLAGS_COVERAGE="--coverage" \
      -DCMAKE_SHARED_LINKER_FLAGS_COVERAGE="--coverage" >/dev/null
cmake --build "$build" -j"$jobs"

# Counts from an earlier run would add up with this one.
find "$build" -name '*.gcda' -delete
ctest --test-dir "$build" -j"$jobs" --output-on-failure "${tests[@]}"

filters=()
for p in "${paths[@]}"; do
  filters+=(--filter "$(realpath -m "$root/$p")")
done
# One pass of gcov into a tracefile; the reports below only read it.
gcovr --root "$root" --object-directory "$build" "${filters[@]}" \
      --exclude-throw-branches --exclude-unreachable-branches \
      --json "$build/coverage.json"
report=(gcovr --root "$root" --add-tracefile "$build/coverage.json")
if [ "$detail" = yes ]; then
  "${report[@]}" --sort-percentage
  "${report[@]}" --branches --sort-percentage
fi
"${report[@]}" --print-summary --output /dev/null
