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
"$pcprep" info "$out/las/room-tile.las" | head -n 24

step "pcprep run --cache $out/cache --convert-only $out/pts/*.pts $out/las/room-tile.las"
"$pcprep" run --cache "$out/cache" --convert-only "$out"/pts/*.pts "$out/las/room-tile.las"
step "pcprep info $out/cache"
"$pcprep" info "$out/cache"

step "pcprep run --cache $out/ptx-cache --convert-only $out/ptx/room-scans.ptx (two scans with panoramas)"
"$pcprep" run --cache "$out/ptx-cache" --convert-only "$out/ptx/room-scans.ptx"
step "pcprep info $out/ptx-cache"
"$pcprep" info "$out/ptx-cache"
printf '\nThe panoramas of the two scans, a colour view and a normal map each, are in %s:\n' "$out/ptx-cache/Bubbles"
ls -1 "$out/ptx-cache/Bubbles"

step "pcprep export $out/cache/Data/*-temp.pnt $out/room.laz"
"$pcprep" export "$out"/cache/Data/*-temp.pnt "$out/room.laz"

step "pcprep compress $out/sample-room.pnt"
"$pcprep" compress "$out/sample-room.pnt"
step "pcprep info $out/sample-room.pnz --points 3"
"$pcprep" info "$out/sample-room.pnz" --points 3
