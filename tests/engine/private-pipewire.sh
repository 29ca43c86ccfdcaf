#!/usr/bin/env bash
# Sourced by the PipeWire end-to-end test and the xrun benchmark: a private PipeWire server with
# its own runtime folder and session bus, whose only sink is the null sink "test". It brings
# `work`, `pids`, `fail` and `wait_for` from test-processes.sh. The caller sets `session_name`
# and `quantum`.
source "$(dirname "${BASH_SOURCE[0]}")/test-processes.sh"

export XDG_RUNTIME_DIR=$work/run HOME=$work/home XDG_CONFIG_HOME=$work/config XDG_STATE_HOME=$work/state
mkdir -p "$XDG_RUNTIME_DIR" "$HOME" "$XDG_CONFIG_HOME" "$XDG_STATE_HOME"
chmod 700 "$XDG_RUNTIME_DIR"
unset PIPEWIRE_REMOTE PULSE_SERVER
mkdir -p "$XDG_CONFIG_HOME/pipewire/pipewire.conf.d"
cat >"$XDG_CONFIG_HOME/pipewire/pipewire.conf.d/harlune-session.conf" <<CONF
context.properties = {
    default.clock.rate = 48000
    default.clock.quantum = $quantum
    default.clock.min-quantum = $quantum
    default.clock.max-quantum = 8192
}
CONF
export PIPEWIRE_LATENCY=$quantum/48000

dbus-daemon --session --fork --address="unix:path=$XDG_RUNTIME_DIR/bus" --print-pid=1 >"$work/dbus.pid" ||
    fail "dbus-daemon did not start"
pids+=("$(cat "$work/dbus.pid")")
export DBUS_SESSION_BUS_ADDRESS=unix:path=$XDG_RUNTIME_DIR/bus

# Starts the server, its session manager and its PulseAudio face, and makes the sink; again
# after a test took the server away. Sets `pipewire_pid` and `session_pids`.
start_pipewire() {
    pipewire >>"$work/pipewire.log" 2>&1 &
    pipewire_pid=$!
    pids+=("$pipewire_pid")
    wait_for test -S "$XDG_RUNTIME_DIR/pipewire-0"
    wireplumber >>"$work/wireplumber.log" 2>&1 &
    session_pids=($!)
    pipewire-pulse >>"$work/pipewire-pulse.log" 2>&1 &
    session_pids+=($!)
    pids+=("${session_pids[@]}")
    wait_for pactl info
    pactl load-module module-null-sink sink_name=test rate=48000 channels=2 >/dev/null || fail "no null sink"
    wait_for pactl set-default-sink test
}
start_pipewire
