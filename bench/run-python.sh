#!/usr/bin/env bash
# The Python package against its peers, side by side in one run:
#   table  track.sample_table() of every track of the 2-hour input, against
#          PyAV demuxing the same packets and quil_bench's C++ index workload;
#   read   every sample of the 2 GB input through read_into with one reused
#          buffer, in file order, against quil_bench's C++ read workload;
#   index  python/examples/index_collection.py over 200 copies of the shared
#          corpus files with a two-worker local Dask cluster, against the
#          same script in one process (--workers 0); and the same over 50
#          hard links to the 2-hour input, where each file is real work.
#
#   bench/run-python.sh
#
# Environment: RUNS (default 5; medians are printed), JOBS, QUIL_BENCH_DATA,
# QUIL_BENCH_BUILD (as bench/run.sh), QUIL_CORPUS (default /work/shared/corpus:
# the files copied into the collection; nothing of it is committed).
set -euo pipefail

HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
ROOT=$(dirname "$HERE")
DATA=${QUIL_BENCH_DATA:-$HERE/data}
BUILD=${QUIL_BENCH_BUILD:-$ROOT/build-bench}
OUT=$HERE/out
RUNS=${RUNS:-5}
JOBS=${JOBS:-2}
CORPUS=${QUIL_CORPUS:-/work/shared/corpus}
PY=/usr/bin/python3
LONG=$DATA/long.mp4
BIG=$DATA/big.mp4
COLLECTION=$DATA/collection
LONG_COLLECTION=$DATA/collection-long

die() { echo "run-python.sh: $*" >&2; exit 1; }

prepare() {
    QUIL_BENCH_DATA=$DATA "$HERE/run.sh" data
    cmake -S "$ROOT" -B "$BUILD" -G Ninja -Wno-dev -DCMAKE_BUILD_TYPE=Release \
        -DQUIL_BUILD_BENCH=ON -DQUIL_BUILD_PYTHON=ON -DQUIL_BUILD_TESTS=OFF \
        -DQUIL_BUILD_TOOLS=OFF -DQUIL_BUILD_FUZZERS=OFF -DQUIL_SANITIZE=OFF >/dev/null
    mkdir -p "$OUT"
    ninja -C "$BUILD" -j"$JOBS" quil_bench quil_python >"$OUT/python-build.log" 2>&1 ||
        { cat "$OUT/python-build.log" >&2; die "build failed"; }
    "$PY" -c 'import av, dask.distributed' 2>/dev/null ||
        die "needs python3-av, python3-dask and python3-distributed (scripts/install-deps.sh)"
    if [[ ! -d $COLLECTION ]]; then
        local sources=() n=0
        mapfile -t sources < <(find "$CORPUS" -maxdepth 1 -type f \
            \( -name '*.mp4' -o -name '*.mov' -o -name '*.3gp' -o -name '*.m4a' \) | sort)
        (( ${#sources[@]} > 0 )) || die "no media files in $CORPUS"
        mkdir -p "$COLLECTION.partial"
        while (( n < 200 )); do
            local source=${sources[n % ${#sources[@]}]}
            cp "$source" "$COLLECTION.partial/$(printf '%03d' "$n")-$(basename "$source")"
            n=$((n + 1))
        done
        mv "$COLLECTION.partial" "$COLLECTION"
    fi
    if [[ ! -d $LONG_COLLECTION ]]; then
        mkdir -p "$LONG_COLLECTION.partial"
        local n
        for ((n = 0; n < 50; n++)); do ln "$LONG" "$LONG_COLLECTION.partial/$n.mp4"; done
        mv "$LONG_COLLECTION.partial" "$LONG_COLLECTION"
    fi
}

declare -A SECS LAYOUT SAMPLES

field() { sed -n "s/.* $1=\([^ ]*\).*/\1/p" <<<" $2"; }

# record KEY LINE: a result line's seconds, samples and layout.
record() {
    SECS[$1]+="$(field seconds "$2") "
    SAMPLES[$1]=$(field samples "$2")
    LAYOUT[$1]=$(field layout "$2")
    echo "$1 $2" >>"$OUT/python-raw.txt"
}

python_case() { record "$1" "$(PYTHONPATH=$BUILD/python "$PY" "$HERE/python_bench.py" "$2" "$3")"; }
cxx_case() { record "$1" "$("$BUILD/bench/quil_bench" "$2" "$3")"; }

# index_case KEY DIR WORKERS: the whole script's wall time, and the
# indexing time it reports (after the cluster is up and its workers have
# imported quil).
index_case() {
    local start end line summary=$OUT/summary.jsonl
    start=$EPOCHREALTIME
    line=$(PYTHONPATH=$BUILD/python "$PY" "$ROOT/python/examples/index_collection.py" "$2" \
        --out "$summary" --workers "$3" 2>&1 >/dev/null | tail -n 1)
    end=$EPOCHREALTIME
    SECS[$1]+="$(awk -v a="$start" -v b="$end" 'BEGIN {printf "%.6f", b - a}') "
    SECS[$1/indexing]+="$(sed -n 's/.* in \([0-9.]*\) s.*/\1/p' <<<"$line") "
    SAMPLES[$1]=$(wc -l <"$summary")
}

median() { tr ' ' '\n' <<<"$1" | sed '/^$/d' | sort -g |
           awk '{v[NR]=$1} END {if (NR) print (NR%2 ? v[(NR+1)/2] : (v[NR/2]+v[NR/2+1])/2)}'; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN {if (b + 0 == 0) print "-"; else printf "%.2f", a / b}'; }

report() {
    local m
    echo
    echo "Medians of $RUNS runs ($(nproc) cores, $(date -u +%F); load average at the end:"
    echo "$(cut -d' ' -f1-3 /proc/loadavg), other builds may share the machine)."
    printf '%-44s %9s %8s\n' case samples seconds
    for m in table/quil table/pyav table/cxx read/quil read/cxx \
             {corpus,long}/{dask2,dask2/indexing,one,one/indexing}; do
        printf '%-44s %9s %8s\n' "$m" "${SAMPLES[${m%/indexing}]:-}" "$(median "${SECS[$m]}")"
    done
    echo
    echo "Ratios:"
    printf '  %-52s %6s   target >= 10\n' "PyAV demux / sample_table(), 2-hour input" \
        "$(ratio "$(median "${SECS[table/pyav]}")" "$(median "${SECS[table/quil]}")")"
    printf '  %-52s %6s   target <= 1.5\n' "sample_table() / C++ index, 2-hour input" \
        "$(ratio "$(median "${SECS[table/quil]}")" "$(median "${SECS[table/cxx]}")")"
    printf '  %-52s %6s   target <= 1.3\n' "read_into / C++ read, 2 GB input" \
        "$(ratio "$(median "${SECS[read/quil]}")" "$(median "${SECS[read/cxx]}")")"
    local c
    for c in corpus long; do
        printf '  %-52s %6s   target >= 1.6\n' "$c: one process / 2 Dask workers, whole run" \
            "$(ratio "$(median "${SECS[$c/one]}")" "$(median "${SECS[$c/dask2]}")")"
        printf '  %-52s %6s\n' "$c: one process / 2 Dask workers, indexing only" \
            "$(ratio "$(median "${SECS[$c/one/indexing]}")" "$(median "${SECS[$c/dask2/indexing]}")")"
    done
    echo "Same samples seen: table $([[ ${LAYOUT[table/quil]} == "${LAYOUT[table/pyav]}" ]] && echo yes || echo NO)" \
         "(quil ${SAMPLES[table/quil]}, PyAV ${SAMPLES[table/pyav]}, C++ ${SAMPLES[table/cxx]})"
    echo "Raw lines: $OUT/python-raw.txt"
}

main() {
    prepare
    : >"$OUT/python-raw.txt"
    cat "$LONG" "$BIG" >/dev/null  # everything reads from the page cache
    local i
    for ((i = 1; i <= RUNS; i++)); do
        echo "run $i of $RUNS" >&2
        python_case table/quil table "$LONG"
        python_case table/pyav pyav "$LONG"
        cxx_case table/cxx index "$LONG"
        python_case read/quil read "$BIG"
        cxx_case read/cxx read "$BIG"
        index_case corpus/dask2 "$COLLECTION" 2
        index_case corpus/one "$COLLECTION" 0
        index_case long/dask2 "$LONG_COLLECTION" 2
        index_case long/one "$LONG_COLLECTION" 0
    done
    report
}

main "$@"
