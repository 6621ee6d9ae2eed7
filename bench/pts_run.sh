#!/usr/bin/env bash
# Whole convert-only runs of one PTS file of 10 million XYZIRGB points (the built-in sample's room, one scan),
# with 1 and with 2 worker threads: wall time, points per second and the peak memory of the process. A worker
# takes one whole file, so a second thread only helps a project of several files: the same number of points
# as two scans is timed too. The bare line scan of the one file (finding the line feeds through the mapped
# window) is the floor.
# Usage: bench/pts_run.sh [BUILD_DIR] (POINTS=n changes the size)
set -euo pipefail
build=${1:-build}
points=${POINTS:-10000000}
pcprep="$build/tools/pcprep"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

"$pcprep" sample "$work/sample" --parts pts --scans 1 --points "$points" > /dev/null
file="$work/sample/pts/room-scan-1.pts"
lines=$(($(wc -l < "$file") - 1))
printf 'input: %s points, %s MB\n' "$lines" "$(($(stat -c %s "$file") / 1000000))"

printf '\nfloor (line scan of the mapped file):\n'
PCP_BENCH_PTS_FILE="$file" "$build/bench/bench_pts" --benchmark_filter=BM_LineScan \
  --benchmark_counters_tabular=true 2>/dev/null | grep -E '^(Benchmark|BM_)'

time_runs() {
  local label=$1
  shift
  for threads in 1 2; do
    rm -rf "$work/cache"
    /usr/bin/time -f '%e %M' -o "$work/time" "$pcprep" run --cache "$work/cache" --convert-only \
      --threads "$threads" "$@" > /dev/null 2>&1
    read -r seconds kilobytes < "$work/time"
    awk -v l="$label" -v t="$threads" -v s="$seconds" -v k="$kilobytes" -v n="$lines" \
      'BEGIN { printf "%-10s %-8d %-8.2f %-12.0f %.0f\n", l, t, s, n / s, k / 1024 }'
  done
}

printf '\ninput      threads  seconds  points/s     peak MB\n'
time_runs "1 file" "$file"
"$pcprep" sample "$work/two" --parts pts --scans 2 --points "$points" > /dev/null
time_runs "2 files" "$work"/two/pts/*.pts
