#!/usr/bin/env bash
# Checks that an installed quil is usable: for a static and a shared build,
# installs into a temporary prefix (chosen at install time, so the package
# files must not depend on the configured prefix), then builds and runs a
# small consumer twice: with CMake's find_package(quil) and with
# `pkg-config --cflags --libs quil`. For the shared library it also checks
# that only the public interface is exported.
#
# Usage: scripts/install-check.sh   (JOBS, default 2)
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
jobs=${JOBS:-2}
sample=$root/examples/sample.mp4
work=$(mktemp -d "${TMPDIR:-/tmp}/quil-install-check.XXXXXX")
trap 'rm -rf "$work"' EXIT

mkdir -p "$work/consumer"
cat >"$work/consumer/main.cpp" <<'EOF'
#include <cstdio>
#include <cstring>
#include <vector>

#include <quil/quil.h>

using namespace quil;

int main(int argc, char** argv) {
    if (argc != 2) {
        return 2;
    }
    std::vector<wchar_t> path(argv[1], argv[1] + std::strlen(argv[1]) + 1);  // ASCII path
    CMp4File* file = nullptr;
    CMp4Track* track = nullptr;
    uint32_t size = 0;
    MP4Err err = CMp4File::createInstance(&file);
    if (err == MP4_OK) err = file->open(path.data(), 0, 0);
    if (err == MP4_OK) err = file->getTrack(1, &track);
    if (err == MP4_OK) err = track->getSampleSize(1, &size);
    std::vector<uint8_t> buffer(size);
    if (err == MP4_OK) err = track->readSample(1, size, &size, buffer.data());
    if (track != nullptr) file->releaseTrack(track);
    if (file != nullptr) {
        file->close();
        CMp4File::destroyInstance(&file);
    }
    if (err != MP4_OK) {
        std::fprintf(stderr, "consumer: %s\n", toString(err));
        return 1;
    }
    std::printf("consumer: sample 1 of track 1 has %u bytes\n", size);
    return 0;
}
EOF
cat >"$work/consumer/CMakeLists.txt" <<'EOF'
cmake_minimum_required(VERSION 3.20)
project(quil_consumer LANGUAGES CXX)
find_package(quil 0.1 REQUIRED)
add_executable(consumer main.cpp)
target_link_libraries(consumer PRIVATE quil::quil)
EOF

for kind in static shared; do
  shared=OFF
  [ "$kind" = shared ] && shared=ON
  build=build-install/$kind
  prefix=$work/prefix-$kind
  echo "== $kind library"
  cmake -S . -B "$build" -G Ninja -Wno-dev -DCMAKE_BUILD_TYPE=Release \
    -DBUILD_SHARED_LIBS=$shared -DQUIL_BUILD_TESTS=OFF >/dev/null
  ninja -C "$build" -j"$jobs" >/dev/null
  cmake --install "$build" --prefix "$prefix" >/dev/null
  libdir=$(dirname "$(find "$prefix" -name quil.pc -print -quit)")/..
  libdir=$(cd "$libdir" && pwd)

  if [ "$kind" = shared ]; then
    # Every exported quil symbol must belong to the public interface.
    public='quil::(CMp4File|CMp4Track|CMp4MetaData|CMp4HintTrack|CMp4RtpHintTrack|CMp4HintTrackContext|CStorage)\b|quil::(toString|Mp4VideoCodecId|Mp4GetNetSettings|Mp4SetNetSettings)\('
    leaked=$(nm -D --defined-only -C "$libdir/libquil.so" | cut -d' ' -f3- |
             grep 'quil::' | grep -Ev "^(typeinfo|typeinfo name|vtable) for ($public)|^($public)" || true)
    if [ -n "$leaked" ]; then
      echo "internal symbols exported from libquil.so:" >&2
      echo "$leaked" | head -n 20 >&2
      exit 1
    fi
    echo "exports: public interface only"
  fi

  echo "-- find_package(quil)"
  cmake -S "$work/consumer" -B "$work/consumer-build-$kind" -G Ninja -Wno-dev \
    -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_BUILD_RPATH="$libdir" >/dev/null
  ninja -C "$work/consumer-build-$kind" >/dev/null
  "$work/consumer-build-$kind/consumer" "$sample"

  echo "-- pkg-config --cflags --libs quil"
  flags=$(PKG_CONFIG_PATH="$libdir/pkgconfig" pkg-config --cflags --libs quil)
  echo "   $flags"
  # shellcheck disable=SC2086  # the flags are meant to split
  g++ -std=c++17 -Wall -Wextra "$work/consumer/main.cpp" -o "$work/consumer-pc-$kind" \
    $flags -Wl,-rpath,"$libdir"
  "$work/consumer-pc-$kind" "$sample"
done
echo "install check passed"
