#!/bin/bash
# Developer check (not CI): streams the hint tracks of a hinted file over
# loopback with `quil rtp-send`, receives them with ffmpeg through the SDP of
# `quil sdp --to`, and compares the decoded frames (framemd5 hashes) with
# decoding the file itself. The receiver may miss frames at either end of a
# stream (start-up, the final reorder window, an edit list's priming frames);
# every frame it does decode must match the file's frames in order.
#   scripts/check-rtp-loopback.sh QUIL FILE [PORT]
set -u
QUIL=$1
FILE=$2
PORT=${3:-47310}
WORK=$(mktemp -d)
trap 'rm -rf "$WORK"' EXIT

"$QUIL" sdp "$FILE" --to 127.0.0.1:"$PORT" > "$WORK/in.sdp" || exit 1
kinds=$(grep -o '^m=[a-z]*' "$WORK/in.sdp" | cut -c3- | sort -u)
maps=()
for kind in $kinds; do
  case $kind in video) k=v ;; audio) k=a ;; *) continue ;; esac
  maps+=(-map "0:$k" -f framemd5 "$WORK/rx-$k.md5")
done
timeout 60 ffmpeg -nostdin -loglevel error -protocol_whitelist file,udp,rtp \
  -i "$WORK/in.sdp" "${maps[@]}" 2> "$WORK/rx.log" &
receiver=$!
sleep 2
"$QUIL" rtp-send "$FILE" --to 127.0.0.1:"$PORT" --speed 1 || exit 1
wait "$receiver"

status=0
for kind in $kinds; do
  case $kind in video) k=v ;; audio) k=a ;; *) continue ;; esac
  ffmpeg -nostdin -loglevel error -i "$FILE" -map "0:$k:0" -f framemd5 "$WORK/file-$k.md5"
  python3 - "$WORK/rx-$k.md5" "$WORK/file-$k.md5" "$kind" <<'PY' || status=1
import sys
def hashes(path):
    try:
        return [l.rsplit(',', 1)[1].strip() for l in open(path) if not l.startswith('#')]
    except OSError:
        return []
rx, ref, kind = hashes(sys.argv[1]), hashes(sys.argv[2]), sys.argv[3]
# Longest run of received frames that appears in the file's frames in order.
best = 0
for start in range(len(ref)):
    n = 0
    while start + n < len(ref) and n < len(rx) and ref[start + n] == rx[n]:
        n += 1
    best = max(best, n)
for skip in range(1, min(4, len(rx))):
    for start in range(len(ref)):
        n = 0
        while start + n < len(ref) and skip + n < len(rx) and ref[start + n] == rx[skip + n]:
            n += 1
        best = max(best, n)
ok = len(rx) > 0 and best >= len(ref) - 8 and best >= len(rx) - 4
print(f"{kind}: received {len(rx)} frames, file {len(ref)}, {best} identical in order: {'OK' if ok else 'MISMATCH'}")
sys.exit(0 if ok else 1)
PY
done
exit $status
