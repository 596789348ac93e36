#!/usr/bin/env bash
# Builds the normal and the AddressSanitizer + UndefinedBehaviorSanitizer trees and runs every test in
# both. Ends with one line "N passed, N failed" over both builds; exits non-zero when anything failed.
set -uo pipefail
cd "$(dirname "$0")/.."

./scripts/install-deps.sh || { echo "0 passed, 1 failed"; exit 1; }

jobs=$(nproc 2>/dev/null || echo 2)
passed=0
failed=0
status=0

for preset in default asan; do
    echo "=== build: $preset ==="
    if ! cmake --preset "$preset" >"/tmp/kavelo-configure-$preset.log" 2>&1; then
        cat "/tmp/kavelo-configure-$preset.log"
        failed=$((failed + 1)); status=1; continue
    fi
    if ! cmake --build --preset "$preset" -j "$jobs"; then
        failed=$((failed + 1)); status=1; continue
    fi
    echo "=== tests: $preset ==="
    log="build/$preset/ctest.log"
    ctest --preset "$preset" -j "$jobs" </dev/null 2>&1 | tee "$log"
    [ "${PIPESTATUS[0]}" -eq 0 ] || status=1
    # "100% tests passed, 0 tests failed out of 42"
    line=$(grep -E 'tests passed, [0-9]+ tests? failed out of [0-9]+' "$log" | tail -n 1)
    if [ -z "$line" ]; then
        failed=$((failed + 1)); status=1; continue
    fi
    f=$(sed -E 's/.* ([0-9]+) tests? failed out of ([0-9]+).*/\1/' <<<"$line")
    t=$(sed -E 's/.* ([0-9]+) tests? failed out of ([0-9]+).*/\2/' <<<"$line")
    passed=$((passed + t - f))
    failed=$((failed + f))
done

echo "${passed} passed, ${failed} failed"
exit $status
