#!/usr/bin/env bash
# Processor time and peak memory of a S-second `kavelo-cli record` of microphone and system audio on a
# private PulseAudio server and, where one starts, a private PipeWire server (bench/live), each beside
# `ffmpeg -f pulse` recording the output's monitor alone for the same time. Against the in-process mock
# backend; nothing leaves the machine. Takes about 2 x 2 x S seconds.
#
# usage: bench/run-live.sh [S] [build dir] [extra bench/live options, e.g. --memory-map]
#        (defaults: 60, build/default)
set -euo pipefail

seconds="${1:-60}"
build="${2:-build/default}"
shift $(($# < 2 ? $# : 2))
bench_bin="$build/bench/live"
cli_bin="$build/tools/cli/kavelo-cli"
for f in "$bench_bin" "$cli_bin"; do
    [ -x "$f" ] || { echo "missing $f: build bench_live and kavelo-cli first" >&2; exit 1; }
done
for p in ffmpeg sox pulseaudio pactl paplay; do
    command -v "$p" >/dev/null || { echo "$p is needed" >&2; exit 1; }
done

work="$(mktemp -d -t kavelo-bench-live-XXXXXX)"
trap 'rm -rf "$work"' EXIT
"$bench_bin" --server pulseaudio --seconds "$seconds" --cli "$cli_bin" --work-dir "$work/pulse" "$@"
echo
if ! "$bench_bin" --server pipewire --seconds "$seconds" --cli "$cli_bin" --work-dir "$work/pipewire" "$@"; then
    echo "(no PipeWire figures: the private PipeWire server did not start or the run failed)"
fi
