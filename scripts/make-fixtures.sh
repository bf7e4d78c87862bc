#!/usr/bin/env bash
# Makes the small media fixtures of the unit tests under tests/data/ (or the
# directory given) and writes tests/data/README.md describing each one.
#
# Everything comes from ffmpeg's synthetic sources (testsrc2, sine) plus a
# synthetic AMR-NB stream (make-amr.py); the damaged files are derived by
# make-damaged.py. Deterministic for a given ffmpeg build; a fixture whose
# encoder the local ffmpeg lacks is skipped and listed as such.
#
# Usage: scripts/make-fixtures.sh [OUTDIR]
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
# shellcheck source=media-lib.sh
. "$here/media-lib.sh"
require_tools ffmpeg python3

out=$(realpath -m "${1:-$here/../tests/data}")
work=$(mktemp -d "${TMPDIR:-/tmp}/quil-fixtures.XXXXXX")
trap 'rm -rf "$work"' EXIT
mkdir -p "$out"

made=()     # "file|how it was made"
skipped=()  # "file|why"

note_made() { made+=("$1|$2"); }
note_skipped() { skipped+=("$1|$2"); echo "skipped $1: $2" >&2; }

video1s=(-f lavfi -i testsrc2=size=160x120:rate=25:duration=1)
aac1s=(-f lavfi -i sine=frequency=440:sample_rate=44100:duration=1)
pcm_half=(-f lavfi -i sine=frequency=440:sample_rate=16000:duration=0.5)
x264_baseline=(-c:v libx264 -profile:v baseline -pix_fmt yuv420p -crf 30 -g 25)
aac_mono=(-c:a aac -b:a 32k -ac 1)

if has_encoder libx264 && has_encoder aac; then
  "${FF[@]}" "${video1s[@]}" "${aac1s[@]}" "${x264_baseline[@]}" "${aac_mono[@]}" \
    "${BITEXACT[@]}" "$work/h264-aac.mp4"
  note_made h264-aac.mp4 "160x120 25 fps 1 s baseline H.264 + 44.1 kHz mono AAC; movie box at the end"
  "${FF[@]}" -i "$work/h264-aac.mp4" -c copy -movflags +faststart \
    "${BITEXACT[@]}" "$work/h264-aac-faststart.mp4"
  note_made h264-aac-faststart.mp4 "h264-aac.mp4 remuxed with \`-c copy -movflags +faststart\` (same samples, movie box first)"

  "${FF[@]}" "${video1s[@]}" -c:v libx264 -profile:v main -pix_fmt yuv420p -crf 30 -g 25 -bf 2 \
    "${BITEXACT[@]}" "$work/h264-bframes.mp4"
  note_made h264-bframes.mp4 "main profile with \`-bf 2\`: composition offsets (ctts) and an edit list skipping the reorder delay; video only"

  "${FF[@]}" "${video1s[@]}" "${x264_baseline[@]}" -timecode 01:00:00:00 \
    "${BITEXACT[@]}" "$work/timecode.mov"
  note_made timecode.mov "QuickTime file with \`-timecode 01:00:00:00\`: a tmcd track (25 fps) beside the H.264 video"

  "${FF[@]}" -i "$work/h264-aac.mp4" -map 0:v -c copy -metadata:s:v:0 rotate=270 \
    "${BITEXACT[@]}" "$work/rotate-90.mp4"
  note_made rotate-90.mp4 "video of h264-aac.mp4 with \`-metadata:s:v:0 rotate=270\`; ffmpeg writes the tkhd matrix {0,1,0,-1,0,0,0,0,1}, i.e. 90 degrees clockwise in the ISO/QuickTime convention (ffprobe reports -90)"

  "${FF[@]}" -itsoffset 0.5 "${aac1s[@]}" "${aac_mono[@]}" \
    "${BITEXACT[@]}" "$work/audio-delay.mp4"
  note_made audio-delay.mp4 "AAC only, input delayed with \`-itsoffset 0.5\`: an empty first edit (media time -1) then the media"

  # Fragmented copies: a fragment at each key frame or every 0.2 s.
  "${FF[@]}" -i "$work/h264-aac.mp4" -c copy -movflags frag_keyframe+empty_moov \
    -frag_duration 200000 "${BITEXACT[@]}" "$work/frag-h264-aac.mp4"
  note_made frag-h264-aac.mp4 "h264-aac.mp4 copied with \`-movflags frag_keyframe+empty_moov -frag_duration 200000\`: an empty movie with mvex, then moof+mdat pairs (data offsets from the moof)"
  "${FF[@]}" -i "$work/h264-bframes.mp4" -c copy -movflags frag_keyframe+empty_moov+default_base_moof \
    -frag_duration 200000 "${BITEXACT[@]}" "$work/frag-bframes-moof.mp4"
  note_made frag-bframes-moof.mp4 "h264-bframes.mp4 copied with \`-movflags frag_keyframe+empty_moov+default_base_moof -frag_duration 200000\`: default-base-is-moof, composition offsets in the runs, an edit list"

  python3 "$here/make-damaged.py" "$work/h264-aac.mp4" "$work/h264-aac-faststart.mp4" "$work" \
    >"$work/damaged.txt"
else
  note_skipped "h264-*.mp4, frag-*.mp4, timecode.mov, rotate-90.mp4, audio-delay.mp4, bad-*.mp4" "no libx264 or aac encoder"
fi

if has_encoder libx265; then
  "${FF[@]}" "${video1s[@]}" -frames:v 10 -c:v libx265 -tag:v hvc1 \
    -x265-params log-level=error:pools=1:frame-threads=1:wpp=0 \
    "${BITEXACT[@]}" "$work/hevc-hvc1.mp4"
  note_made hevc-hvc1.mp4 "10 frames of HEVC from libx265 tagged \`hvc1\` (hvcC with parameter-set arrays), one thread"
else
  note_skipped hevc-hvc1.mp4 "no libx265 encoder"
fi

if has_encoder mpeg4 && has_encoder aac; then
  "${FF[@]}" "${video1s[@]}" "${aac1s[@]}" -c:v mpeg4 -q:v 8 "${aac_mono[@]}" \
    "${BITEXACT[@]}" "$work/mpeg4-aac.mp4"
  note_made mpeg4-aac.mp4 "MPEG-4 part 2 video (\`mp4v\` with esds) + AAC"
else
  note_skipped mpeg4-aac.mp4 "no mpeg4 or aac encoder"
fi

if has_encoder h263; then
  # No AMR encoder ships with Debian's ffmpeg: the AMR-NB stream is synthetic.
  python3 "$here/make-amr.py" "$work/audio.amr" 1
  "${FF[@]}" -f lavfi -i testsrc2=size=176x144:rate=15:duration=1 -i "$work/audio.amr" \
    -map 0:v -map 1:a -c:v h263 -q:v 10 -c:a copy -f 3gp -brand 3gp4 \
    "${BITEXACT[@]}" "$work/h263-amrnb.3gp"
  note_made h263-amrnb.3gp "3GPP (brand 3gp4): H.263 176x144 15 fps (\`s263\` + d263) and AMR-NB (\`samr\` + damr) copied from the synthetic stream of make-amr.py (all modes, SID and NO_DATA frames)"
else
  note_skipped h263-amrnb.3gp "no h263 encoder"
fi

if has_encoder pcm_s16le && has_encoder pcm_s16be; then
  "${FF[@]}" "${pcm_half[@]}" -c:a pcm_s16le -ac 2 "${BITEXACT[@]}" "$work/pcm-sowt.mov"
  note_made pcm-sowt.mov "QuickTime 16-bit little-endian PCM (\`sowt\`), 16 kHz stereo, 0.5 s"
  "${FF[@]}" "${pcm_half[@]}" -c:a pcm_s16be -ac 1 "${BITEXACT[@]}" "$work/pcm-twos.mov"
  note_made pcm-twos.mov "QuickTime 16-bit big-endian PCM (\`twos\`), 16 kHz mono, 0.5 s"
else
  note_skipped "pcm-*.mov" "no PCM encoders"
fi

# Raw elementary streams for `quil import` (no container, so they are
# described by how they were made only).
raw_made=()
note_raw() { raw_made+=("$1|$2"); }
frames12=(-f lavfi -i testsrc2=size=160x120:rate=25:duration=0.48)
if has_encoder libx264; then
  "${FF[@]}" "${frames12[@]}" -c:v libx264 -profile:v main -pix_fmt yuv420p -crf 35 -g 12 -bf 2 \
    "${BITEXACT[@]}" -f h264 "$work/raw-h264-bframes.h264"
  note_raw raw-h264-bframes.h264 "12 frames of main-profile H.264, Annex B, \`-bf 2\`, VUI timing 25 fps"
  "${FF[@]}" "${frames12[@]}" "${x264_baseline[@]}" -crf 35 \
    "${BITEXACT[@]}" -f h264 "$work/raw-h264-baseline.h264"
  note_raw raw-h264-baseline.h264 "12 frames of baseline H.264, Annex B, no B-frames"
else
  note_skipped "raw-h264-*.h264" "no libx264 encoder"
fi
if has_encoder libx265; then
  "${FF[@]}" "${frames12[@]}" -c:v libx265 -crf 35 -g 12 \
    -x265-params log-level=error:pools=1:frame-threads=1:wpp=0:bframes=3 \
    "${BITEXACT[@]}" -f hevc "$work/raw-hevc-bframes.hevc"
  note_raw raw-hevc-bframes.hevc "12 frames of HEVC from libx265, Annex B, 3 B-frames, VPS/VUI timing 25 fps"
else
  note_skipped raw-hevc-bframes.hevc "no libx265 encoder"
fi
if has_encoder aac; then
  "${FF[@]}" -f lavfi -i sine=frequency=440:sample_rate=44100:duration=0.5 "${aac_mono[@]}" \
    "${BITEXACT[@]}" -f adts "$work/raw-aac.aac"
  note_raw raw-aac.aac "0.5 s of 44.1 kHz mono AAC-LC in ADTS"
fi
if has_encoder libmp3lame; then
  "${FF[@]}" -f lavfi -i sine=frequency=440:sample_rate=22050:duration=0.5 -c:a libmp3lame -b:a 32k \
    "${BITEXACT[@]}" "$work/raw-mp3.mp3"
  note_raw raw-mp3.mp3 "0.5 s of 22.05 kHz mono MP3 (MPEG-2 layer III) with a Xing/LAME information frame"
else
  note_skipped raw-mp3.mp3 "no libmp3lame encoder"
fi
"${FF[@]}" -f lavfi -i sine=frequency=440:sample_rate=16000:duration=0.1 -ac 2 -c:a pcm_s16le \
  "${BITEXACT[@]}" "$work/raw-pcm16.wav"
note_raw raw-pcm16.wav "0.1 s of 16 kHz stereo 16-bit PCM in WAV"
python3 "$here/make-amr.py" "$work/raw-amrnb.amr" 0.2
note_raw raw-amrnb.amr "0.2 s of synthetic AMR-NB from make-amr.py (every mode, SID, NO_DATA)"
python3 "$here/make-amr.py" --wb "$work/raw-amrwb.amr" 0.2
note_raw raw-amrwb.amr "0.2 s of synthetic AMR-WB from \`make-amr.py --wb\`"

# Install what was made, then describe it.
for entry in "${made[@]}" "${raw_made[@]}"; do
  cp "$work/${entry%%|*}" "$out/"
done
if [ -f "$work/damaged.txt" ]; then
  while IFS= read -r line; do
    cp "$work/${line%%:*}" "$out/"
  done <"$work/damaged.txt"
fi

describe() {
  python3 "$here/mp4boxes.py" --summary "$1" | paste -sd ';' | sed 's/;/; /g'
}

{
  cat <<'EOF'
# Test fixtures

Small media files for the unit tests, all generated by
`scripts/make-fixtures.sh` (run from the repository root; it also rewrites
this file). Sources are ffmpeg's synthetic `testsrc2` and `sine` generators
and a synthetic AMR-NB stream; there is no third-party content. ffmpeg runs
with `-fflags +bitexact -flags:v +bitexact -flags:a +bitexact -threads 1` and
a creation time of 2020-01-01T00:00:00Z, so the same ffmpeg build gives the
same bytes. "Contents" is read back from each file by `scripts/mp4boxes.py`:
the top-level boxes, then per track the handler, first sample entry, media
time scale, sample count as "stsz" gives it, sample-table boxes, edit list as
(duration, media time) pairs, and the tkhd matrix when it is not the identity.

EOF
  echo "Made with: $(ffmpeg -version | head -n 1 | cut -d' ' -f1-3)."
  echo
  echo "| file | how it was made | contents |"
  echo "|---|---|---|"
  for entry in "${made[@]}"; do
    name=${entry%%|*}
    echo "| $name | ${entry#*|} | $(describe "$out/$name") |"
  done
  echo
  echo "## Raw streams"
  echo
  echo "Elementary streams without a container, the inputs of \`quil import\`:"
  echo
  echo "| file | how it was made |"
  echo "|---|---|"
  for entry in "${raw_made[@]}"; do
    echo "| ${entry%%|*} | ${entry#*|} |"
  done
  if [ -f "$work/damaged.txt" ]; then
    cat <<'EOF'

## Damaged files

Derived by `scripts/make-damaged.py` from h264-aac.mp4 (movie box at the end)
or, for the truncated media data, from h264-aac-faststart.mp4. Each has one
fault, named in the file name:

| file | damage |
|---|---|
EOF
    while IFS= read -r line; do
      echo "| ${line%%:*} | ${line#*: } |"
    done <"$work/damaged.txt"
  fi
  if [ ${#skipped[@]} -gt 0 ]; then
    echo
    echo "## Not made here"
    echo
    for entry in "${skipped[@]}"; do
      echo "- ${entry%%|*}: ${entry#*|}"
    done
  fi
} >"$out/README.md"

echo "wrote $(( ${#made[@]} )) fixtures and $(wc -l <"$work/damaged.txt" 2>/dev/null || echo 0) damaged files to $out"
