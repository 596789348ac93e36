#!/usr/bin/env bash
# Builds the libFuzzer targets (preset fuzz) and runs each for a while from its seed corpus.
#   scripts/fuzz.sh [seconds] [target...]   seconds per target (default 20), targets by name (default all)
# New inputs that reach new code are kept in build/fuzz/corpus/<target>, so later runs go on from there;
# a crash leaves its input in build/fuzz/artifacts/ and the line to replay it. Ends with
# "N passed, N failed" over the targets; exits non-zero when any failed.
set -uo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-20}
shift || true
if ! [[ "$seconds" =~ ^[0-9]+$ ]] || [ "$seconds" -lt 1 ]; then
    echo "usage: scripts/fuzz.sh [seconds] [target...]" >&2
    exit 2
fi

jobs=$(nproc 2>/dev/null || echo 2)
mkdir -p build
if ! cmake --preset fuzz >build/fuzz-configure.log 2>&1; then
    cat build/fuzz-configure.log
    echo "0 passed, 1 failed"; exit 1
fi
if ! cmake --build --preset fuzz -j "$jobs"; then
    echo "0 passed, 1 failed"; exit 1
fi

targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
    for dir in fuzz/corpus/*/; do targets+=("$(basename "$dir")"); done
fi

passed=0
failed=0
mkdir -p build/fuzz/artifacts
for target in "${targets[@]}"; do
    binary="build/fuzz/fuzz/fuzz_$target"
    if [ ! -x "$binary" ]; then
        echo "FAIL $target: no fuzz target of that name" >&2
        failed=$((failed + 1)); continue
    fi
    work="build/fuzz/corpus/$target"
    mkdir -p "$work"
    log="build/fuzz/$target.log"
    # Seeds are read, never written: new inputs go to the working corpus named first.
    if "$binary" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -max_len=65536 \
        -print_final_stats=1 -artifact_prefix="build/fuzz/artifacts/$target-" \
        "$work" "fuzz/corpus/$target" >"$log" 2>&1; then
        runs=$(grep -E '^stat::number_of_executed_units' "$log" | awk '{print $2}')
        echo "PASS $target: ${runs:-?} inputs in ${seconds}s, corpus $(ls "$work" | wc -l) entries"
        passed=$((passed + 1))
    else
        echo "FAIL $target (log: $log)"
        grep -E 'ERROR:|SUMMARY:|Test unit written|deadly signal|uncaught' "$log" | head -n 8
        echo "  replay: $binary <the artifact named above>"
        failed=$((failed + 1))
    fi
done

echo "${passed} passed, ${failed} failed"
[ "$failed" -eq 0 ]
