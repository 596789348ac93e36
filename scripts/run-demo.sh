#!/usr/bin/env bash
# Builds kavelo-cli and records a short meeting in mock mode: no server, no audio hardware needed.
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/install-deps.sh
cmake --preset default >/dev/null
cmake --build --preset default --target kavelo-cli -j "$(nproc 2>/dev/null || echo 2)" >/dev/null
export KAVELO_BACKEND=mock
# The mock world records from the audio server unless told otherwise; the demo needs no sound card.
export KAVELO_RECORDER=mock
exec ./build/default/tools/cli/kavelo-cli record --meeting "Demo" --duration "${1:-8}"
