#!/usr/bin/env bash
# Runs every check of the project, one stage after the other:
#   default  the normal build, every test
#   asan     AddressSanitizer + UndefinedBehaviorSanitizer build, every test
#   tsan     ThreadSanitizer build of the concurrency-heavy test binaries only, their tests
#   fuzz     every libFuzzer target for a short while (scripts/fuzz.sh; KAVELO_FUZZ_SECONDS, default 20)
# Prints the time each stage took. Ends with one line "N passed, N failed" over all stages (each tsan test
# and each fuzz target counts); exits non-zero when anything failed.
#   scripts/test.sh [stage...]   only the named stages, in the order given
set -uo pipefail
cd "$(dirname "$0")/.."

./scripts/install-deps.sh || { echo "0 passed, 1 failed"; exit 1; }

jobs=$(nproc 2>/dev/null || echo 2)
passed=0
failed=0
status=0
timings=()

# The binaries whose tests run under ThreadSanitizer: coordinator, upload worker, capture engine and
# recorder on fakes, serial executor, clocks and tasks, the mock recorder and road, the dashboard activity
# list, the audio test's controller on fakes, and kavelo-cli.
tsan_targets=(test_core_recording test_core_transport test_core_support test_core_mock test_core_road
    test_core_workspace test_app_capture test_app_audiotest test_integration_cli)
# Labels of those binaries' tests (kavelo-cli's are the only integration tests built in that tree), less
# the capture tests that need a real audio server: its client libraries are not instrumented.
tsan_labels='^(core/recording|core/transport|core/support|core/mock|core/road|core/workspace|app/capture|app/audiotest|integration)$'
tsan_exclude='^(PulseAudioPathTest|PipeWireAggregatePathTest|AudioDeviceListWatcherTest|AudioTestPulseTest|AudioTestPipeWireTest|Servers/CaptureStreamMonitorTest)\.'

count_ctest() { # log
    # "100% tests passed, 0 tests failed out of 42"
    local line f t
    line=$(grep -E 'tests passed, [0-9]+ tests? failed out of [0-9]+' "$1" | tail -n 1)
    if [ -z "$line" ]; then
        failed=$((failed + 1)); status=1; return
    fi
    f=$(sed -E 's/.* ([0-9]+) tests? failed out of ([0-9]+).*/\1/' <<<"$line")
    t=$(sed -E 's/.* ([0-9]+) tests? failed out of ([0-9]+).*/\2/' <<<"$line")
    passed=$((passed + t - f))
    failed=$((failed + f))
}

run_build_stage() { # preset [build targets...]
    local preset=$1
    shift
    local targets=()
    for t in "$@"; do targets+=(--target "$t"); done
    echo "=== build: $preset ==="
    if ! cmake --preset "$preset" >"/tmp/kavelo-configure-$preset.log" 2>&1; then
        cat "/tmp/kavelo-configure-$preset.log"
        failed=$((failed + 1)); status=1; return 1
    fi
    if ! cmake --build --preset "$preset" -j "$jobs" "${targets[@]}"; then
        failed=$((failed + 1)); status=1; return 1
    fi
}

stage_default() {
    run_build_stage default || return
    echo "=== tests: default ==="
    ctest --preset default -j "$jobs" </dev/null 2>&1 | tee build/default/ctest.log
    [ "${PIPESTATUS[0]}" -eq 0 ] || status=1
    count_ctest build/default/ctest.log
}

stage_asan() {
    run_build_stage asan || return
    echo "=== tests: asan ==="
    ctest --preset asan -j "$jobs" </dev/null 2>&1 | tee build/asan/ctest.log
    [ "${PIPESTATUS[0]}" -eq 0 ] || status=1
    count_ctest build/asan/ctest.log
}

stage_tsan() {
    run_build_stage tsan "${tsan_targets[@]}" || return
    echo "=== tests: tsan ==="
    ctest --preset tsan -j "$jobs" -L "$tsan_labels" -E "$tsan_exclude" </dev/null 2>&1 |
        tee build/tsan/ctest.log
    [ "${PIPESTATUS[0]}" -eq 0 ] || status=1
    count_ctest build/tsan/ctest.log
}

stage_fuzz() {
    echo "=== fuzz ==="
    mkdir -p build
    ./scripts/fuzz.sh "${KAVELO_FUZZ_SECONDS:-20}" </dev/null 2>&1 | tee build/fuzz.log
    [ "${PIPESTATUS[0]}" -eq 0 ] || status=1
    local line
    line=$(grep -E '^[0-9]+ passed, [0-9]+ failed$' build/fuzz.log | tail -n 1)
    if [ -z "$line" ]; then
        failed=$((failed + 1)); status=1; return
    fi
    passed=$((passed + $(cut -d' ' -f1 <<<"$line")))
    failed=$((failed + $(cut -d' ' -f3 <<<"$line")))
}

stages=("$@")
[ ${#stages[@]} -gt 0 ] || stages=(default asan tsan fuzz)
total_start=$(date +%s)
for stage in "${stages[@]}"; do
    case "$stage" in
    default | asan | tsan | fuzz) ;;
    *) echo "unknown stage: $stage (stages: default asan tsan fuzz)" >&2; exit 2 ;;
    esac
    start=$(date +%s)
    "stage_$stage"
    timings+=("$stage $(($(date +%s) - start))s")
    echo "=== $stage took $(($(date +%s) - start))s ==="
done

echo "=== time per stage: ${timings[*]}; total $(($(date +%s) - total_start))s ==="
echo "${passed} passed, ${failed} failed"
exit $status
