#!/usr/bin/env bash
# Runs the example host on the built-in sample and shows what came out. Usage: demo.sh BUILD_DIR OUT_DIR
set -euo pipefail
build=${1:-build}
out=${2:-demo-out}
pcprep="$build/tools/pcprep"

step() { printf '\n== %s\n' "$*"; }

rm -rf "$out"
step "pcprep sample $out"
"$pcprep" sample "$out"

step "pcprep info $out/las/room-tile.las (the header, first lines)"
"$pcprep" info "$out/las/room-tile.las" | sed -n 1,24p

step "pcprep run --cache $out/cache $out/pts/*.pts $out/las/room-tile.las (the octree of three scans and a tile)"
"$pcprep" run --cache "$out/cache" "$out"/pts/*.pts "$out/las/room-tile.las"
step "pcprep verify $out/cache"
"$pcprep" verify "$out/cache"
step "pcprep info $out/cache"
"$pcprep" info "$out/cache"

step "pcprep run --cache $out/ptx-cache $out/ptx/room-scans.ptx (two scans with panoramas)"
"$pcprep" run --cache "$out/ptx-cache" "$out/ptx/room-scans.ptx"
step "pcprep verify $out/ptx-cache"
"$pcprep" verify "$out/ptx-cache"
printf '\nThe panoramas of the two scans, a colour view and a normal map each, are in %s:\n' "$out/ptx-cache/Bubbles"
ls -1 "$out/ptx-cache/Bubbles"

step "pcprep info $out/e57/room-project.e57 (the E57 header, first lines)"
"$pcprep" info "$out/e57/room-project.e57" | sed -n 1,30p

step "pcprep run --cache $out/e57-cache $out/e57/room-project.e57 (two scans with camera pictures)"
"$pcprep" run --cache "$out/e57-cache" "$out/e57/room-project.e57"
step "pcprep verify $out/e57-cache"
"$pcprep" verify "$out/e57-cache"
printf '\nThe camera pictures as the file holds them are in %s;\n' "$out/e57-cache/Bubbles/2DImages"
printf 'the panoramas, with the cameras'"'"' colours below the tripods, in %s.\n' "$out/e57-cache/Bubbles"

step "pcprep run --hspc --cache $out/hspc $out/pts/*.pts $out/ptx/room-scans.ptx $out/las/room-tile.las $out/e57/room-project.e57 (the project as an HSPC data set)"
"$pcprep" run --hspc --cache "$out/hspc" "$out"/pts/*.pts "$out/ptx/room-scans.ptx" "$out/las/room-tile.las" \
  "$out/e57/room-project.e57"
step "pcprep verify $out/hspc"
"$pcprep" verify "$out/hspc"
step "pcprep info $out/hspc"
"$pcprep" info "$out/hspc"
step "pcprep export $out/cache $out/room.hspc.pack (the octree's leaves as one HSPC archive)"
"$pcprep" export "$out/cache" "$out/room.hspc.pack"
step "pcprep export $out/hspc $out/hspc-points.laz (the data set read back through a query)"
"$pcprep" export "$out/hspc" "$out/hspc-points.laz"
step "pcprep run --cache $out/again $out/room.hspc.pack (an HSPC data set as the input of a run)"
"$pcprep" run --cache "$out/again" "$out/room.hspc.pack"

step "pcprep export $out/cache $out/room.laz (every point, from the leaves)"
"$pcprep" export "$out/cache" "$out/room.laz"
step "pcprep export $out/cache $out/room-overview.pts --depth 1 (the cloud as a viewer shows it at depth 1)"
"$pcprep" export "$out/cache" "$out/room-overview.pts" --depth 1

step "pcprep compress $out/sample-room.pnt"
"$pcprep" compress "$out/sample-room.pnt"
step "pcprep info $out/sample-room.pnz --points 3"
"$pcprep" info "$out/sample-room.pnz" --points 3
