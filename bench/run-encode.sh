#!/usr/bin/env bash
# Processor seconds to mix, encode, cut and durably store S seconds of 48 kHz mono pink noise through the
# recorder's own code (bench/encode), beside the bare libavcodec "aac" encoder and the ffmpeg program on
# the same samples, bit rate and coder, best of R interleaved rounds. Prints the three and their ratios.
#
# usage: bench/run-encode.sh [S] [R] [build dir] [extra bench/encode options...]
#        (defaults: 600, 3, build/default; e.g. --frames 4800)
set -euo pipefail

seconds="${1:-600}"
rounds="${2:-3}"
build="${3:-build/default}"
shift $(($# < 3 ? $# : 3))
bench_bin="$build/bench/encode"
[ -x "$bench_bin" ] || { echo "missing $bench_bin: build bench_encode first" >&2; exit 1; }
command -v ffmpeg >/dev/null || { echo "ffmpeg is needed for the reference run" >&2; exit 1; }

work="$(mktemp -d -t kavelo-bench-encode-XXXXXX)"
trap 'rm -rf "$work"' EXIT
"$bench_bin" --work-dir "$work" --seconds "$seconds" --rounds "$rounds" "$@"
