#!/usr/bin/env bash
# kavely --mock beside a minimal Qt Quick window (bench/app-start/minimal.cpp), both under a private Xvfb:
# time from exec to the first frame on screen (median of R runs), processor time while idle for S seconds,
# and peak memory (VmHWM), with the ratios kavely / minimal, for the default renderer and for
# QT_QUICK_BACKEND=software. Targets: first frame within 1.3x of the minimal program and under 400 ms,
# idle at most 0.2 % of a core, peak memory at most 120 MB.
#
# usage: bench/run-app-start.sh [S] [R] [build dir]   (defaults: 60, 5, build/default)
set -euo pipefail
idle_seconds="${1:-60}"
runs="${2:-5}"
build="${3:-build/default}"
kavely="$build/app/desktop/kavely"
minimal="$build/bench/app-start-minimal"
for f in "$kavely" "$minimal"; do
    [ -x "$f" ] || { echo "missing $f: build kavely and bench_app_start_minimal first" >&2; exit 1; }
done
work=$(mktemp -d -t kavely-bench-start-XXXXXX)
pids=()
cleanup() { for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done; wait 2>/dev/null || true; rm -rf "$work"; }
trap cleanup EXIT
for n in $(seq 141 190); do
    if [ ! -e "/tmp/.X11-unix/X$n" ] && [ ! -e "/tmp/.X$n-lock" ]; then display=$n; break; fi
done
Xvfb ":$display" -screen 0 1280x800x24 -nolisten tcp >/dev/null 2>&1 &
pids+=($!)
for _ in $(seq 100); do [ -S "/tmp/.X11-unix/X$display" ] && break; sleep 0.1; done
export DISPLAY=":$display" KAVELO_REPORT_FIRST_FRAME=1
# A desktop session has a session bus; without one Qt would start a bus of its own at every start.
bus=$(dbus-daemon --session --fork --print-address=1 --print-pid=1 --nopidfile)
export DBUS_SESSION_BUS_ADDRESS=$(head -n1 <<<"$bus")
pids+=("$(sed -n 2p <<<"$bus")")
export HOME="$work" XDG_DATA_HOME="$work/data" XDG_CONFIG_HOME="$work/config" XDG_RUNTIME_DIR="$work/run"
mkdir -m 700 "$work/run"
ticks=$(getconf CLK_TCK)

# Starts a program under renderer $1 and sets frame_ms (exec to "first frame") and started_pid, the process
# left running.
start_program() {
    local renderer=$1; shift
    local out="$work/out.$RANDOM" start now
    local backend=(env -u QT_QUICK_BACKEND)
    [ -z "$renderer" ] || backend=(env QT_QUICK_BACKEND="$renderer")
    : >"$out"
    start=$(date +%s%N)
    "${backend[@]}" "$@" >"$out" 2>/dev/null &
    started_pid=$!
    until grep -q "first frame" "$out"; do
        kill -0 "$started_pid" 2>/dev/null || { frame_ms=-1; return; }
        sleep 0.002
    done
    now=$(date +%s%N)
    frame_ms=$(((now - start) / 1000000))
}
median() { sort -n | awk '{a[NR]=$1} END {print (NR % 2) ? a[(NR+1)/2] : (a[NR/2] + a[NR/2+1]) / 2}'; }
cpu_ticks() { awk '{print $14 + $15}' "/proc/$1/stat"; }

declare -A result
measure() { # name renderer command...
    local name=$1 renderer=$2; shift 2
    local times=()
    for _ in $(seq "$runs"); do
        rm -rf "$work/data" "$work/config"
        start_program "$renderer" "$@"
        times+=("$frame_ms")
        kill "$started_pid" 2>/dev/null; wait "$started_pid" 2>/dev/null || true
    done
    result[$name.start]=$(printf '%s\n' "${times[@]}" | median)
    # The machine is shared: the spread says how far to trust the median.
    result[$name.spread]=$(printf '%s\n' "${times[@]}" | sort -n | awk 'NR == 1 {lo = $1} {hi = $1} END {print lo "-" hi}')
    # One more start, left alone: processor time over the idle window, then the peak memory.
    start_program "$renderer" "$@"
    local pid=$started_pid before after
    sleep 2 # let the start-up work settle before the idle window opens
    before=$(cpu_ticks "$pid")
    sleep "$idle_seconds"
    after=$(cpu_ticks "$pid")
    result[$name.idle]=$(awk -v d=$((after - before)) -v hz="$ticks" -v s="$idle_seconds" 'BEGIN {printf "%.3f", 100 * d / hz / s}')
    result[$name.rss]=$(awk '/VmHWM/ {printf "%.1f", $2 / 1024}' "/proc/$pid/status")
    kill "$pid"; wait "$pid" 2>/dev/null || true
}

for renderer in "" software; do
    label=${renderer:-default}
    measure "kavely.$label" "$renderer" "$kavely" --mock
    measure "minimal.$label" "$renderer" "$minimal"
    ks=${result[kavely.$label.start]} ms=${result[minimal.$label.start]}
    ki=${result[kavely.$label.idle]} mi=${result[minimal.$label.idle]}
    kr=${result[kavely.$label.rss]} mr=${result[minimal.$label.rss]}
    start_ratio=$(awk -v a="$ks" -v b="$ms" 'BEGIN {printf "%.2f", a / b}')
    verdict() { if awk "BEGIN {exit !($1)}"; then echo met; else echo MISSED; fi; }
    echo "renderer $label ($runs starts, idle over ${idle_seconds}s)"
    printf '  %-22s %10s %10s %8s   %-22s %s\n' "" kavely minimal ratio target verdict
    printf '  %-22s %10s %10s %8s   %-22s %s\n' "first frame (ms)" "$ks" "$ms" "$start_ratio" \
        "<= 1.3x and < 400 ms" "$(verdict "$start_ratio <= 1.3 && $ks < 400")"
    printf '  %-22s %10s %10s\n' "  fastest-slowest" "${result[kavely.$label.spread]}" \
        "${result[minimal.$label.spread]}"
    printf '  %-22s %10s %10s %8s   %-22s %s\n' "idle (% of a core)" "$ki" "$mi" "-" "<= 0.2 %" \
        "$(verdict "$ki <= 0.2")"
    printf '  %-22s %10s %10s %8s   %-22s %s\n' "peak memory (MB)" "$kr" "$mr" \
        "$(awk -v a="$kr" -v b="$mr" 'BEGIN {printf "%.2f", a / b}')" "<= 120 MB" "$(verdict "$kr <= 120")"
done
