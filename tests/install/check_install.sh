#!/usr/bin/env bash
# Installs the library into a scratch prefix and builds a small host against it twice, once through
# find_package and once through pkg-config, the two ways a host links a library.
set -euo pipefail
build_dir=$1
consumer_src=$2
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

cmake --install "$build_dir" --prefix "$scratch/prefix" > "$scratch/install.log"

cmake -S "$consumer_src" -B "$scratch/cmake-build" -G Ninja -DCMAKE_PREFIX_PATH="$scratch/prefix" \
  -DCMAKE_BUILD_TYPE=Release > "$scratch/configure.log" || { cat "$scratch/configure.log"; exit 1; }
cmake --build "$scratch/cmake-build" > "$scratch/build.log" || { cat "$scratch/build.log"; exit 1; }
"$scratch/cmake-build/consumer" "$scratch"

libdir=$(find "$scratch/prefix" -name pointcloud_preprocess.pc -printf '%h\n' | head -n 1)
flags=$(PKG_CONFIG_PATH="$libdir" pkg-config --cflags --libs pointcloud_preprocess)
# shellcheck disable=SC2086
g++ -std=c++20 "$consumer_src/consumer.cpp" -o "$scratch/consumer-pc" $flags -Wl,-rpath,"$(dirname "$libdir")"
"$scratch/consumer-pc" "$scratch"
