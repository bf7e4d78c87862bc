#!/usr/bin/env bash
# Reading over HTTP on loopback: quil against libavformat opening the same
# URL, served by nginx on 127.0.0.1 (generated configuration, temporary
# prefix, stopped at the end).
#
#   bench/run-http.sh
#
# Input: the 2-hour file of bench/run.sh (long.mp4), copied with its movie
# box in front (long_faststart.mp4, ffmpeg -c copy -movflags +faststart):
# quil reads nothing after "mdat" over the network, so the file as ffmpeg
# first wrote it (movie box last) cannot be opened by URL.
#
# Cases, each run RUNS times (default 5), quil and the peer alternating:
#   info   quil: the tool, `quil info URL`; peer: `ffprobe -show_format
#          -show_streams URL` (both whole processes, timed from outside)
#   index  quil_bench index URL / avformat_peer index URL
#   read   quil_bench read URL / avformat_peer read URL (every sample)
#   tracks quil_bench digest URL: all samples of track 1, then of track 2
# and, on the 2 GB file of run.sh (big.mp4, copied with its movie box in
# front as big_faststart.mp4 when missing; skipped without big.mp4):
#   big1   quil_bench track 1 / avformat_peer track 1 (the video alone)
#   big2   quil_bench track 2 / avformat_peer track 2 (the audio alone)
#   bigall quil_bench read / avformat_peer read (every track, file order)
# Bytes transferred are the `$bytes_sent` of nginx's access log for the run
# (response headers included); /track is their ratio to the sample bytes the
# run returned.
#
# Environment: RUNS, JOBS, QUIL_BENCH_DATA, QUIL_BENCH_BUILD as for run.sh;
# PORT (default 18490); WORKLOADS (default "info index read tracks big1 big2
# bigall") picks cases; PREBUILT=1 runs the programs already in
# QUIL_BENCH_BUILD (e.g. a build of another revision) without building.
set -euo pipefail

HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
ROOT=$(dirname "$HERE")
DATA=${QUIL_BENCH_DATA:-$HERE/data}
BUILD=${QUIL_BENCH_BUILD:-$ROOT/build-bench}
OUT=$HERE/out
RUNS=${RUNS:-5}
JOBS=${JOBS:-2}
PORT=${PORT:-18490}
LONG=$DATA/long.mp4
INPUT=$DATA/long_faststart.mp4
BIG=$DATA/big.mp4
BIG_INPUT=$DATA/big_faststart.mp4
WORKLOADS=${WORKLOADS:-info index read tracks big1 big2 bigall}

die() { echo "run-http.sh: $*" >&2; exit 1; }
NGINX=$(command -v nginx || echo /usr/sbin/nginx)
[[ -x $NGINX ]] || die "nginx not found (scripts/install-deps.sh)"
command -v ffprobe >/dev/null || die "ffprobe not found (scripts/install-deps.sh)"

ff() { ffmpeg -nostdin -hide_banner -loglevel error -y "$@"; }

# The same clip and loop as run.sh, without its 2 GB input.
generate() {
    mkdir -p "$DATA"
    if [[ ! -s $DATA/small_clip.mp4 ]]; then
        ff -f lavfi -i "testsrc2=size=160x90:rate=30:duration=10" \
           -f lavfi -i "sine=frequency=440:sample_rate=48000:duration=10" \
           -c:v libx264 -preset veryfast -pix_fmt yuv420p -c:a aac -b:a 64k -ac 2 \
           "$DATA/small_clip.partial.mp4"
        mv "$DATA/small_clip.partial.mp4" "$DATA/small_clip.mp4"
    fi
    if [[ ! -s $LONG ]]; then
        echo "generating $(basename "$LONG")" >&2
        ff -stream_loop -1 -i "$DATA/small_clip.mp4" -c copy -t 7200 "$LONG.partial.mp4"
        mv "$LONG.partial.mp4" "$LONG"
    fi
    if [[ ! -s $INPUT ]]; then
        echo "generating $(basename "$INPUT")" >&2
        ff -i "$LONG" -map 0 -c copy -movflags +faststart "$INPUT.partial.mp4"
        mv "$INPUT.partial.mp4" "$INPUT"
    fi
    if [[ -s $BIG && ! -s $BIG_INPUT ]]; then
        echo "generating $(basename "$BIG_INPUT")" >&2
        ff -i "$BIG" -map 0 -c copy -movflags +faststart "$BIG_INPUT.partial.mp4"
        mv "$BIG_INPUT.partial.mp4" "$BIG_INPUT"
    fi
}

wanted() { [[ " $WORKLOADS " == *" $1 "* ]] && { [[ $1 != big* ]] || [[ -s $BIG_INPUT ]]; }; }

build() {
    mkdir -p "$OUT"
    [[ ${PREBUILT:-0} == 1 ]] && return 0
    cmake -S "$ROOT" -B "$BUILD" -G Ninja -DCMAKE_BUILD_TYPE=Release \
        -DQUIL_BUILD_BENCH=ON -DQUIL_BUILD_TESTS=OFF -DQUIL_BUILD_TOOLS=ON \
        -DQUIL_BUILD_FUZZERS=OFF -DQUIL_SANITIZE=OFF >/dev/null
    mkdir -p "$OUT"
    ninja -C "$BUILD" -j"$JOBS" quil_bench avformat_peer quil_tool >"$OUT/build-http.log" 2>&1 ||
        { cat "$OUT/build-http.log" >&2; die "build failed"; }
}

WORK=""
NGINX_PID=""
stop_nginx() {
    [[ -n $NGINX_PID ]] && kill "$NGINX_PID" 2>/dev/null && wait "$NGINX_PID" 2>/dev/null
    [[ -n $WORK ]] && rm -rf "$WORK"
    return 0
}
trap stop_nginx EXIT

start_nginx() {
    WORK=$(mktemp -d "${TMPDIR:-/tmp}/quil-bench-http.XXXXXX")
    chmod 755 "$WORK"
    mkdir -p "$WORK/tmp" "$WORK/www"
    ln "$INPUT" "$WORK/www/long.mp4" 2>/dev/null || ln -s "$INPUT" "$WORK/www/long.mp4"
    if [[ -s $BIG_INPUT ]]; then
        ln "$BIG_INPUT" "$WORK/www/big.mp4" 2>/dev/null || ln -s "$BIG_INPUT" "$WORK/www/big.mp4"
    fi
    cat >"$WORK/nginx.conf" <<EOF
worker_processes 1;
daemon off;
pid $WORK/nginx.pid;
error_log $WORK/error.log;
events { worker_connections 64; }
http {
    log_format sent '\$bytes_sent';
    access_log $WORK/access.log sent;
    client_body_temp_path $WORK/tmp;
    proxy_temp_path $WORK/tmp;
    fastcgi_temp_path $WORK/tmp;
    uwsgi_temp_path $WORK/tmp;
    scgi_temp_path $WORK/tmp;
    sendfile on;
    server { listen 127.0.0.1:$PORT; root $WORK/www; }
}
EOF
    "$NGINX" -c "$WORK/nginx.conf" -p "$WORK" 2>"$WORK/nginx.err" &
    NGINX_PID=$!
    for _ in $(seq 50); do
        (exec 3<>"/dev/tcp/127.0.0.1/$PORT") 2>/dev/null && return 0
        sleep 0.1
    done
    die "nginx did not start"
}

declare -A SECS RSS BYTES SAMPLES CHECK ERR TRACKBYTES

field() { sed -n "s/.* $1=\([^ ]*\).*/\1/p" <<<" $2"; }
median() { tr ' ' '\n' <<<"$1" | sed '/^$/d' | sort -g |
           awk '{v[NR]=$1} END {if (NR) print (NR%2 ? v[(NR+1)/2] : (v[NR/2]+v[NR/2+1])/2)}'; }
sent_so_far() { awk '{s += $1} END {printf "%.0f\n", s}' "$WORK/access.log" 2>/dev/null || echo 0; }
now() { echo "$EPOCHREALTIME"; }

# measure KEY COMMAND...: one run; the result line (if any) is parsed, wall
# time and bytes sent are taken from outside.
measure() {
    local key=$1; shift
    local before after start end line status=0
    before=$(sent_so_far)
    start=$(now)
    line=$("$@" 2>"$OUT/stderr-http") || status=$?
    end=$(now)
    sleep 0.2  # let nginx log the request of a connection closed just now
    after=$(sent_so_far)
    if (( status != 0 )); then
        ERR[$key]=$(head -n 1 "$OUT/stderr-http"); return 0
    fi
    local seconds
    seconds=$(field seconds "$line")
    [[ -n $seconds ]] || seconds=$(awk -v a="$start" -v b="$end" 'BEGIN {printf "%.6f", b - a}')
    SECS[$key]+="$seconds "
    RSS[$key]+="$(field maxrss_kb "$line") "
    BYTES[$key]+="$((after - before)) "
    SAMPLES[$key]=$(field samples "$line")
    CHECK[$key]=$(field checksum "$line")
    TRACKBYTES[$key]=$(field bytes "$line")
}

row() { printf '%-6s %-5s %10s %10s %14s %9s %7s %9s %17s\n' "$@"; }

report() {
    local size url=$1 bigsize=0
    size=$(stat -c %s "$INPUT")
    [[ -s $BIG_INPUT ]] && bigsize=$(stat -c %s "$BIG_INPUT")
    echo
    echo "HTTP on loopback, $(basename "$INPUT") ($size bytes; big* rows:"
    echo "$(basename "$BIG_INPUT"), $bigsize bytes), medians of $RUNS runs, load $(cut -d' ' -f1-3 /proc/loadavg)"
    row work impl seconds peak_KB bytes_sent /file /track samples checksum
    local w impl key
    for w in $WORKLOADS; do
        wanted "$w" || continue
        for impl in quil peer; do
            key=$impl/$w
            [[ $w == tracks && $impl == peer ]] && continue
            if [[ -n ${ERR[$key]:-} || -z ${SECS[$key]:-} ]]; then
                row "$w" "$impl" - - - - - -
                echo "       error: ${ERR[$key]:-no result}"
                continue
            fi
            local b s=$size t=${TRACKBYTES[$key]:-}
            [[ $w == big* ]] && s=$bigsize
            b=$(median "${BYTES[$key]}")
            row "$w" "$impl" "$(median "${SECS[$key]}")" "$(median "${RSS[$key]}")" "$b" \
                "$(awk -v a="$b" -v s="$s" 'BEGIN {printf "%.3f", a / s}')" \
                "$([[ -n $t && $t != 0 ]] && awk -v a="$b" -v t="$t" 'BEGIN {printf "%.3f", a / t}' || echo -)" \
                "${SAMPLES[$key]:--}" "${CHECK[$key]:--}"
        done
    done
    for w in read big1 big2 bigall; do
        wanted "$w" || continue
        if [[ -n ${CHECK[quil/$w]:-} && ${CHECK[quil/$w]} == "${CHECK[peer/$w]:-}" ]]; then
            echo "$w: same ${SAMPLES[quil/$w]} samples and sample bytes in both"
        else
            echo "$w: checksums differ or a side failed"
        fi
    done
    echo "info: whole processes timed from outside (peak_KB not measured); index and read:"
    echo "      in-process time from open to close, as in run.sh. tracks: quil_bench digest,"
    echo "      every sample of track 1, then of track 2 (the time includes hashing every"
    echo "      byte; what matters is the bytes sent). URL: $url"
}

main() {
    generate
    build
    start_nginx
    local url="http://127.0.0.1:$PORT/long.mp4" big="http://127.0.0.1:$PORT/big.mp4"
    local quil=$BUILD/quil bench=$BUILD/bench/quil_bench peer=$BUILD/bench/avformat_peer
    cat "$INPUT" >/dev/null
    wanted big1 || wanted big2 || wanted bigall && cat "$BIG_INPUT" >/dev/null
    for ((i = 1; i <= RUNS; i++)); do
        echo "run $i of $RUNS" >&2
        if wanted info; then
            measure quil/info "$quil" info "$url"
            measure peer/info ffprobe -v error -show_format -show_streams "$url"
        fi
        if wanted index; then
            measure quil/index "$bench" index "$url"
            measure peer/index "$peer" index "$url"
        fi
        if wanted read; then
            measure quil/read "$bench" read "$url"
            measure peer/read "$peer" read "$url"
        fi
        wanted tracks && measure quil/tracks "$bench" digest "$url"
        local n
        for n in 1 2; do
            if wanted "big$n"; then
                measure "quil/big$n" "$bench" track "$n" "$big"
                measure "peer/big$n" "$peer" track "$n" "$big"
            fi
        done
        if wanted bigall; then
            measure quil/bigall "$bench" read "$big"
            measure peer/bigall "$peer" read "$big"
        fi
    done
    report "$url" | tee "$OUT/http.txt"
}

main "$@"
