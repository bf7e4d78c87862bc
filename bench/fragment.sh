#!/usr/bin/env bash
# Fragmenting benchmark: `quil fragment` of the 2 GB input against ffmpeg's
# stream-copy fragmenting (-movflags frag_keyframe+empty_moov) and `cp`.
#
#   bench/fragment.sh     generate the input if missing (bench/run.sh data),
#                         build the tool, run, print the table
#
# Environment: RUNS (repetitions per case, default 5; the median is used),
# JOBS, QUIL_BENCH_DATA (input directory, default bench/data),
# QUIL_BENCH_BUILD (build directory, default build-bench), QUIL_BENCH_OUT
# (where the output goes, default bench/out), QUIL_TOOL (a quil
# binary to use instead of the one built here).
# Every run starts with no dirty pages pending (sync) and writes its output
# to the same place; the input is read from the page
# cache after the first run.
set -euo pipefail

HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
ROOT=$(dirname "$HERE")
DATA=${QUIL_BENCH_DATA:-$HERE/data}
BUILD=${QUIL_BENCH_BUILD:-$ROOT/build-bench}
RUNS=${RUNS:-5}
JOBS=${JOBS:-2}
BIG=$DATA/big.mp4
OUTPUT=${QUIL_BENCH_OUT:-$HERE/out}/fragment-out.mp4

die() { echo "fragment.sh: $*" >&2; exit 1; }

[[ -s $BIG ]] || "$HERE/run.sh" data
mkdir -p "$(dirname "$OUTPUT")"
QUIL=${QUIL_TOOL:-}
if [[ -z $QUIL ]]; then
    cmake -S "$ROOT" -B "$BUILD" -G Ninja -DCMAKE_BUILD_TYPE=Release -DQUIL_BUILD_TOOLS=ON \
        -DQUIL_BUILD_TESTS=OFF >/dev/null
    ninja -C "$BUILD" -j"$JOBS" quil_tool >/dev/null || die "the tool did not build"
    QUIL=$BUILD/quil
fi
command -v ffmpeg >/dev/null || die "ffmpeg not found"

# seconds COMMAND...: wall time of one run, output removed afterwards.
seconds() {
    local start end
    sync
    start=$EPOCHREALTIME
    "$@" >/dev/null 2>&1 || die "failed: $*"
    end=$EPOCHREALTIME
    rm -f "$OUTPUT"
    awk -v a="$start" -v b="$end" 'BEGIN {printf "%.3f", b - a}'
}

median() { tr ' ' '\n' <<<"$1" | sed '/^$/d' | sort -g |
           awk '{v[NR]=$1} END {print (NR%2 ? v[(NR+1)/2] : (v[NR/2]+v[NR/2+1])/2)}'; }

cat "$BIG" >/dev/null  # into the page cache, as for every later run
declare -A T
for ((run = 1; run <= RUNS; ++run)); do
    # Interleaved, so that a change in the machine's load touches all three.
    T[quil]+="$(seconds "$QUIL" fragment "$BIG" "$OUTPUT") "
    T[ffmpeg]+="$(seconds ffmpeg -nostdin -y -loglevel error -i "$BIG" -map 0 -c copy \
                   -movflags frag_keyframe+empty_moov "$OUTPUT") "
    T[cp]+="$(seconds cp "$BIG" "$OUTPUT") "
done

q=$(median "${T[quil]}"); f=$(median "${T[ffmpeg]}"); c=$(median "${T[cp]}")
echo "Fragmenting $(basename "$BIG") ($(stat -c %s "$BIG") bytes), medians of $RUNS runs:"
printf '%-8s %8s   %s\n' impl seconds runs
printf '%-8s %8s   %s\n' quil "$q" "${T[quil]}" ffmpeg "$f" "${T[ffmpeg]}" cp "$c" "${T[cp]}"
awk -v q="$q" -v f="$f" -v c="$c" 'BEGIN {
    printf "quil/ffmpeg %.2f (target <= 1), quil/cp %.2f (target <= 1.3)\n", q / f, q / c }'
echo "load average at the end: $(cut -d' ' -f1-3 /proc/loadavg)"
