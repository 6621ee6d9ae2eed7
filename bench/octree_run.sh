#!/usr/bin/env bash
# Whole runs on an airborne LAS tile of 20 million points (the sample's outdoor tile: terrain, buildings,
# trees, two returns where the pulses pass through crowns): the full run that builds the octree on one and
# on two threads, and beside it the conversion alone (--convert-only), with wall time, CPU time (user +
# system: the figure to compare on a busy machine), points per second and the peak memory of the process.
# The difference between the octree and the conversion is the tree building. Then, with the deflate_floor
# tool, what libdeflate at level 7 alone costs over all nodes of the cache; and last the run on a tile of
# 100 million points (LARGE_POINTS=0 leaves it out: it needs some 7 GB of disk).
#
# The reference to beat: the best-known open LAS-to-LOD-octree converter needs about 17 s for such a file on
# 2 cores (about 1.2 M points/s) with a peak of 620 MB.
#
# Usage: bench/octree_run.sh [BUILD_DIR] (POINTS=n changes the size, LARGE_POINTS=n the large tile's)
set -euo pipefail
build=${1:-build}
points=${POINTS:-20000000}
large_points=${LARGE_POINTS:-100000000}
pcprep="$build/tools/pcprep"
floor="$build/bench/deflate_floor"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# Writes the sample tile of $1 points; sets tile.
make_tile() {
  rm -rf "$work/sample"
  /usr/bin/time -f '%e %M' -o "$work/time" "$pcprep" sample "$work/sample" --parts terrain \
    --terrain-points "$1" > /dev/null
  read -r seconds kilobytes < "$work/time"
  tile="$work/sample/las/terrain-tile.las"
  printf 'input: %s points, %s MB of LAS (written in %.1f s, peak %.0f MB); load %s\n\n' "$1" \
    "$(($(stat -c %s "$tile") / 1000000))" "$seconds" "$(awk -v k="$kilobytes" 'BEGIN { print k / 1024 }')" \
    "$(cut -d' ' -f1-3 /proc/loadavg)"
}

make_tile "$points"

# Runs pcprep run on the given threads with the given options on the tile; prints one line, or why there is
# none. The cache stays until the next run.
time_run() {
  local label=$1
  local threads=$2
  shift 2
  rm -rf "$work/cache"
  : > "$work/tree"
  local status=0
  /usr/bin/time -f '%e %U %S %M' -o "$work/time" "$pcprep" run --cache "$work/cache" --threads "$threads" "$@" \
    "$tile" > "$work/out" 2> "$work/err" || status=$?
  if [ "$status" -ne 0 ]; then
    if grep -q 'not available' "$work/err"; then
      printf '%-14s %-8d not available in this build: the library has no tree builder yet\n' "$label" "$threads"
    else
      printf '%-14s %-8d FAILED (exit status %d):\n' "$label" "$threads" "$status"
      sed 's/^/    /' "$work/err"
    fi
    return 0
  fi
  read -r seconds user system kilobytes < "$work/time"
  # The summary counts the points of the scan files, which a full run consumes: then the input's count.
  local converted cache_mb
  converted=$(awk '$1 == "points" { print $2; exit }' "$work/out")
  cache_mb=$(du -sm "$work/cache" | cut -f1)
  awk -v l="$label" -v t="$threads" -v s="$seconds" -v u="$user" -v y="$system" -v k="$kilobytes" \
    -v n="${converted:-$points}" -v c="$cache_mb" \
    'BEGIN { printf "%-14s %-8d %-10d %-8.2f %-8.2f %-12.0f %-8.0f %d\n", l, t, n, s, u + y, n / s, k / 1024, c }'
  "$pcprep" info "$work/cache" | awk '$1 == "Tree" { tree = $0 } END { if (tree != "") print tree }' \
    > "$work/tree" || true
}

header() { printf 'run            threads  points     seconds  CPU s    points/s     peak MB  cache MB\n'; }
header
time_run "convert only" 2 --convert-only
time_run "octree" 1
time_run "octree" 2
printf 'reference      2        %-10d 17.00             1200000      620      (best-known open LAS-to-octree converter)\n' \
  20000000
[ -s "$work/tree" ] && printf '\nthe octree: %s\n' "$(sed 's/^Tree *//' "$work/tree")"
if [ -x "$floor" ] && [ -d "$work/cache/Data" ]; then
  printf '\n'
  "$floor" "$work/cache"
fi

if [ "$large_points" -gt 0 ]; then
  printf '\n'
  rm -rf "$work/cache"
  points=$large_points
  make_tile "$points"
  header
  time_run "octree" 2
fi
exit 0
