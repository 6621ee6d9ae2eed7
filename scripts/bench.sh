#!/usr/bin/env bash
# Runs every benchmark of a build folder. Usage: bench.sh BUILD_DIR [extra Google Benchmark flags]
set -euo pipefail
build=${1:-build}
shift || true
# Whole runs of the example host, timed as a user sees them.
for script in "$(dirname "$0")"/../bench/*.sh; do
  printf '\n== %s\n' "$(basename "$script")"
  "$script" "$build"
done
for bench in "$build"/bench/bench_*; do
  [ -x "$bench" ] || continue
  printf '\n== %s\n' "$(basename "$bench")"
  "$bench" --benchmark_counters_tabular=true "$@"
done
