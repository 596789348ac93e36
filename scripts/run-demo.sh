#!/usr/bin/env bash
# Builds kavelo-cli and records a short generated meeting through the real recorder, against the
# in-process mock backend: a private audio server with a null sink ("the meeting") and a virtual
# microphone, two synthetic voices talking into them, and the whole road to "Sent". Where no audio server
# can start here, it says so and records from the mock recorder instead.
# On a machine with a display it opens the desktop program in mock mode instead.
# Usage: ./scripts/run-demo.sh [SECONDS]   (default 20)
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
seconds="${1:-20}"
case "$seconds" in '' | *[!0-9]*) echo "usage: $0 [SECONDS]" >&2; exit 2 ;; esac

# One language throughout, the user's: Dutch when the interface language is Dutch, English otherwise.
locale="${LC_ALL:-${LC_MESSAGES:-${LANG:-}}}"
dutch=0
case "$locale" in
    "" | C | C.* | POSIX) ;;
    *) preferred="${LANGUAGE:-$locale}"; case "${preferred%%:*}" in nl | nl_* | nl.* | nl@*) dutch=1 ;; esac ;;
esac
say() { if [ "$dutch" = 1 ]; then printf '%s\n' "$2"; else printf '%s\n' "$1"; fi; }

say "Checking the packages the demo needs..." "Controleren of de pakketten voor de demo er zijn..."
./scripts/install-deps.sh

# With a display, the desktop program itself in its practice world; without one, the headless demo below.
# KAVELO_DEMO_HEADLESS=1 asks for the headless demo on a desktop too.
if [ -n "${DISPLAY:-}${WAYLAND_DISPLAY:-}" ] && [ "${KAVELO_DEMO_HEADLESS:-0}" != 1 ]; then
    say "Building Kavely (the first time takes a few minutes)..." \
        "Kavely bouwen (de eerste keer duurt dat een paar minuten)..."
    cmake --preset default >/dev/null
    cmake --build --preset default --target kavely -j "$(nproc 2>/dev/null || echo 2)" >/dev/null
    say "Opening Kavely in practice mode: the demo account is signed in and nothing leaves this computer." \
        "Kavely opent in oefenmodus: het demo-account is aangemeld en er verlaat niets deze computer."
    exec "$root/build/default/app/desktop/kavely" --mock
fi
say "Building kavelo-cli (the first time takes a few minutes)..." \
    "kavelo-cli bouwen (de eerste keer duurt dat een paar minuten)..."
cmake --preset default >/dev/null
cmake --build --preset default --target kavelo-cli -j "$(nproc 2>/dev/null || echo 2)" >/dev/null
cli="$root/build/default/tools/cli/kavelo-cli"

demo="$root/build/demo"
rm -rf "$demo"
mkdir -p "$demo/data"
work=$(mktemp -d /tmp/kavely-demo-XXXXXX)
player=""
cleanup() {
    [ -n "$player" ] && kill "$player" 2>/dev/null || true
    if [ -f "$work/pulse/pid" ]; then
        env HOME="$work" XDG_RUNTIME_DIR="$work" XDG_CONFIG_HOME="$work" pulseaudio -k 2>/dev/null || true
    fi
    rm -rf "$work"
}
trap cleanup EXIT

# A private PulseAudio server in a temporary runtime directory, so that the machine's own sound set-up is
# neither used nor changed: "meeting" is the output whose sound is the system audio, "micfeed" is fed to
# the virtual microphone "demomic".
real_audio=0
if command -v pulseaudio >/dev/null && command -v pactl >/dev/null && command -v espeak-ng >/dev/null; then
    if env HOME="$work" XDG_RUNTIME_DIR="$work" XDG_CONFIG_HOME="$work" \
        pulseaudio -n --daemonize=yes --exit-idle-time=-1 --use-pid-file=yes \
        --load='module-native-protocol-unix auth-anonymous=1' \
        --load='module-null-sink sink_name=meeting' \
        --load='module-null-sink sink_name=micfeed' >"$demo/pulseaudio.log" 2>&1; then
        export PULSE_SERVER="unix:$work/pulse/native"
        # PipeWire clients look for a server here and find none: the recorder uses this PulseAudio server.
        export PIPEWIRE_RUNTIME_DIR="$work"
        unset PIPEWIRE_REMOTE
        for _ in $(seq 1 100); do pactl info >/dev/null 2>&1 && break; sleep 0.05; done
        if pactl load-module module-remap-source source_name=demomic master=micfeed.monitor >/dev/null &&
            pactl set-default-source demomic && pactl set-default-sink meeting; then
            real_audio=1
        fi
    fi
fi

if [ "$real_audio" = 1 ]; then
    # The meeting: two voices taking turns, one on the microphone, one as the other side of the call.
    if [ "$dutch" = 1 ]; then
        voice_a=nl+m3; voice_b=nl+f2
        lines=("Goedemorgen allemaal, zullen we beginnen met de planning van deze week?"
               "Ja graag. De nieuwe versie staat klaar om te testen."
               "Mooi. Wie neemt het testen op zich?"
               "Dat doe ik. Ik stuur vrijdag een kort verslag."
               "Prima, dan spreken we af dat we maandag verder kijken."
               "Afgesproken. Tot maandag.")
    else
        voice_a=en+m3; voice_b=en+f2
        lines=("Good morning everyone, shall we start with this week's planning?"
               "Yes please. The new version is ready for testing."
               "Great. Who will take on the testing?"
               "I will. I'll send a short report on Friday."
               "Fine, then we agree to continue on Monday."
               "Agreed. See you on Monday.")
    fi
    for i in "${!lines[@]}"; do
        if [ $((i % 2)) = 0 ]; then voice=$voice_a; else voice=$voice_b; fi
        espeak-ng -v "$voice" -s 150 -w "$work/line$i.wav" "${lines[$i]}"
    done
    (
        sleep 1
        while true; do
            for i in "${!lines[@]}"; do
                if [ $((i % 2)) = 0 ]; then sink=micfeed; else sink=meeting; fi
                paplay -d "$sink" "$work/line$i.wav" 2>/dev/null || exit 0
                sleep 0.4
            done
        done
    ) &
    player=$!
    say "A private audio server is running; two synthetic voices hold a meeting on its microphone and its output." \
        "Een eigen geluidsserver draait; twee synthetische stemmen voeren een vergadering via de microfoon en de uitvoer."
    unset KAVELO_RECORDER
else
    if [ -s "$demo/pulseaudio.log" ]; then
        say "No audio server could be started here (see $demo/pulseaudio.log)." \
            "Hier kon geen geluidsserver starten (zie $demo/pulseaudio.log)."
    else
        say "No audio server could be started here: pulseaudio, pactl or espeak-ng is missing." \
            "Hier kon geen geluidsserver starten: pulseaudio, pactl of espeak-ng ontbreekt."
    fi
    say "The demo records from the mock recorder instead, which makes no sound." \
        "De demo neemt daarom op met de proefrecorder, die geen geluid maakt."
    export KAVELO_RECORDER=mock
fi

export KAVELO_BACKEND=mock
export XDG_DATA_HOME="$demo/data"
unset KAVELO_INFO_FILE
if [ "$dutch" = 1 ]; then language=nl; speakers="Anne, Bram"; else language=en; speakers="Anne, Ben"; fi
say "Recording $seconds seconds; the chunks are stored in $demo/data/Kavely/Mock while the meeting runs." \
    "$seconds seconden opnemen; de stukken staan tijdens de vergadering in $demo/data/Kavely/Mock."
echo
keep=()
if [ "$real_audio" = 1 ]; then keep=(--keep-audio "$demo/meeting.aac"); fi
status=0
"$cli" record --meeting "Demo" --duration "$seconds" --language "$language" --speakers "$speakers" \
    "${keep[@]}" || status=$?
echo
if [ "$status" != 0 ]; then
    say "The demo did not reach \"Sent\" (exit status $status); what was recorded is in $demo/data/Kavely/Mock." \
        "De demo kwam niet tot \"Verstuurd\" (afsluitcode $status); wat is opgenomen staat in $demo/data/Kavely/Mock."
    exit "$status"
fi
say "The mock backend holds every chunk, so they were deleted from $demo/data/Kavely/Mock." \
    "De proefbackend heeft alle stukken, dus zijn ze uit $demo/data/Kavely/Mock verwijderd."
if [ "$real_audio" = 1 ]; then
    say "A copy of the recorded audio is in $demo/meeting.aac. Play it with: ffplay -autoexit -nodisp $demo/meeting.aac" \
        "Een kopie van het opgenomen geluid staat in $demo/meeting.aac. Speel het af met: ffplay -autoexit -nodisp $demo/meeting.aac"
else
    say "The mock recorder's chunks hold no sound, so there is nothing to play." \
        "De stukken van de proefrecorder bevatten geen geluid, dus er valt niets af te spelen."
fi
