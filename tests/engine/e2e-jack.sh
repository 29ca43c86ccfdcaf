#!/usr/bin/env bash
# End to end on JACK: starts a private JACK server on its dummy driver (no sound card), records
# with a small JACK client that connects to the player's ports, plays generated tones and checks
# what arrived. The content's rates differ from JACK's 48 kHz, so the back ends' own rate
# conversion is tested, and PortAudio's spreading of mono to both outputs. Then the server dies
# mid-play and comes back: the JACK back end must follow it without holding the main thread.
# Usage: e2e-jack.sh PATH/TO/harlune-e2e-tool PATH/TO/harlune-jack-record
set -uo pipefail
tool=$1
recorder_tool=$2
session_name=e2e-jack
source "$(dirname "$0")/private-jack.sh"

# play_and_check NAME BACKEND PLAY-OPTIONS... -- CHECK-OPTIONS...
play_and_check() {
    local name=$1 backend=$2
    shift 2
    local play=() check=()
    while [ "$1" != "--" ]; do play+=("$1"); shift; done
    shift
    check=("$@")
    local out=$work/$name.wav
    "$recorder_tool" "$out" 30 >"$work/record-$name.log" 2>&1 &
    local recorder=$!
    pids+=("$recorder")
    wait_for grep -q recording "$work/record-$name.log"
    timeout 60 "$tool" play --backend "$backend" "${play[@]}" >"$work/play-$name.log" 2>&1 ||
        fail "$name: play failed"
    cat "$work/play-$name.log"
    kill -INT "$recorder"
    for _ in $(seq 50); do kill -0 "$recorder" 2>/dev/null || break; sleep 0.1; done
    "$tool" check "$out" "${check[@]}" || fail "$name: JACK did not receive the tone"
}

# With no PipeWire daemon but a JACK server, the default choice is the JACK back end.
play_and_check stereo48k automatic --rate 48000 --channels 2 --seconds 2 --amplitude 0.5 --right-amplitude 0.25 \
    -- --seconds 2 --amplitude 0.5 --right-amplitude 0.25
grep -q "through JACK" "$work/play-stereo48k.log" || fail "the JACK back end was not chosen"
play_and_check stereo44k jack --rate 44100 --channels 2 --seconds 2 --amplitude 0.4 \
    -- --seconds 2 --amplitude 0.4
play_and_check mono32k portaudio --rate 32000 --channels 1 --seconds 1.5 --amplitude 0.5 \
    -- --seconds 1.5 --amplitude 0.5

# The server dies mid-play: the engine hears of it as a configuration change, the restart it asks
# for returns at once although no server runs, and the sound comes back by itself (the play
# position moves on) once a new server is up. PortAudio cannot do this within one process.
timeout 90 "$tool" play --backend jack --rate 44100 --seconds 30 --restart-after "$work/go" \
    >"$work/loss.log" 2>&1 &
player=$!
pids+=("$player")
wait_for grep -q playing "$work/loss.log"
sleep 0.5
kill "$jack_pid"
wait_for grep -q "configuration change" "$work/loss.log"
touch "$work/go"
wait_for grep -q "restart call took" "$work/loss.log"
took=$(sed -n 's/^restart call took \([0-9.]*\) s$/\1/p' "$work/loss.log")
# It should return within milliseconds; a busy machine may still take a moment.
awk -v t="$took" 'BEGIN { exit !(t < 1.5) }' || fail "the restart held the main thread for $took s"
sleep 1
start_jack
wait "$player" || fail "the sound did not come back with the server"
cat "$work/loss.log"
echo "e2e-jack: all passed"
