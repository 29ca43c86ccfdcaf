#!/usr/bin/env bash
# Sourced by the JACK end-to-end tests: a private JACK server on the dummy driver (no sound card),
# named `harlune-$session_name-$$`, with its own runtime folder and no PipeWire to answer in its
# place. Brings `work`, `pids`, `fail` and `wait_for` from test-processes.sh, and `start_jack`,
# which (re)starts the server and sets `jack_pid`. The caller sets `session_name`.
source "$(dirname "${BASH_SOURCE[0]}")/test-processes.sh"

export JACK_DEFAULT_SERVER=harlune-$session_name-$$ JACK_NO_AUDIO_RESERVATION=1
export XDG_RUNTIME_DIR=$work/run HOME=$work/home
mkdir -p "$XDG_RUNTIME_DIR" "$HOME"
chmod 700 "$XDG_RUNTIME_DIR"
unset PIPEWIRE_REMOTE

# A long period, as in the PipeWire tests: a shared, unprivileged machine.
start_jack() {
    jackd --no-realtime -n "$JACK_DEFAULT_SERVER" -d dummy -r 48000 -p 4096 >>"$work/jackd.log" 2>&1 &
    jack_pid=$!
    pids+=("$jack_pid")
    wait_for jack_lsp -s "$JACK_DEFAULT_SERVER"
}
# Only before the first start: a client that outlives a server keeps the registry it mapped, and
# finds the next server through it.
clear_stale_jack_registry
start_jack
