#!/usr/bin/env bash
# Installs every Debian package the library, its tests and its tools need, and LASzip from the next Debian
# release (bookworm does not package it; trixie's packages depend only on libc6 and libstdc++6).
# Idempotent: when everything is present it only runs dpkg queries and returns within a second.
set -euo pipefail

packages=(
  g++ cmake ninja-build make pkg-config ccache gettext
  zlib1g-dev libdeflate-dev libzstd-dev libjsoncpp-dev libexpat1-dev
  libproj-dev proj-data libgeotiff-dev libgdal-dev
  libopencv-core-dev libopencv-imgproc-dev libopencv-imgcodecs-dev
  libeigen3-dev libboost-dev libboost-iostreams-dev
  libgtest-dev libgmock-dev libbenchmark-dev
)
laszip_packages=(liblaszip8 liblaszip-api8 liblaszip-dev)
# The fuzz targets need clang with its libFuzzer runtime; only `make fuzz` asks for them.
if [ "${1:-}" = "--fuzz" ]; then
  packages+=(clang-14 libclang-rt-14-dev)
fi

is_installed() {
  dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q '^install ok installed$'
}

as_root() {
  if [ "$(id -u)" -eq 0 ]; then "$@"; else sudo "$@"; fi
}

missing=()
for p in "${packages[@]}"; do is_installed "$p" || missing+=("$p"); done
if [ ${#missing[@]} -gt 0 ]; then
  echo "install-deps: installing ${missing[*]}"
  as_root apt-get update -qq
  as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

laszip_missing=()
for p in "${laszip_packages[@]}"; do is_installed "$p" || laszip_missing+=("$p"); done
if [ ${#laszip_missing[@]} -gt 0 ]; then
  echo "install-deps: fetching LASzip from trixie (${laszip_missing[*]})"
  # The mirror is whatever this machine already uses; the machine's own apt sources are left untouched.
  sources=/etc/apt/sources.list.d/debian.sources
  mirror=""
  if [ -r "$sources" ]; then
    mirror=$(awk '/^URIs:/ { print $2; exit }' "$sources")
  fi
  if [ -z "$mirror" ] && [ -r /etc/apt/sources.list ]; then
    mirror=$(awk '$1 == "deb" { for (i = 2; i <= NF; ++i) if ($i ~ /^(https?|ftp):/) { print $i; exit } }' /etc/apt/sources.list)
  fi
  if [ -z "$mirror" ]; then
    echo "install-deps: cannot find a Debian mirror in the apt sources" >&2
    exit 1
  fi
  work=$(mktemp -d)
  chmod 755 "$work"   # apt downloads as the _apt user
  trap 'rm -rf "$work"' EXIT
  mkdir -p "$work/lists/partial"
  echo "deb $mirror trixie main" > "$work/trixie.list"
  apt_opts=(-o "Dir::Etc::sourcelist=$work/trixie.list" -o Dir::Etc::sourceparts=/nonexistent
            -o "Dir::State::Lists=$work/lists")
  as_root apt-get "${apt_opts[@]}" update -qq
  (cd "$work" && as_root apt-get "${apt_opts[@]}" download "${laszip_packages[@]}")
  as_root dpkg -i "$work"/*.deb
fi
