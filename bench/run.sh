#!/usr/bin/env bash
# run.sh BUILD_DIR [ROAD_OPTION...]: every benchmark that is built there, each for a short time, and the road last. All
# results go to standard output. The options are those of bench_road, such as `-d DIRECTORY` for another file system.
set -euo pipefail
if [ $# -lt 1 ] || [ ! -d "$1/bench" ]; then
  echo "usage: run.sh BUILD_DIR [ROAD_OPTION...], where BUILD_DIR holds bench/" >&2
  exit 64
fi
build=$1
shift

found=0
for program in "$build"/bench/bench_*; do
  [ -f "$program" ] && [ -x "$program" ] || continue
  found=1
  case $program in */bench_road) continue ;; esac
  printf '\n== %s\n' "${program##*/}"
  "$program" --benchmark_min_time=0.05 --benchmark_color=false 2>&1
done
if [ $found -eq 0 ]; then
  echo "run.sh: no benchmarks in $build/bench: configure with -DBRENTHAVEN_BENCH=ON" >&2
  exit 66
fi

if [ -x "$build/bench/bench_road" ]; then
  printf '\n== bench_road\n'
  "$build/bench/bench_road" "$@"
fi
