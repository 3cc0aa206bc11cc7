#!/usr/bin/env bash
# A fuzzing campaign: builds the libFuzzer targets with clang under AddressSanitizer and
# UndefinedBehaviorSanitizer, runs each for the given minutes (default 5) on a working corpus
# seeded from fuzz/corpus/<target>, and prints per target the executions, the coverage
# (edges and features) and the findings (crashes, leaks, timeouts, out-of-memory).
#
#   bash scripts/fuzz.sh [minutes per target] [target ...]
#
# FUZZ_BUILD_DIR names the build folder (default build-fuzz, configured here for
# RelWithDebInfo); an existing folder configured with HARL_FUZZ=ON is used as it is.
#
# Findings land in <build folder>/findings/<target>/; copy each into fuzz/corpus/<target>/ once
# the fault is fixed, so that every smoke run replays it. The exit status is 1 when anything
# was found.
set -euo pipefail
cd "$(dirname "$0")/.."

minutes=${1:-5}
shift || true
build=${FUZZ_BUILD_DIR:-build-fuzz}
jobs=$(nproc)

if [ -f "$build/CMakeCache.txt" ]; then
    cmake "$build" >/dev/null
else
    CC=clang CXX=clang++ cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DHARL_SANITIZE=ON -DHARL_FUZZ=ON -DHARL_TESTS=OFF -DHARL_BENCHMARKS=OFF >/dev/null
fi
targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
    for source in fuzz/*.cpp; do
        targets+=("$(basename "$source" .cpp)")
    done
fi
cmake --build "$build" -j "$jobs" --target "${targets[@]/#/fuzz_}" >/dev/null

max_len() {
    local value
    value=$(sed -n "s/^set(HARL_FUZZ_MAX_LEN_$1 \([0-9]*\))/\1/p" fuzz/CMakeLists.txt)
    echo "${value:-8192}"
}

printf '%-24s %12s %8s %8s %9s\n' target executions edges features findings
found=0
for target in "${targets[@]}"; do
    work="$build/corpus/$target"
    findings="$build/findings/$target"
    log="$build/logs/$target.log"
    mkdir -p "$work" "$findings" "$(dirname "$log")"
    ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
        "$build/fuzz/fuzz_$target" -max_total_time=$((minutes * 60)) -max_len="$(max_len "$target")" \
        -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 -artifact_prefix="$findings/" \
        -fork="$jobs" -ignore_crashes=1 -ignore_timeouts=1 -ignore_ooms=1 \
        "$work" "fuzz/corpus/$target" >"$log" 2>&1 || true
    executions=$(grep -o '^#[0-9]*' "$log" | tail -1 | tr -d '#')
    edges=$(grep -o 'cov: [0-9]*' "$log" | tail -1 | cut -d' ' -f2)
    features=$(grep -o 'ft: [0-9]*' "$log" | tail -1 | cut -d' ' -f2)
    count=$(find "$findings" -type f | wc -l)
    found=$((found + count))
    printf '%-24s %12s %8s %8s %9s\n' "$target" "${executions:-0}" "${edges:-0}" \
        "${features:-0}" "$count"
done
exit $((found > 0 ? 1 : 0))
