#!/usr/bin/env bash
# Installs the Debian packages needed to build, test, fuzz and benchmark quil.
# Idempotent: asks dpkg first and runs apt-get (update once, then install)
# only for what is missing. Works as root or through sudo. Quiet unless
# something goes wrong, in which case apt's log is shown.
set -euo pipefail

packages=(
  cmake ninja-build g++ clang libclang-rt-14-dev
  libgtest-dev zlib1g-dev libcurl4-openssl-dev pkg-config
  ffmpeg libavformat-dev libavcodec-dev libavutil-dev
  python3 nginx-light
  python3-dev python3-pybind11 pybind11-dev python3-numpy python3-pytest
  python3-dask python3-distributed python3-av
)

is_installed() {
  [ "$(dpkg-query -W -f='${Status}' "$1" 2>/dev/null)" = "install ok installed" ]
}

missing=()
for package in "${packages[@]}"; do
  is_installed "$package" || missing+=("$package")
done
[ ${#missing[@]} -eq 0 ] && exit 0

if [ "$(id -u)" -eq 0 ]; then
  as_root=()
elif command -v sudo >/dev/null 2>&1; then
  as_root=(sudo)
else
  echo "install-deps: missing ${missing[*]}; run as root or install sudo" >&2
  exit 1
fi

log=$(mktemp "${TMPDIR:-/tmp}/quil-install-deps.XXXXXX")
trap 'rm -f "$log"' EXIT
echo "install-deps: installing ${missing[*]}"
if ! { "${as_root[@]}" apt-get update -qq &&
       "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
         apt-get install -y -qq --no-install-recommends "${missing[@]}"; } >"$log" 2>&1; then
  tail -n 30 "$log" >&2
  echo "install-deps: apt-get failed" >&2
  exit 1
fi
