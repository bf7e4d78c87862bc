#!/usr/bin/env bash
# Developer check of reading over HTTP: serves every file of a directory
# through nginx on 127.0.0.1 (generated configuration, temporary prefix)
# and compares, file by file, what quil gives for the local path and for
# its URL:
#   quil info --json    (the "file" field names the path, so it is blanked)
#   quil samples
#   quil_bench digest   (a hash of every byte of every sample)
# Exit codes are compared too, so a file that fails locally must fail the
# same way over HTTP.
#
#   scripts/check-http.sh [DIR]     default DIR: /work/shared/corpus
#
# Environment: QUIL (the tool) and QUIL_BENCH (quil_bench); when unset, both
# are built in build-http/ (Release, benchmarks on). PORT (default 18480).
# KEEP=1 keeps the temporary directory (configuration, logs, outputs).
#
# Files whose "moov" comes after their first "mdat" are expected to fail
# over HTTP with "not an MP4 file": nothing after the media data box is read
# from the network. They are counted apart, not as differences; instead a
# copy with the movie box in front (ffmpeg -c copy -movflags +faststart) is
# compared, local copy against its URL, when ffmpeg can remux the file.
set -euo pipefail

HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
ROOT=$(dirname "$HERE")
DIR=$(cd "${1:-/work/shared/corpus}" && pwd)
PORT=${PORT:-18480}

die() { echo "check-http: $*" >&2; exit 1; }
command -v nginx >/dev/null 2>&1 || [[ -x /usr/sbin/nginx ]] || die "nginx not found (scripts/install-deps.sh)"
NGINX=$(command -v nginx || echo /usr/sbin/nginx)

if [[ -z ${QUIL:-} || -z ${QUIL_BENCH:-} ]]; then
    BUILD=$ROOT/build-http
    cmake -S "$ROOT" -B "$BUILD" -G Ninja -DCMAKE_BUILD_TYPE=Release -DQUIL_BUILD_BENCH=ON \
        -DQUIL_BUILD_TESTS=OFF >/dev/null
    ninja -C "$BUILD" -j"${JOBS:-2}" quil_tool quil_bench >/dev/null
    QUIL=${QUIL:-$BUILD/quil}
    QUIL_BENCH=${QUIL_BENCH:-$BUILD/bench/quil_bench}
fi

WORK=$(mktemp -d "${TMPDIR:-/tmp}/quil-http.XXXXXX")
chmod 755 "$WORK"  # nginx workers may run as another user
NGINX_PID=""
cleanup() {
    [[ -n $NGINX_PID ]] && kill "$NGINX_PID" 2>/dev/null && wait "$NGINX_PID" 2>/dev/null
    [[ -n ${KEEP:-} ]] || rm -rf "$WORK"
}
trap cleanup EXIT

# nginx_config ROOT PORT PREFIX: a server for ROOT on 127.0.0.1 only, with
# the bytes sent per request in the access log.
nginx_config() {
    cat <<EOF
worker_processes 1;
daemon off;
pid $3/nginx.pid;
error_log $3/error.log;
events { worker_connections 256; }
http {
    log_format sent '\$status \$bytes_sent \$request';
    access_log $3/access.log sent;
    client_body_temp_path $3/tmp;
    proxy_temp_path $3/tmp;
    fastcgi_temp_path $3/tmp;
    uwsgi_temp_path $3/tmp;
    scgi_temp_path $3/tmp;
    sendfile on;
    server {
        listen 127.0.0.1:$2;
        root $1;
        location / { default_type application/octet-stream; }
    }
}
EOF
}

start_nginx() {
    mkdir -p "$WORK/tmp" "$WORK/www/faststart"
    nginx_config "$WORK/www" "$PORT" "$WORK" >"$WORK/nginx.conf"
    "$NGINX" -c "$WORK/nginx.conf" -p "$WORK" 2>"$WORK/nginx.err" &
    NGINX_PID=$!
    for _ in $(seq 50); do
        (exec 3<>"/dev/tcp/127.0.0.1/$PORT") 2>/dev/null && return 0
        kill -0 "$NGINX_PID" 2>/dev/null || break
        sleep 0.1
    done
    cat "$WORK/nginx.err" >&2
    die "nginx did not start on 127.0.0.1:$PORT"
}

# True when the first top-level "mdat" comes before the first "moov".
movie_after_media() {
    python3 - "$1" <<'EOF'
import struct, sys
with open(sys.argv[1], "rb") as f:
    data = f.read()
pos = 0
while pos + 8 <= len(data):
    size, kind = struct.unpack(">I4s", data[pos:pos + 8])
    if size == 1 and pos + 16 <= len(data):
        size = struct.unpack(">Q", data[pos + 8:pos + 16])[0]
    if kind == b"moov":
        sys.exit(1)
    if kind == b"mdat":
        sys.exit(0)
    if size < 8:
        break
    pos += size
sys.exit(1)
EOF
}

# run OUT COMMAND...: stdout to OUT, exit code appended as a last line.
run() {
    local out=$1; shift
    local status=0
    timeout 120 "$@" >"$out" 2>/dev/null || status=$?
    echo "exit $status" >>"$out"
}

# compare_file FILE URL: one line, "same", "after-mdat" or "DIFFERENT".
compare_file() {
    local file=$1 url=$2 name local_path
    name=$(basename "$file")
    local_path=$file
    local a=$WORK/local b=$WORK/remote
    mkdir -p "$a" "$b"

    run "$a/info" "$QUIL" info "$local_path" --json
    run "$b/info" "$QUIL" info "$url" --json
    sed -i "s|$local_path|FILE|g" "$a/info"
    sed -i "s|$url|FILE|g" "$b/info"
    run "$a/samples" "$QUIL" samples "$local_path"
    run "$b/samples" "$QUIL" samples "$url"
    run "$a/digest" "$QUIL_BENCH" digest "$local_path"
    run "$b/digest" "$QUIL_BENCH" digest "$url"
    sed -i -E 's/ (seconds|maxrss_kb)=[^ ]*//g; s/ file=.*//' "$a/digest" "$b/digest"

    local what
    for what in info samples digest; do
        if ! cmp -s "$a/$what" "$b/$what"; then
            if movie_after_media "$file" && ! grep -q '^exit 0' "$b/info"; then
                echo "after-mdat $name"
            else
                echo "DIFFERENT $name ($what)"
                diff "$a/$what" "$b/$what" | head -n 6 | sed 's/^/    /'  || true
            fi
            return
        fi
    done
    echo "same $name"
}

# A copy of FILE with the movie box first, in www/faststart; false when
# ffmpeg cannot remux it.
faststart_copy() {
    command -v ffmpeg >/dev/null 2>&1 || return 1
    ffmpeg -nostdin -hide_banner -loglevel quiet -y -i "$1" -map 0 -c copy \
        -movflags +faststart -f "$(ffmpeg_format "$1")" "$2" 2>/dev/null
}
ffmpeg_format() {
    case $1 in *.mov) echo mov ;; *.3gp) echo 3gp ;; *.3g2) echo 3g2 ;; *.m4a) echo ipod ;; *) echo mp4 ;; esac
}

tally() {
    echo "$1"
    case $1 in
        same*) same=$((same + 1)) ;;
        after-mdat*) after=$((after + 1)) ;;
        *) different=$((different + 1)) ;;
    esac
}

start_nginx
echo "serving $DIR on http://127.0.0.1:$PORT/" >&2
same=0; after=0; different=0; remuxed=0
while IFS= read -r -d '' file; do
    case $file in *.json|*.md|*README*) continue ;; esac
    name=$(basename "$file")
    ln -s "$file" "$WORK/www/$name"
    line=$(compare_file "$file" "http://127.0.0.1:$PORT/$name")
    tally "$line"
    if [[ $line == after-mdat* ]] && faststart_copy "$file" "$WORK/www/faststart/$name"; then
        remuxed=$((remuxed + 1))
        tally "$(compare_file "$WORK/www/faststart/$name" "http://127.0.0.1:$PORT/faststart/$name" |
                 sed '1s/ / faststart copy of /')"
    fi
done < <(find "$DIR" -maxdepth 1 -type f -print0 | sort -z)

bytes=$(awk '{s += $2} END {printf "%.0f\n", s}' "$WORK/access.log")
echo
echo "same: $same   moov after mdat (not read over HTTP): $after" \
     "(faststart copies compared: $remuxed)   different: $different"
echo "bytes sent by nginx: $bytes"
(( different == 0 ))
