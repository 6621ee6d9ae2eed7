#!/usr/bin/env bash
# Whole runs on an airborne LAS tile of 20 million points (the sample's outdoor tile: terrain, buildings,
# trees, two returns where the pulses pass through crowns): the full run that builds the octree, and beside
# it the conversion alone (--convert-only), both on two threads, with wall time, points per second and the
# peak memory of the process. The difference between the two lines is the tree building.
#
# The reference to beat: the best-known open LAS-to-LOD-octree converter needs about 17 s for such a file on
# 2 cores (about 1.2 M points/s) with a peak of 620 MB.
#
# Usage: bench/octree_run.sh [BUILD_DIR] (POINTS=n changes the size)
set -euo pipefail
build=${1:-build}
points=${POINTS:-20000000}
threads=2
pcprep="$build/tools/pcprep"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

/usr/bin/time -f '%e %M' -o "$work/time" "$pcprep" sample "$work/sample" --parts terrain \
  --terrain-points "$points" > /dev/null
read -r seconds kilobytes < "$work/time"
tile="$work/sample/las/terrain-tile.las"
printf 'input: %s points, %s MB of LAS (written in %.1f s, peak %.0f MB)\n\n' "$points" \
  "$(($(stat -c %s "$tile") / 1000000))" "$seconds" "$(awk -v k="$kilobytes" 'BEGIN { print k / 1024 }')"

# Runs pcprep run with the given options on the tile; prints one line, or why there is none.
time_run() {
  local label=$1
  shift
  rm -rf "$work/cache"
  : > "$work/tree"
  local status=0
  /usr/bin/time -f '%e %M' -o "$work/time" "$pcprep" run --cache "$work/cache" --threads "$threads" "$@" \
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
  read -r seconds kilobytes < "$work/time"
  # The summary counts the points of the scan files, which a full run consumes: then the input's count.
  local converted cache_mb
  converted=$(awk '$1 == "points" { print $2; exit }' "$work/out")
  cache_mb=$(du -sm "$work/cache" | cut -f1)
  awk -v l="$label" -v t="$threads" -v s="$seconds" -v k="$kilobytes" -v n="${converted:-$points}" \
    -v c="$cache_mb" 'BEGIN { printf "%-14s %-8d %-10d %-8.2f %-12.0f %-8.0f %d\n", l, t, n, s, n / s, k / 1024, c }'
  "$pcprep" info "$work/cache" | awk '$1 == "Tree" { tree = $0 } END { if (tree != "") print tree }' \
    > "$work/tree" || true
}

printf 'run            threads  points     seconds  points/s     peak MB  cache MB\n'
time_run "convert only" --convert-only
time_run "octree"
printf 'reference      2        %-10d 17.00    1200000      620      (best-known open LAS-to-octree converter)\n' \
  20000000
[ -s "$work/tree" ] && printf '\nthe octree: %s\n' "$(sed 's/^Tree *//' "$work/tree")"
exit 0
