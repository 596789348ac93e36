#!/usr/bin/env bash
# The real desktop program in a real window: Xvfb and a private session bus, `kavely --mock` driven over its
# D-Bus interface through a recording, and a second start whose address goes to the first and exits 0.
#   desktop-end-to-end.sh path/to/kavely path/to/fake-notification-server
set -uo pipefail
kavely=$1
notifications=$2
tmp=$(mktemp -d /tmp/kavely-e2e-XXXXXX)
pids=()
cleanup() {
    for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null; done
    wait 2>/dev/null
    rm -rf "$tmp"
}
trap cleanup EXIT
fail() {
    echo "FAIL: $*"
    echo "--- kavely's output:"; cat "$tmp/kavely.log" 2>/dev/null
    exit 1
}
# Polls a command until it succeeds, for at most $1 seconds.
eventually() {
    local seconds=$1; shift
    local deadline=$((SECONDS + seconds))
    until "$@" >/dev/null 2>&1; do
        [ $SECONDS -lt $deadline ] || return 1
        sleep 0.1
    done
}

export HOME=$tmp XDG_DATA_HOME=$tmp/data XDG_CONFIG_HOME=$tmp/config XDG_RUNTIME_DIR=$tmp/run
mkdir -m 700 "$tmp/run"
unset WAYLAND_DISPLAY
for n in $(seq 91 140); do
    if [ ! -e "/tmp/.X11-unix/X$n" ] && [ ! -e "/tmp/.X$n-lock" ]; then display=$n; break; fi
done
[ -n "${display:-}" ] || fail "no free X display number"
Xvfb ":$display" -screen 0 1280x800x24 -nolisten tcp >"$tmp/xvfb.log" 2>&1 &
pids+=($!)
eventually 20 test -S "/tmp/.X11-unix/X$display" || fail "Xvfb did not start: $(cat "$tmp/xvfb.log")"
export DISPLAY=":$display"
bus=$(dbus-daemon --session --fork --print-address=1 --print-pid=1 --nopidfile) || fail "no private session bus"
export DBUS_SESSION_BUS_ADDRESS=$(head -n1 <<<"$bus")
pids+=("$(sed -n 2p <<<"$bus")")

"$notifications" "$tmp/invoke" >"$tmp/notifications.log" 2>&1 &
pids+=($!)
eventually 20 grep -q ready "$tmp/notifications.log" || fail "the stand-in notification server did not start"

"$kavely" --mock >"$tmp/kavely.log" 2>&1 &
kavely_pid=$!
pids+=($kavely_pid)

eventually 30 xdotool search --onlyvisible --name '^Kavely$' || fail "the main window did not map"
get_phase() {
    gdbus call --session --dest nl.kavely.Kavely --object-path /nl/kavely/Kavely \
        --method org.freedesktop.DBus.Properties.Get nl.kavely.Kavely1 Phase 2>/dev/null | sed -E "s/.*'([a-z_]+)'.*/\1/"
}
phase_is() { [ "$(get_phase)" = "$1" ]; }
phase_is_not() { local p; p=$(get_phase); [ -n "$p" ] && [ "$p" != "$1" ]; }
call() { gdbus call --session --dest nl.kavely.Kavely --object-path /nl/kavely/Kavely --method "nl.kavely.Kavely1.$1"; }

eventually 30 phase_is idle || fail "the demo account is not signed in (phase: $(get_phase))"
# A stop with nothing to stop is refused with a reason.
refusal=$(call Stop 2>&1) && fail "Stop while idle was accepted"
grep -q "nothing to stop" <<<"$refusal" || fail "Stop while idle said: $refusal"
call Start >/dev/null || fail "Start was refused"
eventually 30 phase_is recording || fail "the recording did not start (phase: $(get_phase))"
# The start is announced with an action that opens the window.
eventually 20 grep -qP '^notify\tKavely is recording\tdefault,open$' "$tmp/notifications.log" ||
    eventually 1 grep -qP '^notify\tKavely neemt op\tdefault,open$' "$tmp/notifications.log" ||
    fail "no start notification with its action: $(cat "$tmp/notifications.log")"
touch "$tmp/invoke"
eventually 20 grep -q '^invoked' "$tmp/notifications.log" || fail "the notification's action was not invoked"
kill -0 $kavely_pid 2>/dev/null || fail "kavely ended when the notification's action was invoked"
call Pause >/dev/null || fail "Pause was refused"
eventually 20 phase_is paused_user || fail "the recording did not pause (phase: $(get_phase))"
call Resume >/dev/null || fail "Resume was refused"
eventually 20 phase_is recording || fail "the recording did not resume (phase: $(get_phase))"
call Stop >/dev/null || fail "Stop was refused"
eventually 30 phase_is_not recording || fail "the recording did not stop"

# A second start hands its address to the first and ends at once.
timeout 20 "$kavely" --mock kavely://open/settings >"$tmp/second.log" 2>&1
rc=$?
[ $rc -eq 0 ] || fail "the second start exited $rc: $(cat "$tmp/second.log")"
kill -0 $kavely_pid 2>/dev/null || fail "the first kavely ended"
eventually 10 grep -q '^kavely: kavely://open/settings opens the settings section$' "$tmp/kavely.log" ||
    fail "the first kavely did not route the address of the second start"
[ "$(xdotool search --onlyvisible --name '^Kavely$' | wc -l)" -eq 1 ] || fail "a second window opened"
echo "PASS: window mapped, recording started (notified, action invoked), paused, resumed and stopped over D-Bus, second start handed its address to the first"
