#!/usr/bin/env bash
# Runs every benchmark of a Release build. Each prints its table, then a summary: the medians
# of kestrix1 and of its peers over the repetitions, their ratios, and the time of a plane
# copy in the same process, which tells a slow or busy machine from a slow filter. README's table
# of figures comes from one run of this script on an otherwise idle machine.
#
#   scripts/run-benchmarks.sh [BUILD_DIR] [REPETITIONS]     defaults: build, 5
#
# The weighted least squares benchmark runs once whatever REPETITIONS says: its plain solve
# at 4 megapixels alone takes about a minute.
set -euo pipefail

build=${1:-build}
repetitions=${2:-5}
if ! ls "$build"/bench/*_bench > /dev/null 2>&1; then
  echo "no benchmarks in $build/bench: build the project first (scripts/test.sh)" >&2
  exit 1
fi

echo "kestrix1 benchmarks, $(date -u '+%Y-%m-%d %H:%M UTC'), $(nproc) cores:" \
     "$(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ //')"
for bench in "$build"/bench/*_bench; do
  reps=$repetitions
  [ "$(basename "$bench")" = t_wls_filter_bench ] && reps=1
  echo
  echo "== $(basename "$bench") (repetitions: $reps)"
  "$bench" --benchmark_repetitions="$reps" --benchmark_report_aggregates_only=true \
    --benchmark_color=false 2> /dev/null
done
