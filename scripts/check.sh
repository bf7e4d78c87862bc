#!/usr/bin/env bash
# The project's full check (what `make check` and CI run):
#   1. release build in build/, all tests through ctest (the Python
#      package's pytest tests among them);
#   2. ASan + UBSan build in build-asan/, all tests again;
#   3. when clang and its libFuzzer runtime are present, the fuzz targets in
#      build-fuzz/, each run for FUZZ_SECONDS on a seed corpus made of the
#      test fixtures and the example file.
# Ends with one line "N passed, M failed" (N and M count ctest results of
# both test runs; a stage that could not run counts as one failure) and exits
# non-zero unless everything passed.
#
# Usage: scripts/check.sh [all|fuzz]   (fuzz: only stage 3)
# Environment: JOBS (default 2), FUZZ_SECONDS (default 45), FUZZ_RUNS (when
# set, each fuzz target runs that many executions instead of FUZZ_SECONDS).
set -uo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
jobs=${JOBS:-2}
fuzz_seconds=${FUZZ_SECONDS:-45}
mode=${1:-all}

passed=0
failed=0
problems=()

problem() {
  problems+=("$1")
  failed=$((failed + 1))
}

banner() { printf '\n== %s\n' "$*"; }

# configure DIR [cmake args...]: quiet unless it fails.
configure() {
  local dir=$1
  shift
  local log
  log=$(mktemp)
  if ! cmake -S . -B "$dir" -G Ninja -Wno-dev "$@" >"$log" 2>&1; then
    cat "$log"
    rm -f "$log"
    return 1
  fi
  rm -f "$log"
}

# build_tree DIR [cmake args...]
build_tree() {
  local dir=$1
  configure "$@" && ninja -C "$dir" -j"$jobs"
}

# run_tests DIR: runs ctest there and adds its counts to the totals.
run_tests() {
  local dir=$1 log summary total failures
  log=$(mktemp)
  ctest --test-dir "$dir" --output-on-failure -j"$jobs" --timeout 300 2>&1 | tee "$log"
  summary=$(grep -Eo '[0-9]+ tests? failed out of [0-9]+' "$log" | tail -n 1)
  rm -f "$log"
  if [ -z "$summary" ]; then
    problem "$dir: ctest found no tests or did not finish"
    return
  fi
  failures=$(echo "$summary" | awk '{print $1}')
  total=$(echo "$summary" | awk '{print $NF}')
  passed=$((passed + total - failures))
  failed=$((failed + failures))
  [ "$failures" -eq 0 ] || problems+=("$dir: $failures of $total tests failed")
}

have_libfuzzer() {
  command -v clang++ >/dev/null 2>&1 || return 1
  local probe
  probe=$(mktemp -d)
  printf '%s\n' '#include <cstddef>' '#include <cstdint>' \
    'extern "C" int LLVMFuzzerTestOneInput(const uint8_t*, size_t) { return 0; }' \
    >"$probe/probe.cpp"
  clang++ -fsanitize=fuzzer "$probe/probe.cpp" -o "$probe/probe" >/dev/null 2>&1
  local status=$?
  rm -rf "$probe"
  return $status
}

# Seeds: every fixture and example media file cut to at most 16 KiB with its
# movie box whole (the fuzzers' working corpora live in build-fuzz/corpus/,
# so the committed files are never modified).
make_seeds() {
  local seeds=build-fuzz/seeds
  rm -rf "$seeds"
  mkdir -p "$seeds"
  python3 scripts/make-fuzz-seeds.py "$seeds" $(find tests/data examples -maxdepth 1 -type f \
    \( -name '*.mp4' -o -name '*.mov' -o -name '*.3gp' -o -name '*.m4a' \)) >/dev/null
  echo "$seeds"
}

# run_fuzzer TARGET SEEDS: a run of FUZZ_SECONDS, or of FUZZ_RUNS executions
# when that is set. Any single allocation above 256 MB is a finding: no input
# of at most 16 KiB can justify one.
run_fuzzer() {
  local target=$1 seeds=$2
  local corpus=build-fuzz/corpus/$target artifacts=build-fuzz/artifacts log
  mkdir -p "$corpus" "$artifacts"
  log=build-fuzz/$target.log
  local extra=() regressions=() budget
  # libFuzzer adds new inputs to the first corpus directory: the working
  # corpus comes first, the committed regression inputs last (read only).
  [ -d "fuzz/corpus/$target" ] && regressions+=("fuzz/corpus/$target")
  # The importers start from the raw stream fixtures (a leading byte picks
  # the importer, so any file is an input).
  [ "$target" = fuzz_import ] && regressions+=(tests/data)
  [ -f "fuzz/$target.dict" ] && extra+=("-dict=fuzz/$target.dict")
  if [ -n "${FUZZ_RUNS:-}" ]; then
    budget=(-runs="$FUZZ_RUNS")
    echo "$target: $FUZZ_RUNS executions (log $log)"
  else
    budget=(-max_total_time="$fuzz_seconds")
    echo "$target: ${fuzz_seconds}s (log $log)"
  fi
  if ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
     UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
     "build-fuzz/$target" "${budget[@]}" -max_len=16384 -timeout=20 \
       -rss_limit_mb=2048 -malloc_limit_mb=256 \
       -print_final_stats=1 -artifact_prefix="$artifacts/$target-" \
       "${extra[@]}" "$corpus" "$seeds" "${regressions[@]}" >"$log" 2>&1; then
    grep -E '^(stat::number_of_executed_units|stat::peak_rss_mb)' "$log" | sed 's/^/  /'
  else
    tail -n 60 "$log"
    problem "$target found a failure (input saved under $artifacts/)"
  fi
}

fuzz_stage() {
  banner "fuzz targets (clang, libFuzzer + ASan + UBSan) in build-fuzz/"
  if ! have_libfuzzer; then
    echo "skipped: clang++ with the libFuzzer runtime is not available"
    return
  fi
  if ! build_tree build-fuzz -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo \
       -DQUIL_BUILD_FUZZERS=ON -DQUIL_BUILD_TESTS=OFF -DQUIL_BUILD_TOOLS=OFF \
       -DQUIL_BUILD_PYTHON=OFF; then
    problem "build-fuzz: build failed"
    return
  fi
  local seeds target
  seeds=$(make_seeds)
  for target in build-fuzz/fuzz_*; do
    [ -x "$target" ] && [ -f "$target" ] || continue
    run_fuzzer "$(basename "$target")" "$seeds"
  done
}

if [ "$mode" = all ]; then
  banner "release build and tests in build/"
  # Options are given explicitly: an existing cache may hold other values.
  # The Python package and its pytest tests run here only (see python/).
  if build_tree build -DCMAKE_BUILD_TYPE=Release -DQUIL_BUILD_TESTS=ON -DQUIL_BUILD_TOOLS=ON \
       -DQUIL_SANITIZE=OFF -DQUIL_BUILD_FUZZERS=OFF -DQUIL_BUILD_PYTHON=ON; then
    run_tests build
  else
    problem "build: build failed"
  fi

  banner "ASan + UBSan build and tests in build-asan/"
  if build_tree build-asan -DCMAKE_BUILD_TYPE=Debug -DQUIL_SANITIZE=ON -DQUIL_BUILD_TESTS=ON \
       -DQUIL_BUILD_TOOLS=OFF -DQUIL_BUILD_FUZZERS=OFF -DQUIL_BUILD_PYTHON=OFF; then
    ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
    UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
      run_tests build-asan
  else
    problem "build-asan: build failed"
  fi
fi
fuzz_stage

echo
for line in "${problems[@]}"; do
  echo "FAILED: $line"
done
echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
