#!/usr/bin/env bash
# Whole convert-only runs of PTX scans with panoramas: one file of 20 million points (two scans) on one
# thread, then two such files of half the size on two threads, with wall time, points per second and the peak
# memory of the process (each worker holds one 320 MiB panorama grid). The time of the panorama exports alone
# comes from bench_scanview. Usage: bench/ptx_run.sh [BUILD_DIR] (POINTS=n changes the size)
set -euo pipefail
build=${1:-build}
points=${POINTS:-20000000}
pcprep="$build/tools/pcprep"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

"$pcprep" sample "$work/one" --parts ptx --ptx-points "$points" > /dev/null
"$pcprep" sample "$work/a" --parts ptx --ptx-points $((points / 2)) > /dev/null
"$pcprep" sample "$work/b" --parts ptx --ptx-points $((points / 2)) > /dev/null
mv "$work/b/ptx/room-scans.ptx" "$work/a/ptx/room-scans-b.ptx"

time_run() {
  local label=$1 threads=$2
  shift 2
  rm -rf "$work/cache"
  /usr/bin/time -f '%e %M' -o "$work/time" "$pcprep" run --cache "$work/cache" --convert-only \
    --threads "$threads" "$@" > /dev/null 2>&1
  read -r seconds kilobytes < "$work/time"
  local converted
  converted=$("$pcprep" info "$work/cache" | awk '/Point folder/ { print $8 }')
  local pictures
  pictures=$(find "$work/cache/Bubbles" -name '*.png' | wc -l)
  awk -v l="$label" -v t="$threads" -v s="$seconds" -v k="$kilobytes" -v n="$converted" -v p="$pictures" \
    'BEGIN { printf "%-12s %-8d %-10d %-8.2f %-12.0f %-8.0f %d\n", l, t, n, s, n / s, k / 1024, p }'
}

printf 'input        threads  points     seconds  points/s     peak MB  pictures\n'
time_run "1 file" 1 "$work/one/ptx/room-scans.ptx"
time_run "2 files" 2 "$work"/a/ptx/*.ptx

printf '\npanorama resize and exports alone (full grid):\n'
"$build/bench/bench_scanview" --benchmark_filter='Export|Resize' --benchmark_counters_tabular=true 2>/dev/null |
  grep -E '^(Benchmark|BM_)' || echo "  (bench_scanview not built)"
