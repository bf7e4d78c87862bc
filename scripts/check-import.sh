#!/usr/bin/env bash
# Imports raw streams with `quil import` and checks the result with ffmpeg:
# the MP4 decodes to the same frames as the raw stream (video: the MD5 of
# every decoded picture; audio: the MD5 of each decoded frame, where an MP3
# may differ in its last frame only, whose padding MP4 players do not cut),
# its duration is within one frame of the stream's, and quil reads it back.
#
# Usage: scripts/check-import.sh BUILD/quil [STREAM...]
#   (default streams: tests/data/raw-*)
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
quil=$(realpath "${1:?usage: check-import.sh BUILD/quil [STREAM...]}")
shift
if [ $# -eq 0 ]; then set -- "$here"/../tests/data/raw-*; fi
work=$(mktemp -d "${TMPDIR:-/tmp}/quil-import.XXXXXX")
trap 'rm -rf "$work"' EXIT

decode() {  # FILE -> framemd5 lines of stream 0 (synthetic AMR makes the decoder complain)
  ffmpeg -nostdin -v quiet -i "$1" -map 0:0 -f framemd5 -
}
frame_md5s() { grep -v '^#' | awk -F', *' '{print $NF}'; }
# Seconds of decoded media and of one frame, from the frames' durations.
decoded_seconds() {
  awk -F', *' '/^#tb 0:/ {split($0, t, "[:/ ]+"); tb = t[3] / t[4]}
               !/^#/ {s += $4; n++} END {printf "%.6f %.6f\n", s * tb, n ? s * tb / n : 0}'
}
# AMR from packets instead: the decoder drops the synthetic stream's
# comfort-noise and no-data frames.
packet_seconds() {
  ffprobe -v error -select_streams 0 -show_entries packet=duration_time -of csv=p=0 "$1" |
    awk '{s += $1; n++} END {printf "%.6f %.6f\n", s, n ? s / n : 0}'
}
mp4_seconds() {
  ffprobe -v error -select_streams 0 -show_entries stream=duration -of csv=p=0 "$1"
}

failed=0
for input in "$@"; do
  name=$(basename "$input")
  out="$work/$name.mp4"
  if ! "$quil" import "$out" "$input"; then
    echo "FAIL $name: import failed"; failed=$((failed + 1)); continue
  fi
  "$quil" samples "$out" >/dev/null || { echo "FAIL $name: quil cannot read the output"; failed=$((failed + 1)); continue; }
  decode "$input" >"$work/raw.txt"
  decode "$out" >"$work/mp4.txt"
  frame_md5s <"$work/raw.txt" >"$work/raw.md5"
  frame_md5s <"$work/mp4.txt" >"$work/mp4.md5"
  raw_frames=$(wc -l <"$work/raw.md5")
  if [[ $name == *.mp3 ]]; then
    # The stream's last frame is cut to its padding; the MP4's is whole.
    sed -i '$d' "$work/raw.md5" "$work/mp4.md5"
  fi
  # Audio frames may be cut differently (PCM): compare the whole decode then.
  same=no
  if cmp -s "$work/raw.md5" "$work/mp4.md5"; then same=yes
  elif [ "$(ffmpeg -nostdin -v quiet -i "$input" -map 0:0 -f md5 -)" = \
         "$(ffmpeg -nostdin -v quiet -i "$out" -map 0:0 -f md5 -)" ]; then same=yes; fi
  if [[ $name == *.amr ]]; then
    read -r raw_duration frame < <(packet_seconds "$input")
  else
    read -r raw_duration frame < <(decoded_seconds <"$work/raw.txt")
  fi
  mp4_duration=$(mp4_seconds "$out")
  close=$(awk -v a="$raw_duration" -v b="$mp4_duration" -v f="$frame" \
    'BEGIN {d = a - b; if (d < 0) d = -d; print (d <= f + 0.0005) ? "yes" : "no"}')
  if [ "$same" = yes ] && [ "$close" = yes ]; then
    echo "ok   $name: $raw_frames frames, ${raw_duration}s -> ${mp4_duration}s"
  else
    echo "FAIL $name: same frames: $same; durations ${raw_duration}s / ${mp4_duration}s (frame ${frame}s)"
    failed=$((failed + 1))
  fi
done
[ "$failed" -eq 0 ]
