#!/usr/bin/env bash
# Makes examples/sample.mp4: 2 s of 320x240 25 fps H.264 (main profile with
# B-frames) and 44.1 kHz AAC from ffmpeg's test sources, movie box first.
# Deterministic for a given ffmpeg build. Usage: scripts/make-sample.sh [OUT]
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
# shellcheck source=media-lib.sh
. "$here/media-lib.sh"
require_tools ffmpeg

out=$(realpath -m "${1:-$here/../examples/sample.mp4}")
mkdir -p "$(dirname "$out")"
tmp="$out.tmp.mp4"
trap 'rm -f "$tmp"' EXIT

"${FF[@]}" \
  -f lavfi -i testsrc2=size=320x240:rate=25:duration=2 \
  -f lavfi -i sine=frequency=440:sample_rate=44100:duration=2 \
  -map 0:v -map 1:a \
  -c:v libx264 -profile:v main -pix_fmt yuv420p -crf 28 -g 25 -bf 2 \
  -c:a aac -b:a 64k \
  -movflags +faststart \
  "${BITEXACT[@]}" "$tmp"
mv "$tmp" "$out"
echo "wrote $out ($(stat -c %s "$out") bytes)"
