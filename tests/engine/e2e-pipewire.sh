#!/usr/bin/env bash
# End to end through PipeWire: starts a private PipeWire server (with its own runtime folder and
# session bus) whose only sink is a null sink, plays generated tones through the PipeWire back
# end, records the sink's monitor with pw-record and checks that the same audio arrived: length,
# level within 0.1 dB, pitch, no gap; and that mono content reaches both channels.
# Usage: e2e-pipewire.sh PATH/TO/harlune-e2e-tool
set -uo pipefail
tool=$1
work=$(mktemp -d)
pids=()

stop_all() {
    # Newest first: recorders and clients before the servers they talk to.
    for ((i = ${#pids[@]} - 1; i >= 0; i--)); do
        kill "${pids[i]}" 2>/dev/null || true
    done
    for pid in "${pids[@]}"; do
        for _ in $(seq 50); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
        kill -9 "$pid" 2>/dev/null || true
    done
    rm -rf "$work"
}
trap stop_all EXIT

fail() { echo "e2e-pipewire: $*"; for log in "$work"/*.log; do echo "--- $log"; tail -20 "$log"; done; exit 1; }

# Runs a command until it succeeds, at most 10 s.
wait_for() {
    for _ in $(seq 100); do "$@" >/dev/null 2>&1 && return 0; sleep 0.1; done
    fail "gave up waiting for: $*"
}

export XDG_RUNTIME_DIR=$work/run HOME=$work/home XDG_CONFIG_HOME=$work/config XDG_STATE_HOME=$work/state
mkdir -p "$XDG_RUNTIME_DIR" "$HOME" "$XDG_CONFIG_HOME" "$XDG_STATE_HOME"
chmod 700 "$XDG_RUNTIME_DIR"
unset PIPEWIRE_REMOTE PULSE_SERVER
# A long graph period: the test machine is shared and unprivileged, so a short one would drop
# cycles whenever another job holds the cores, and the test would measure the machine, not us.
mkdir -p "$XDG_CONFIG_HOME/pipewire/pipewire.conf.d"
cat >"$XDG_CONFIG_HOME/pipewire/pipewire.conf.d/harlune-test.conf" <<'CONF'
context.properties = {
    default.clock.rate = 48000
    default.clock.quantum = 4096
    default.clock.min-quantum = 4096
    default.clock.max-quantum = 8192
}
CONF
export PIPEWIRE_LATENCY=4096/48000

dbus-daemon --session --fork --address="unix:path=$XDG_RUNTIME_DIR/bus" --print-pid=1 >"$work/dbus.pid" ||
    fail "dbus-daemon did not start"
pids+=("$(cat "$work/dbus.pid")")
export DBUS_SESSION_BUS_ADDRESS=unix:path=$XDG_RUNTIME_DIR/bus

pipewire >"$work/pipewire.log" 2>&1 &
pids+=($!)
wait_for test -S "$XDG_RUNTIME_DIR/pipewire-0"
wireplumber >"$work/wireplumber.log" 2>&1 &
pids+=($!)
pipewire-pulse >"$work/pipewire-pulse.log" 2>&1 &
pids+=($!)
wait_for pactl info
pactl load-module module-null-sink sink_name=test rate=48000 channels=2 >/dev/null || fail "no null sink"
wait_for pactl set-default-sink test

# play_and_check NAME PLAY-OPTIONS... -- CHECK-OPTIONS...
play_and_check() {
    local name=$1
    shift
    local play=() check=()
    while [ "$1" != "--" ]; do play+=("$1"); shift; done
    shift
    check=("$@")
    local out=$work/$name.wav
    pw-record --target test -P '{ stream.capture.sink = true }' --rate 48000 --channels 2 --format f32 \
        "$out" >"$work/record-$name.log" 2>&1 &
    local recorder=$!
    pids+=("$recorder")
    # The recorder must be running before the tone; the tool plays half a second of silence first.
    wait_for test -s "$out"
    timeout 60 "$tool" play --backend pipewire "${play[@]}" || fail "$name: play failed"
    kill -INT "$recorder" # pw-record keeps its tail on SIGINT
    for _ in $(seq 50); do kill -0 "$recorder" 2>/dev/null || break; sleep 0.1; done
    "$tool" check "$out" "${check[@]}" || fail "$name: the sink did not receive the tone"
}

play_and_check stereo48k --rate 48000 --channels 2 --seconds 2 --amplitude 0.5 --right-amplitude 0.25 \
    -- --seconds 2 --amplitude 0.5 --right-amplitude 0.25
play_and_check stereo44k --rate 44100 --channels 2 --seconds 2 --amplitude 0.4 \
    -- --seconds 2 --amplitude 0.4
play_and_check mono48k --rate 48000 --channels 1 --seconds 1.5 --amplitude 0.5 \
    -- --seconds 1.5 --amplitude 0.5
# The daemon goes away mid-play: the engine hears of it as a configuration change.
timeout 60 "$tool" play --backend pipewire --seconds 30 --expect-loss yes >"$work/loss.log" 2>&1 &
player=$!
pids+=("$player")
wait_for grep -q playing "$work/loss.log"
sleep 0.5
kill "${pids[1]}" # the pipewire daemon
wait "$player" || fail "the loss of the daemon did not reach the engine"
cat "$work/loss.log"
echo "e2e-pipewire: all passed"
