#!/usr/bin/env bash
# A disk that really fills: pcprep runs with its cache folder on a 1 MiB tmpfs, mounted in a private mount
# namespace, and converts a file five times that size. Expected: exit status 1, "Disk full?" in the log, the
# progress file saying FAIL, and nothing else left in the folder. Skipped (77) where namespaces are not allowed.
set -euo pipefail
pcprep=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

if ! unshare -rm true 2> /dev/null; then
  echo "skipped: this machine does not allow a private mount namespace (unshare -rm)"
  exit 77
fi
"$pcprep" sample "$work/sample" --parts pts --scans 1 --points 200000 > /dev/null
mkdir "$work/small"
unshare -rm sh -c '
  mount -t tmpfs -o size=1m tmpfs "$1" || exit 77
  "$2" run --cache "$1/cache" --convert-only "$3" > "$4/out" 2> "$4/err"
  echo $? > "$4/status"
  ls -A "$1/cache" > "$4/left"
  cp "$1/cache/cache.log" "$4/log"
  cp "$1/cache/cache.pct" "$4/pct"
' sh "$work/small" "$pcprep" "$work/sample/pts/room-scan-1.pts" "$work" || {
  status=$?
  [ "$status" -eq 77 ] && { echo "skipped: tmpfs cannot be mounted here"; exit 77; }
  exit "$status"
}

fail() { echo "FAILED: $*"; cat "$work/err"; exit 1; }
[ "$(cat "$work/status")" = 1 ] || fail "exit status $(cat "$work/status"), expected 1"
[ "$(tr '\n' ' ' < "$work/left")" = "cache.log cache.pct " ] || fail "left in the folder: $(cat "$work/left")"
grep -q "Disk full?" "$work/log" || fail "no 'Disk full?' in the log"
[ "$(cat "$work/pct")" = FAIL ] || fail "progress file says $(cat "$work/pct")"
echo "a full disk ended the run with FAIL and only the log left"
