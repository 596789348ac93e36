#!/usr/bin/env bash
# The encoder's twoloop and fast coders on speech at the recording's bit rate (bench/coder): a few
# minutes of English and Dutch sentences from espeak-ng, brought to 48 kHz mono float by sox, encoded by
# each coder, decoded, and compared with the source (SNR, segmental SNR, log-spectral distance), with
# the processor seconds each coder took.
#
# usage: bench/run-coder.sh [build dir]   (default: build/default)
set -euo pipefail

build="${1:-build/default}"
bench_bin="$build/bench/coder"
[ -x "$bench_bin" ] || { echo "missing $bench_bin: build bench_coder first" >&2; exit 1; }
for p in espeak-ng sox; do command -v "$p" >/dev/null || { echo "$p is needed" >&2; exit 1; }; done

work="$(mktemp -d -t kavelo-bench-coder-XXXXXX)"
trap 'rm -rf "$work"' EXIT

english="Good morning everyone. Let us start with the figures of the last quarter. Sales went up by twelve
percent, mostly in the north, while costs stayed where they were. Anna, could you walk us through the
hiring plan? We need two more engineers before the summer, and the budget allows for three if the second
half goes as expected. Any questions so far? Then let us move on to the roadmap."
dutch="Goedemorgen allemaal. Fijn dat jullie er zijn. We beginnen met de cijfers van het afgelopen kwartaal.
De omzet steeg met twaalf procent, vooral in het noorden. Peter, wil jij het wervingsplan toelichten? We
hebben voor de zomer nog twee ontwikkelaars nodig. Zijn er vragen? Dan gaan we door naar de planning."
n=0
for voice in en en-us+f3 nl nl+m3; do
    text="$english"
    case "$voice" in nl*) text="$dutch" ;; esac
    espeak-ng -v "$voice" -s 165 -w "$work/part$n.wav" "$text"
    n=$((n + 1))
done
sox "$work"/part*.wav -r 48000 -c 1 -e floating-point -b 32 -t raw "$work/speech.f32" norm -3
# espeak-ng speaks at 22050 Hz: nothing above 11 kHz to compare.
"$bench_bin" --input "$work/speech.f32" --bandwidth 11025
