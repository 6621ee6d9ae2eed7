#!/usr/bin/env bash
# A disk that really fills: pcprep runs with its cache folder on a small tmpfs, mounted in a private mount
# namespace: a conversion of a file five times the disk's size, and a full run on a disk just too small for
# the converted scans. Expected each time: exit status 1, "Disk full?" in the log, the progress file saying
# FAIL, and nothing else left in the folder. Skipped (77) where namespaces are not allowed.
#
# A disk that holds the converted scans holds the whole run: the root's split gives each scan's space back as
# it reads it, and the tree takes no more room than the scans did. The full disks of the later stages are
# met in-process by test_run, through a file size limit.
set -euo pipefail
pcprep=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

if ! unshare -rm true 2> /dev/null; then
  echo "skipped: this machine does not allow a private mount namespace (unshare -rm)"
  exit 77
fi
fail() { echo "FAILED: $*"; cat "$work/err" "$work/log"; exit 1; }

# Runs pcprep with the given run options and input on a tmpfs of the given size, and checks the outcome: the
# error of the stage that met the full disk.
run_on_small_disk() {
  local size=$1 stage=$2 error=$3
  shift 3
  rm -rf "$work/small" && mkdir "$work/small"
  unshare -rm sh -c '
    mount -t tmpfs -o "size=$1" tmpfs "$2" || exit 77
    shift 2
    out=$1
    shift
    "$@" > "$out/out" 2> "$out/err"
    echo $? > "$out/status"
    ls -A "$out/small/cache" > "$out/left"
    cp "$out/small/cache/cache.log" "$out/log"
    cp "$out/small/cache/cache.pct" "$out/pct"
  ' sh "$size" "$work/small" "$work" "$pcprep" run --cache "$work/small/cache" "$@" || {
    status=$?
    [ "$status" -eq 77 ] && { echo "skipped: tmpfs cannot be mounted here"; exit 77; }
    exit "$status"
  }
  [ "$(cat "$work/status")" = 1 ] || fail "$stage: exit status $(cat "$work/status"), expected 1"
  [ "$(tr '\n' ' ' < "$work/left")" = "cache.log cache.pct " ] || fail "$stage: left $(cat "$work/left")"
  grep -q "Disk full?" "$work/log" || fail "$stage: no 'Disk full?' in the log"
  grep -q "$error" "$work/log" || fail "$stage: no '$error' in the log"
  [ "$(cat "$work/pct")" = FAIL ] || fail "$stage: progress file says $(cat "$work/pct")"
  echo "a full disk in $stage ended the run with FAIL and only the log left"
}

"$pcprep" sample "$work/sample" --parts pts --scans 2 --points 400000 > /dev/null
run_on_small_disk 1m "the conversion" "ERROR reading" --convert-only "$work/sample/pts/room-scan-1.pts"

# Both scans are converted before the tree is built; the second one no longer fits.
"$pcprep" run --cache "$work/measure" --convert-only "$work"/sample/pts/*.pts > /dev/null 2>&1
scans_kb=$(du -sk "$work/measure/Data" | cut -f1)
rm -rf "$work/measure"
run_on_small_disk "$((scans_kb * 3 / 4))k" "the conversion of several scans" "ERROR reading" "$work"/sample/pts/*.pts
