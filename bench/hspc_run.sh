#!/usr/bin/env bash
# A whole HSPC static conversion of the sample's airborne LAS tile (20 million points by default: terrain,
# buildings, trees, colour, intensity, classes), with wall time, CPU time (user + system), points per
# second, the peak memory of the process against the memory budget given to the converter, and the bytes
# of the data set per point against those of the same tile as LAZ.
#
# Targets on two threads: at least 2.4 M points/s, a peak of at most the budget plus 30 %, and at most 1.3
# times the bytes per point of the LAZ file.
#
# Then the data set is read back whole through HSPCImporter (hspc_import_dataset), once more from a warm page
# cache: target at least 30 M points/s reading and encoding on two threads.
#
# Usage: bench/hspc_run.sh [BUILD_DIR] (POINTS=n changes the size, MEMORY_MB=n the budget, THREADS=n the
# worker count)
set -euo pipefail
build=${1:-build}
points=${POINTS:-20000000}
memory_mb=${MEMORY_MB:-1024}
threads=${THREADS:-2}
pcprep="$build/tools/pcprep"
convert="$build/bench/hspc_convert_las"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

"$pcprep" sample "$work/sample" --parts terrain --terrain-points "$points" > /dev/null
tile="$work/sample/las/terrain-tile.las"
printf 'input: %s points, %s MB of LAS\n' "$points" "$(($(stat -c %s "$tile") / 1000000))"
# The LAZ copy is written first and untimed.
"$convert" "$tile" --laz "$work/tile.laz"

mkdir -p "$work/out" "$work/tmp"
load=$(cut -d' ' -f1 /proc/loadavg)
/usr/bin/time -f '%e %U %S %M' -o "$work/time" "$convert" "$tile" "$work/out" "$work/tmp" \
  --memory-mb "$memory_mb" --threads "$threads" | tee "$work/line"
read -r seconds user system kilobytes < "$work/time"
laz_bytes=$(stat -c %s "$work/tile.laz")
hspc_bytes=$(du -sb "$work/out" | cut -f1)
awk -v s="$seconds" -v u="$user" -v y="$system" -v k="$kilobytes" -v m="$memory_mb" -v p="$points" \
    -v l="$laz_bytes" -v h="$hspc_bytes" -v load="$load" -v t="$threads" 'BEGIN {
  printf "hspc, %d threads (load %s): %.2f s wall, %.2f s CPU, %.2f M points/s, peak %.0f MB of a %d MB budget (%.0f %%)\n",
         t, load, s, u + y, p / s / 1e6, k / 1024, m, 100 * k / 1024 / m
  printf "size: %.2f bytes/point against %.2f of LAZ (ratio %.2f)\n", h / p, l / p, h / l
}'

import="$build/bench/hspc_import_dataset"
if [ -x "$import" ]; then
  "$import" "$work/out" > /dev/null
  "$import" "$work/out"
fi
