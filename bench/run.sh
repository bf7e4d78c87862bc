#!/usr/bin/env bash
# Sample-index, sample-read and rewriting benchmark: quil against libavformat.
#
#   bench/run.sh          generate inputs if missing, build, run, print the tables
#   bench/run.sh data     only generate the inputs
#   bench/run.sh rewrite  only the rewriting workloads (remux, faststart)
#   bench/run.sh fragments  only indexing a fragmented copy of the 2-hour input
#
# Environment: RUNS (repetitions per case, default 7; the median is used),
# JOBS (ninja parallelism, default 2), QUIL_BENCH_DATA (input directory,
# default bench/data), QUIL_BENCH_BUILD (build directory, default
# build-bench at the top of the source tree), QUIL_BENCH_PROGRAM (a quil_bench
# binary to use instead of the one built here, e.g. from another checkout).
set -euo pipefail

HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
ROOT=$(dirname "$HERE")
DATA=${QUIL_BENCH_DATA:-$HERE/data}
BUILD=${QUIL_BENCH_BUILD:-$ROOT/build-bench}
OUT=$HERE/out
RUNS=${RUNS:-7}
JOBS=${JOBS:-2}

LONG=$DATA/long.mp4        # 2 hours, 160x90 30 fps H.264 + 48 kHz AAC
LONG_1S=$DATA/long_1s.mp4  # first second of the same clip
BIG=$DATA/big.mp4          # about 2 GB, 1280x720 H.264 + AAC, large samples
BIG_1S=$DATA/big_1s.mp4
BIG_TARGET_BYTES=2000000000
# The same samples as LONG and LONG_1S in moof+mdat pairs (a fragment at
# each key frame, empty movie box), as ffmpeg's crash-safe recording writes.
LONG_FRAG=$DATA/long_frag.mp4
LONG_FRAG_1S=$DATA/long_frag_1s.mp4

die() { echo "run.sh: $*" >&2; exit 1; }
need() { command -v "$1" >/dev/null 2>&1 || die "$1 not found (apt-get install ${2:-$1})"; }

ff() { ffmpeg -nostdin -hide_banner -loglevel error -y "$@"; }

# Writes through a temporary name so an interrupted run never leaves a
# truncated input that a later run would take for a finished one.
make_file() {
    local target=$1; shift
    [[ -s $target ]] && return 0
    echo "generating $(basename "$target")" >&2
    local tmp="${target%.mp4}.partial.mp4"
    ff "$@" "$tmp"
    mv "$tmp" "$target"
}

generate() {
    need ffmpeg
    mkdir -p "$DATA"
    # Short encoded clips; the long inputs are loops of them copied without
    # re-encoding, so generation costs little beyond writing the bytes.
    make_file "$DATA/small_clip.mp4" \
        -f lavfi -i "testsrc2=size=160x90:rate=30:duration=10" \
        -f lavfi -i "sine=frequency=440:sample_rate=48000:duration=10" \
        -c:v libx264 -preset veryfast -pix_fmt yuv420p -c:a aac -b:a 64k -ac 2
    # Noise keeps the frames large (about 100 KB) and B-frames give the
    # video track composition offsets.
    make_file "$DATA/big_clip.mp4" \
        -f lavfi -i "testsrc2=size=1280x720:rate=30:duration=4,noise=alls=12:allf=t" \
        -f lavfi -i "sine=frequency=440:sample_rate=48000:duration=4" \
        -c:v libx264 -preset veryfast -crf 22 -g 60 -pix_fmt yuv420p \
        -c:a aac -b:a 192k -ac 2

    make_file "$LONG" -stream_loop -1 -i "$DATA/small_clip.mp4" -c copy -t 7200
    make_file "$LONG_1S" -i "$DATA/small_clip.mp4" -c copy -t 1
    make_file "$BIG_1S" -i "$DATA/big_clip.mp4" -c copy -t 1
    make_file "$LONG_FRAG" -i "$LONG" -c copy -movflags frag_keyframe+empty_moov
    make_file "$LONG_FRAG_1S" -i "$LONG_1S" -c copy -movflags frag_keyframe+empty_moov
    if [[ ! -s $BIG ]]; then
        local clip_bytes loops avail_kb
        clip_bytes=$(stat -c %s "$DATA/big_clip.mp4")
        loops=$(( (BIG_TARGET_BYTES + clip_bytes - 1) / clip_bytes ))
        avail_kb=$(df -Pk "$DATA" | awk 'NR==2 {print $4}')
        (( avail_kb > (BIG_TARGET_BYTES / 1024) * 3 / 2 )) ||
            die "not enough free space in $DATA for a 2 GB input"
        # -stream_loop counts repetitions after the first pass.
        make_file "$BIG" -stream_loop $((loops - 1)) -i "$DATA/big_clip.mp4" -c copy
    fi
}

build() {
    need cmake; need ninja ninja-build; need pkg-config
    cmake -S "$ROOT" -B "$BUILD" -G Ninja -DCMAKE_BUILD_TYPE=Release \
        -DQUIL_BUILD_BENCH=ON -DQUIL_BUILD_TESTS=OFF -DQUIL_BUILD_TOOLS=OFF \
        -DQUIL_BUILD_FUZZERS=OFF -DQUIL_SANITIZE=OFF >/dev/null
    mkdir -p "$OUT"
    ninja -C "$BUILD" -j"$JOBS" avformat_peer >"$OUT/build.log" 2>&1 ||
        { cat "$OUT/build.log" >&2; die "the libavformat peer did not build"; }
    # The peer's numbers stay useful while the library cannot link yet.
    if ! ninja -C "$BUILD" -j"$JOBS" quil_bench >"$OUT/build.log" 2>&1; then
        echo "run.sh: quil_bench did not build; measuring the peer only (see $OUT/build.log)" >&2
        rm -f "$BUILD/bench/quil_bench"
    fi
    ninja -C "$BUILD" -j"$JOBS" avformat_rewrite_peer >>"$OUT/build.log" 2>&1 ||
        { cat "$OUT/build.log" >&2; die "the libavformat rewriting peer did not build"; }
    if ! ninja -C "$BUILD" -j"$JOBS" quil_rewrite >>"$OUT/build.log" 2>&1; then
        echo "run.sh: quil_rewrite did not build; measuring the peer only (see $OUT/build.log)" >&2
        rm -f "$BUILD/bench/quil_rewrite"
    fi
}

# --- measuring ---------------------------------------------------------------

declare -A SECS RSS SAMPLES CHECK LAYOUT ERR BYTES RCHAR CPU

field() { sed -n "s/.* $1=\([^ ]*\).*/\1/p" <<<" $2"; }

# run_case KEY PROGRAM WORKLOAD FILE [OUTPUT]: one run, appended to the KEY's
# series. With an output file (the rewriting workloads) the page cache's
# dirty pages are written back before the run, not during it, and the
# output is removed afterwards. "run_case KEY PROGRAM track N FILE" reads
# one track.
run_case() {
    local key=$1 prog=$2 workload=$3 file=$4 output=${5:-} line status=0
    if [[ ! -x $prog ]]; then ERR[$key]="$(basename "$prog") not built"; return 0; fi
    if [[ $workload == track ]]; then
        line=$("$prog" track "$file" "$output" 2>"$OUT/stderr") || status=$?
    elif [[ -n $output ]]; then
        sync
        line=$("$prog" "$workload" "$file" "$output" 2>"$OUT/stderr") || status=$?
        rm -f "$output"
    else
        line=$("$prog" "$workload" "$file" 2>"$OUT/stderr") || status=$?
    fi
    echo "$line" >>"$OUT/raw.txt"
    if (( status != 0 )); then
        ERR[$key]=$(head -n 1 "$OUT/stderr")
        [[ -n ${ERR[$key]} ]] || ERR[$key]="exit status $status"
        return 0
    fi
    SECS[$key]+="$(field seconds "$line") "
    RSS[$key]+="$(field maxrss_kb "$line") "
    CPU[$key]+="$(field cpu "$line") "
    SAMPLES[$key]=$(field samples "$line")
    CHECK[$key]=$(field checksum "$line")
    LAYOUT[$key]=$(field layout "$line")
    BYTES[$key]=$(field bytes "$line")
    RCHAR[$key]=$(field rchar "$line")
}

median() { tr ' ' '\n' <<<"$1" | sed '/^$/d' | sort -g |
           awk '{v[NR]=$1} END {if (NR) print (NR%2 ? v[(NR+1)/2] : (v[NR/2]+v[NR/2+1])/2)}'; }

time_cat() {
    local start end
    start=$EPOCHREALTIME
    cat "$1" >/dev/null
    end=$EPOCHREALTIME
    awk -v a="$start" -v b="$end" 'BEGIN {printf "%.6f", b - a}'
}

# time_cp FILE OUTPUT: seconds of `cp FILE OUTPUT` (same file system as the
# other outputs), started with no dirty pages pending.
time_cp() {
    local start end
    sync
    start=$EPOCHREALTIME
    cp "$1" "$2"
    end=$EPOCHREALTIME
    rm -f "$2"
    awk -v a="$start" -v b="$end" 'BEGIN {printf "%.6f", b - a}'
}

# --- report ------------------------------------------------------------------

ok() { [[ -z ${ERR[$1]:-} && -n ${SECS[$1]:-} ]]; }

# per_sample IMPL WORKLOAD NAME: "ns_per_sample bytes_per_sample", start-up
# cost (the one-second input's time and peak RSS) subtracted.
per_sample() {
    local big="$1/$2/$3" small="$1/$2/$3_1s"
    ok "$big" && ok "$small" || { echo "- -"; return; }
    awk -v tb="$(median "${SECS[$big]}")" -v ts="$(median "${SECS[$small]}")" \
        -v rb="$(median "${RSS[$big]}")" -v rs="$(median "${RSS[$small]}")" \
        -v nb="${SAMPLES[$big]}" -v ns="${SAMPLES[$small]}" \
        'BEGIN {n = nb - ns; if (n <= 0) {print "- -"; exit}
                printf "%.1f %.1f", (tb - ts) * 1e9 / n, (rb - rs) * 1024 / n}'
}

ratio() { awk -v a="$1" -v b="$2" 'BEGIN {if (a == "-" || b == "-" || b + 0 == 0) print "-"; else printf "%.2f", a / b}'; }

row() { printf '%-6s %-5s %-9s %10s %10s %11s %11s %13s %11s\n' "$@"; }

report() {
    echo
    echo "Medians of $RUNS runs. ns/sample and B/sample subtract the one-second input."
    row work input impl samples seconds peak_KB ns/sample B/sample checksum
    local w f impl key
    for w in index read; do
        for f in long big; do
            for impl in quil peer; do
                key="$impl/$w/$f"
                read -r ns bs <<<"$(per_sample "$impl" "$w" "$f")"
                if ok "$key"; then
                    row "$w" "$f" "$impl" "${SAMPLES[$key]}" "$(median "${SECS[$key]}")" \
                        "$(median "${RSS[$key]}")" "$ns" "$bs" "${CHECK[$key]:0:11}"
                else
                    row "$w" "$f" "$impl" - - - - - -
                    echo "       error: ${ERR[$key]:-no result}"
                fi
                eval "NS_${impl}_${w}_${f}=\$ns; BS_${impl}_${w}_${f}=\$bs"
            done
        done
    done

    echo
    echo "Cross-check (quil and peer must see the same samples):"
    for f in long big; do
        for w in index read; do
            local q="quil/$w/$f" p="peer/$w/$f" a b what
            if [[ $w == index ]]; then a=${LAYOUT[$q]:-}; b=${LAYOUT[$p]:-}
            else a=${CHECK[$q]:-}; b=${CHECK[$p]:-}; fi
            if ! ok "$q" || ! ok "$p"; then echo "  $w $f: not compared (a side failed)"
            elif [[ $a == "$b" && ${SAMPLES[$q]} == "${SAMPLES[$p]}" ]]; then
                if [[ $w == index ]]; then what="offsets, sizes and sync flags"
                else what="sample bytes"; fi
                echo "  $w $f: same ${SAMPLES[$q]} samples, same $what"
            else
                echo "  $w $f: DIFFERENT (quil ${SAMPLES[$q]} samples $a, peer ${SAMPLES[$p]} samples $b)"
            fi
        done
    done

    local cat_s quil_big peer_big
    cat_s=$(median "$CAT_SECS")
    quil_big=$(ok quil/read/big && median "${SECS[quil/read/big]}" || echo -)
    peer_big=$(ok peer/read/big && median "${SECS[peer/read/big]}" || echo -)
    echo
    echo "Ratios quil/peer (per sample; below 1 means quil is better):"
    printf '  %-34s %6s   target <= 0.25\n' "index time, 2-hour input" "$(ratio "$NS_quil_index_long" "$NS_peer_index_long")"
    printf '  %-34s %6s   target <= 1\n'    "index peak memory, 2-hour input" "$(ratio "$BS_quil_index_long" "$BS_peer_index_long")"
    printf '  %-34s %6s\n'                  "index time, 2 GB input" "$(ratio "$NS_quil_index_big" "$NS_peer_index_big")"
    printf '  %-34s %6s   target <= 0.1\n'  "read time, 2-hour input" "$(ratio "$NS_quil_read_long" "$NS_peer_read_long")"
    printf '  %-34s %6s\n'                  "read time, 2 GB input" "$(ratio "$NS_quil_read_big" "$NS_peer_read_big")"
    printf '  %-34s %6s\n'                  "read peak memory, 2-hour input" "$(ratio "$BS_quil_read_long" "$BS_peer_read_long")"
    echo "Whole 2 GB read against cat (cat ${cat_s} s, $(stat -c %s "$BIG") bytes):"
    printf '  %-34s %6s   target <= 1.15\n' "quil / cat" "$(ratio "$quil_big" "$cat_s")"
    printf '  %-34s %6s\n'                  "peer / cat" "$(ratio "$peer_big" "$cat_s")"
    echo
    echo "One track of the 2 GB input (medians; own = the track's sample bytes, rchar ="
    echo "bytes the process read from files, /proc/self/io):"
    printf '  %-5s %-5s %8s %12s %12s %9s %9s\n' track impl samples own_bytes rchar rchar/own seconds
    local t
    for ((t = 1; t <= BIG_TRACKS; t++)); do
        for impl in quil peer; do
            key="$impl/track$t/big"
            if ok "$key"; then
                printf '  %-5s %-5s %8s %12s %12s %9s %9s\n' "$t" "$impl" "${SAMPLES[$key]}" \
                    "${BYTES[$key]}" "${RCHAR[$key]}" "$(ratio "${RCHAR[$key]}" "${BYTES[$key]}")" \
                    "$(median "${SECS[$key]}")"
            else
                printf '  %-5s %-5s error: %s\n' "$t" "$impl" "${ERR[$key]:-no result}"
            fi
        done
    done
    echo "  target: quil rchar/own <= 1.05 for every track"
    local tracks_s
    tracks_s=$(ok quil/tracks/big && median "${SECS[quil/tracks/big]}" || echo -)
    echo "Every sample of the 2 GB input, all of track 1, then track 2, ...:"
    printf '  %-34s %6s   (%s s; rchar %s)   target <= 1.15\n' "quil / cat" \
        "$(ratio "$tracks_s" "$cat_s")" "$tracks_s" "${RCHAR[quil/tracks/big]:--}"
    echo
    echo "Raw result lines: $OUT/raw.txt"
}

rewrite_report() {
    echo
    echo "Rewriting: medians of $RUNS runs; outputs on the file system of the inputs."
    row work input impl samples seconds peak_KB ns/sample B/sample checksum
    local w f impl key
    for w in remux faststart; do
        for f in long big; do
            [[ $w == faststart && $f == long ]] && continue
            for impl in quil peer; do
                key="$impl/$w/$f"
                read -r ns bs <<<"$(per_sample "$impl" "$w" "$f")"
                if ok "$key"; then
                    row "$w" "$f" "$impl" "${SAMPLES[$key]}" "$(median "${SECS[$key]}")" \
                        "$(median "${RSS[$key]}")" "$ns" "$bs" "${CHECK[$key]:0:11}"
                else
                    row "$w" "$f" "$impl" - - - - - -
                    echo "       error: ${ERR[$key]:-no result}"
                fi
                eval "NS_${impl}_${w}_${f}=\$ns; BS_${impl}_${w}_${f}=\$bs"
            done
            if [[ $f == big ]]; then row "$w" "$f" cp - "$(median "$CP_SECS")" - - - -; fi
        done
    done
    echo
    echo "Cross-check (quil and peer must copy the same sample bytes):"
    for f in long big; do
        local q="quil/remux/$f" p="peer/remux/$f"
        if ! ok "$q" || ! ok "$p"; then echo "  remux $f: not compared (a side failed)"
        elif [[ ${CHECK[$q]} == "${CHECK[$p]}" && ${SAMPLES[$q]} == "${SAMPLES[$p]}" ]]; then
            echo "  remux $f: same ${SAMPLES[$q]} samples, same bytes"
        else
            echo "  remux $f: DIFFERENT (quil ${SAMPLES[$q]} ${CHECK[$q]}, peer ${SAMPLES[$p]} ${CHECK[$p]})"
        fi
    done
    local cp_s secs
    cp_s=$(median "$CP_SECS")
    secs() { ok "$1" && median "${SECS[$1]}" || echo -; }
    echo
    echo "Ratios (below 1 means quil is faster):"
    printf '  %-40s %6s   target <= 1\n'    "remux 2 GB, quil / peer" "$(ratio "$(secs quil/remux/big)" "$(secs peer/remux/big)")"
    printf '  %-40s %6s   target <= 1.2\n'  "remux 2 GB, quil / cp" "$(ratio "$(secs quil/remux/big)" "$cp_s")"
    printf '  %-40s %6s\n'                  "remux 2 GB, peer / cp" "$(ratio "$(secs peer/remux/big)" "$cp_s")"
    printf '  %-40s %6s   target <= 0.25\n' "remux per sample, 2-hour input" "$(ratio "$NS_quil_remux_long" "$NS_peer_remux_long")"
    printf '  %-40s %6s\n'                  "remux peak memory per sample, 2-hour" "$(ratio "$BS_quil_remux_long" "$BS_peer_remux_long")"
    printf '  %-40s %6s   target <= 1\n'    "faststart 2 GB, quil / peer" "$(ratio "$(secs quil/faststart/big)" "$(secs peer/faststart/big)")"
    printf '  %-40s %6s   target <= 1.2\n'  "faststart 2 GB, quil / cp" "$(ratio "$(secs quil/faststart/big)" "$cp_s")"
    echo "cp of the 2 GB input: $cp_s s"
}

# --- every row in one table -------------------------------------------------------

# Median seconds of a key, or "-" when it has no result.
secs_of() { if ok "$1"; then median "${SECS[$1]}"; else echo -; fi; }
# calc EXPR A B...: awk arithmetic over a, b, c, d, "-" when any is missing.
calc() {
    local expr=$1; shift
    awk -v a="${1:--}" -v b="${2:--}" -v c="${3:--}" -v d="${4:--}" -v n="$#" \
        "BEGIN {if ((n > 0 && a == \"-\") || (n > 1 && b == \"-\") || (n > 2 && c == \"-\") ||
                    (n > 3 && d == \"-\")) {print \"-\"; exit} $expr}"
}

# cpu_ns IMPL WORKLOAD: processor time per sample on the 2-hour input, the
# one-second input's subtracted (sample counts of WORKLOAD, or of index for
# moov, which counts none).
cpu_ns() {
    local big="$1/$2/long" small="$1/$2/long_1s" counted=$2
    [[ $2 == moov ]] && counted=index
    ok "$big" && ok "$small" || { echo -; return; }
    calc 'printf "%.1f", (a - b) * 1e9 / (c - d)' "$(median "${CPU[$big]}")" \
        "$(median "${CPU[$small]}")" "${SAMPLES[$1/$counted/long]:--}" "${SAMPLES[$1/$counted/long_1s]:--}"
}

# One Markdown table with every row of the benchmark, from the medians of
# this run (README "Benchmarks" holds a copy). Rows whose workloads did not
# run in this invocation show "-".
summary() {
    local moov_ns="-" nq np t own
    if ok quil/moov/long && ok quil/moov/long_1s && ok quil/index/long && ok quil/index/long_1s; then
        moov_ns=$(calc 'printf "%.1f", (a - b) * 1e9 / (c - d)' \
            "$(secs_of quil/moov/long)" "$(secs_of quil/moov/long_1s)" \
            "${SAMPLES[quil/index/long]}" "${SAMPLES[quil/index/long_1s]}")
    fi
    local cat_s cp_s
    cat_s=$([[ -n ${CAT_SECS:-} ]] && calc 'printf "%.3f", a' "$(median "$CAT_SECS")" || echo -)
    cp_s=$([[ -n ${CP_SECS:-} ]] && calc 'printf "%.3f", a' "$(median "$CP_SECS")" || echo -)
    local -a own_q=() own_p=()
    for ((t = 1; t <= ${BIG_TRACKS:-0}; t++)); do
        ok "quil/track$t/big" && own_q+=("$(ratio "${RCHAR[quil/track$t/big]}" "${BYTES[quil/track$t/big]}")")
        ok "peer/track$t/big" && own_p+=("$(ratio "${RCHAR[peer/track$t/big]}" "${BYTES[peer/track$t/big]}")")
    done
    local samples=${SAMPLES[quil/index/long]:-}
    echo
    echo "Every row side by side (medians of $RUNS runs; load average ${LOAD_START:--} at the start,"
    echo "$(cut -d' ' -f1-3 /proc/loadavg) at the end; [processor time] where it differs from the clock):"
    echo
    echo "| workload | quil | libavformat | quil vs peer | goal |"
    echo "|---|---|---|---|---|"
    # Per-sample rows: wall clock, and processor time in brackets.
    local cq cpeer cm
    nq=${NS_quil_index_long:--}; np=${NS_peer_index_long:--}
    cq=$(cpu_ns quil index); cpeer=$(cpu_ns peer index); cm=$(cpu_ns quil moov)
    printf '| index every sample, 2-hour file (%s samples) | %s ns [%s], %s B per sample | %s ns [%s], %s B | %sx faster [%sx] | at least 4x faster, at most 16 B per sample |\n' \
        "${samples:--}" "$nq" "$cq" "${BS_quil_index_long:--}" "$np" "$cpeer" "${BS_peer_index_long:--}" \
        "$(calc 'printf "%.1f", b / a' "$nq" "$np")" "$(calc 'printf "%.1f", b / a' "$cq" "$cpeer")"
    printf '| read and parse the movie box only (the floor of indexing) | %s ns [%s] per sample | | index = %sx the floor [%sx] | index within 2x |\n' \
        "$moov_ns" "$cm" "$(calc 'printf "%.1f", a / b' "$nq" "$moov_ns")" "$(calc 'printf "%.1f", a / b' "$cq" "$cm")"
    local tq ct
    read -r tq _ <<<"$(per_sample quil table long)"
    ct=$(cpu_ns quil table); np=${NS_peer_index_long:--}; cpeer=$(cpu_ns peer index)
    printf '| the same index, a block of samples per call (`Mp4GetSampleTable`) | %s ns [%s] per sample | | %sx faster [%sx]; %sx the floor [%sx] | at least 4x faster, within 2x the floor |\n' \
        "$tq" "$ct" "$(calc 'printf "%.1f", b / a' "$tq" "$np")" "$(calc 'printf "%.1f", b / a' "$ct" "$cpeer")" \
        "$(calc 'printf "%.1f", a / b' "$tq" "$moov_ns")" "$(calc 'printf "%.1f", a / b' "$ct" "$cm")"
    nq=${NS_quil_read_long:--}; np=${NS_peer_read_long:--}
    cq=$(cpu_ns quil read); cpeer=$(cpu_ns peer read)
    printf '| read every sample'"'"'s bytes, 2-hour file, file order | %s ns [%s] per sample | %s ns [%s] | %sx faster [%sx] | at least 10x faster |\n' \
        "$nq" "$cq" "$np" "$cpeer" "$(calc 'printf "%.1f", b / a' "$nq" "$np")" "$(calc 'printf "%.1f", b / a' "$cq" "$cpeer")"
    printf '| read the 2 GB file, file order (`cat`: %s s) | %sx `cat` | %sx `cat` | | within 1.15x `cat` |\n' \
        "$cat_s" "$(ratio "$(secs_of quil/read/big)" "$cat_s")" "$(ratio "$(secs_of peer/read/big)" "$cat_s")"
    printf '| read the 2 GB file track after track | %sx `cat` | | | within 1.15x `cat` |\n' \
        "$(ratio "$(secs_of quil/tracks/big)" "$cat_s")"
    printf '| one track of the 2 GB file: bytes read / its own bytes, per track | %s | %s | | within 1.05 |\n' \
        "${own_q[*]:--}" "${own_p[*]:--}"
    nq=$(calc 'printf "%.2f", a' "$(secs_of quil/seek/long)"); np=$(calc 'printf "%.2f", a' "$(secs_of peer/seek/long)")
    printf '| a million seeks, 2-hour file (sync sample at or before a time) | %s us per seek | %s us | %sx the peer'"'"'s time | within 2x |\n' \
        "$nq" "$np" "$(ratio "$nq" "$np")"
    printf '| remux the 2 GB file (`cp`: %s s) | %sx `cp` | %sx `cp` | %sx the peer'"'"'s time | within 1.2x `cp`, faster than the peer |\n' \
        "$cp_s" "$(ratio "$(secs_of quil/remux/big)" "$cp_s")" "$(ratio "$(secs_of peer/remux/big)" "$cp_s")" \
        "$(ratio "$(secs_of quil/remux/big)" "$(secs_of peer/remux/big)")"
    nq=${NS_quil_remux_long:--}; np=${NS_peer_remux_long:--}
    printf '| remux the 2-hour file, per sample | %s ns | %s ns | %sx faster | at least 4x faster |\n' \
        "$nq" "$np" "$(calc 'printf "%.1f", b / a' "$nq" "$np")"
    printf '| faststart the 2 GB file | %sx `cp` | %sx `cp` | | keep |\n' \
        "$(ratio "$(secs_of quil/faststart/big)" "$cp_s")" "$(ratio "$(secs_of peer/faststart/big)" "$cp_s")"
}

run_rewrite() {
    local quil=${QUIL_REWRITE_PROGRAM:-$BUILD/bench/quil_rewrite}
    local peer=$BUILD/bench/avformat_rewrite_peer
    local out="$DATA/rewrite-out.mp4" i f w
    declare -A files=([long]=$LONG [long_1s]=$LONG_1S [big]=$BIG [big_1s]=$BIG_1S)
    CP_SECS=""
    for ((i = 1; i <= RUNS; i++)); do
        echo "rewrite run $i of $RUNS" >&2
        for w in remux faststart; do
            for f in long long_1s big big_1s; do
                [[ $w == faststart && $f == long* ]] && continue
                run_case "quil/$w/$f" "$quil" "$w" "${files[$f]}" "$out"
                run_case "peer/$w/$f" "$peer" "$w" "${files[$f]}" "$out"
            done
        done
        CP_SECS+="$(time_cp "$BIG" "$out") "
    done
    rewrite_report
}

# Indexing fragments: quil and the peer on the fragmented copy, and quil on
# the unfragmented original, alternating.
run_fragments() {
    local quil=${QUIL_BENCH_PROGRAM:-$BUILD/bench/quil_bench} peer=$BUILD/bench/avformat_peer i f
    declare -A files=([long]=$LONG [long_1s]=$LONG_1S [long_frag]=$LONG_FRAG [long_frag_1s]=$LONG_FRAG_1S)
    cat "$LONG" "$LONG_1S" "$LONG_FRAG" "$LONG_FRAG_1S" >/dev/null
    for ((i = 1; i <= RUNS; i++)); do
        echo "fragments run $i of $RUNS" >&2
        for f in long_frag long_frag_1s long long_1s; do
            run_case "quil/index/$f" "$quil" index "${files[$f]}"
            run_case "peer/index/$f" "$peer" index "${files[$f]}"
        done
    done
    echo
    echo "Indexing, medians of $RUNS runs. ns/sample and B/sample subtract the one-second input."
    row work input impl samples seconds peak_KB ns/sample B/sample checksum
    local impl key ns bs
    for f in long_frag long; do
        for impl in quil peer; do
            key="$impl/index/$f"
            read -r ns bs <<<"$(per_sample "$impl" index "$f")"
            if ok "$key"; then
                row index "$f" "$impl" "${SAMPLES[$key]}" "$(median "${SECS[$key]}")" \
                    "$(median "${RSS[$key]}")" "$ns" "$bs" "${LAYOUT[$key]:0:11}"
            else
                row index "$f" "$impl" - - - - - -
                echo "       error: ${ERR[$key]:-no result}"
            fi
            eval "NS_${impl}_${f}=\$ns; BS_${impl}_${f}=\$bs"
        done
    done
    local same=DIFFERENT
    [[ -n ${LAYOUT[quil/index/long_frag]:-} && ${LAYOUT[quil/index/long_frag]} == "${LAYOUT[peer/index/long_frag]:-}" ]] && same=same
    echo "Cross-check: quil and peer see the $same offsets, sizes and sync flags in the fragmented copy."
    echo "Ratios (per sample; below 1 means the first is better):"
    printf '  %-44s %6s   target <= 0.25\n' "fragmented index time, quil / peer" "$(ratio "$NS_quil_long_frag" "$NS_peer_long_frag")"
    printf '  %-44s %6s   target <= 1\n' "fragmented index memory, quil / peer" "$(ratio "$BS_quil_long_frag" "$BS_peer_long_frag")"
    printf '  %-44s %6s   target <= 1.5\n' "quil index time, fragmented / original" "$(ratio "$NS_quil_long_frag" "$NS_quil_long")"
    printf '  %-44s %6s\n' "quil index memory, fragmented / original" "$(ratio "$BS_quil_long_frag" "$BS_quil_long")"
}

main() {
    LOAD_START=$(cut -d' ' -f1-3 /proc/loadavg)
    generate
    [[ ${1:-} == data ]] && return 0
    build
    : >"$OUT/raw.txt"
    cat "$LONG" "$LONG_1S" "$BIG" "$BIG_1S" >/dev/null
    if [[ ${1:-} == rewrite ]]; then
        run_rewrite
        summary
        return 0
    fi
    if [[ ${1:-} == fragments ]]; then
        run_fragments
        return 0
    fi
    local quil=${QUIL_BENCH_PROGRAM:-$BUILD/bench/quil_bench} peer=$BUILD/bench/avformat_peer

    # Warm the page cache so every program, cat included, reads hot data,
    # each input freshly read in one pass: how earlier runs left its pages
    # (re-read piecemeal after their outputs pushed some out) changes what
    # copying it out of the cache costs by as much as half.
    local f
    for f in "$LONG" "$LONG_1S" "$BIG" "$BIG_1S"; do
        dd if="$f" iflag=nocache count=0 status=none  # this file's cached pages only
        cat "$f" >/dev/null
    done

    CAT_SECS=""
    local i w f
    declare -A files=([long]=$LONG [long_1s]=$LONG_1S [big]=$BIG [big_1s]=$BIG_1S)
    for ((i = 1; i <= RUNS; i++)); do
        echo "run $i of $RUNS" >&2
        for w in index read; do
            for f in long long_1s big big_1s; do
                # Alternate the two programs so drift affects both alike.
                run_case "quil/$w/$f" "$quil" "$w" "${files[$f]}"
                run_case "peer/$w/$f" "$peer" "$w" "${files[$f]}"
            done
        done
        # One track at a time, then all tracks one after the other.
        BIG_TRACKS=$(field tracks "$(grep 'workload=index' "$OUT/raw.txt" | grep "file=$BIG\$" | head -n 1)")
        BIG_TRACKS=${BIG_TRACKS:-2}
        local t
        for ((t = 1; t <= BIG_TRACKS; t++)); do
            run_case "quil/track$t/big" "$quil" track "$t" "$BIG"
            run_case "peer/track$t/big" "$peer" track "$t" "$BIG"
        done
        run_case "quil/tracks/big" "$quil" tracks "$BIG"
        CAT_SECS+="$(time_cat "$BIG") "
        # The floor of indexing: the movie box read and parsed, no track bound.
        run_case "quil/moov/long" "$quil" moov "$LONG"
        run_case "quil/moov/long_1s" "$quil" moov "$LONG_1S"
        # The index's answers a block of samples per call.
        run_case "quil/table/long" "$quil" table "$LONG"
        run_case "quil/table/long_1s" "$quil" table "$LONG_1S"
        run_case "quil/seek/long" "$quil" seek "$LONG"
        run_case "peer/seek/long" "$peer" seek "$LONG"
    done
    report
    run_rewrite
    summary
}

main "$@"
