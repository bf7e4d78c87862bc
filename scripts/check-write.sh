#!/usr/bin/env bash
# Developer check of the writer through the quil tool (not run in CI; needs
# ffmpeg and ffprobe):
#   1. a file of each of the 13 file types (quil remux --type N) opens in
#      ffprobe with the expected major brand (no "ftyp" for type 9) and in
#      quil, with the same packets as the source;
#   2. an output above 4 GiB uses "co64" and its last seconds still decode,
#      with the same packets as the source there;
#   3. a full file system (an 8 KiB tmpfs, needs root; skipped otherwise):
#      remux and faststart exit 1 and leave nothing behind;
#   4. a cut-off copy (movie first, media data cut at two thirds): remux
#      exits 3, says on stderr how many samples it left out, and its output
#      decodes.
#
# Usage: scripts/check-write.sh QUIL SMALL.mp4 [BIG_CLIP.mp4]
#   SMALL.mp4     a short H.264 + AAC file
#   BIG_CLIP.mp4  a clip looped to just above 4 GiB for check 2 (skipped
#                 without it); the 4 GiB files live in $TMPDIR or /tmp.
set -uo pipefail
quil=$(realpath "$1"); small=$2; clip=${3:-}
work=$(mktemp -d "${TMPDIR:-/tmp}/quil-check-write.XXXXXX")
trap 'rm -rf "$work"; mountpoint -q "$work/full" 2>/dev/null && umount "$work/full"' EXIT
failures=0
fail() { echo "FAIL $*"; failures=$((failures + 1)); }
ok() { echo "ok   $*"; }

# Packet hashes with times, without the duration column: the last
# sample's duration is not carried by the write interface (each track's
# last sample lasts as long as the one before it).
packets() {
    ffmpeg -nostdin -v error "$@" -map 0 -c copy -f framemd5 - | grep -v '^#' |
        awk -F, '{$4 = ""; print}' | md5sum
}

brands=("mp42" "3gp4" "M4A " "avc1" "MSNV" "mp42" "3gp5" "3g2a" "3gp6" "" "XAVC" "iso4" "qt  ")
source_packets=$(packets -i "$small")
for type in $(seq 0 12); do
    out="$work/type$type.mp4"
    if ! "$quil" remux "$small" "$out" --type "$type"; then fail "type $type: remux failed"; continue; fi
    brand=$(ffprobe -v error -show_entries format_tags=major_brand -of default=nw=1:nk=1 "$out")
    if [[ $brand != "${brands[$type]}" ]]; then
        fail "type $type: major brand '$brand', expected '${brands[$type]}'"
    elif ! "$quil" info "$out" >/dev/null; then
        fail "type $type: quil cannot read it back"
    elif [[ $(packets -i "$out") != "$source_packets" ]]; then
        fail "type $type: packets differ from the source"
    else
        ok "type $type: major brand '${brands[$type]}'"
    fi
done

if [[ -n $clip ]]; then
    big="$work/big4g.mp4"
    clip_bytes=$(stat -c %s "$clip")
    loops=$(( (4400000000 + clip_bytes - 1) / clip_bytes ))
    ffmpeg -nostdin -v error -stream_loop $((loops - 1)) -i "$clip" -c copy "$big"
    out="$work/big4g-remux.mp4"
    if ! "$quil" remux "$big" "$out"; then
        fail "4 GiB: remux failed"
    elif ! "$quil" dump "$out" | grep -q "Box type = co64"; then
        fail "4 GiB: no co64 in the output of $(stat -c %s "$out") bytes"
    elif [[ $(packets -sseof -3 -i "$out") != $(packets -sseof -3 -i "$big") ]]; then
        fail "4 GiB: the last seconds differ from the source"
    elif ! ffmpeg -nostdin -v error -sseof -2 -i "$out" -f null - ; then
        fail "4 GiB: the end does not decode"
    else
        ok "4 GiB: co64, $(stat -c %s "$out") bytes, end decodes like the source"
    fi
    rm -f "$big" "$out"
fi

mkdir -p "$work/full"
if mount -t tmpfs -o size=8k tmpfs "$work/full" 2>/dev/null; then
    for command in remux faststart; do
        "$quil" "$command" "$small" "$work/full/out.mp4" 2>"$work/err"
        status=$?
        if [[ $status != 1 || -n $(ls -A "$work/full") ]]; then
            fail "full disc: $command exit $status, left: $(ls -A "$work/full")"
        else
            ok "full disc: $command: $(cat "$work/err")"
        fi
    done
    umount "$work/full"
else
    echo "skip full disc: cannot mount a tmpfs"
fi

fast="$work/fast.mp4"; cut="$work/cut.mp4"; salvaged="$work/salvaged.mp4"
if "$quil" faststart "$small" "$fast" 2>/dev/null || cp "$small" "$fast"; then
    head -c $(( $(stat -c %s "$fast") * 2 / 3 )) "$fast" > "$cut"
    "$quil" remux "$cut" "$salvaged" 2>"$work/err"
    status=$?
    if [[ $status != 3 ]] || ! grep -q "left out" "$work/err"; then
        fail "cut-off copy: remux exit $status: $(cat "$work/err")"
    elif ! ffmpeg -nostdin -v error -i "$salvaged" -f null - ; then
        fail "cut-off copy: the output does not decode"
    else
        ok "cut-off copy: $(head -1 "$work/err")"
    fi
fi

echo "$failures failed"
[[ $failures == 0 ]]
