#!/usr/bin/env bash
# End to end through PipeWire: starts a private PipeWire server (with its own runtime folder and
# session bus) whose only sink is a null sink, plays generated tones through the PipeWire back
# end, records the sink's monitor with pw-record and checks that the same audio arrived: length,
# level within 0.1 dB, pitch, no gap; and that mono content reaches both channels.
# With harlune-cli given, `harlune-cli play` is checked the same way on a file, and for stopping
# cleanly on Ctrl-C.
# Usage: e2e-pipewire.sh PATH/TO/harlune-e2e-tool [PATH/TO/harlune-cli]
set -uo pipefail
tool=$1
cli=${2:-}
session_name=e2e-pipewire
# A long graph period: the test machine is shared and unprivileged, so a short one would drop
# cycles whenever another job holds the cores, and the test would measure the machine, not us.
quantum=4096
source "$(dirname "$0")/private-pipewire.sh"

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
    if [ "${play[0]}" = cli ]; then
        timeout 60 "$cli" play "${play[@]:1}" || fail "$name: harlune-cli play failed"
    else
        timeout 60 "$tool" play --backend pipewire "${play[@]}" || fail "$name: play failed"
    fi
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
if [ -n "$cli" ]; then
    # Half a second of silence, then the tone, as the tool makes it.
    ffmpeg -v error -f lavfi -i "aevalsrc='if(lt(t,0.5),0,0.5*sin(2*PI*1000*(t-0.5)))|if(lt(t,0.5),0,0.25*sin(2*PI*1000*(t-0.5)))':s=44100:d=2.8" \
        -c:a pcm_f32le "$work/tone.wav" || fail "ffmpeg could not make the test file"
    play_and_check cli cli "$work/tone.wav" -- --seconds 2.3 --amplitude 0.5 --right-amplitude 0.25
    # --start skips the lead and the first 0.3 s of the tone.
    play_and_check cli-start cli "$work/tone.wav" --start 0.8 -- --seconds 2.0 --amplitude 0.5 --right-amplitude 0.25

    timeout 30 "$cli" play "$work/tone.wav" --loop >"$work/cli-loop.log" 2>&1 &
    player=$!
    pids+=("$player")
    sleep 1.5
    kill -INT "$player"
    wait "$player" || fail "harlune-cli play did not stop cleanly on SIGINT"
    grep -q "^stopped" "$work/cli-loop.log" || fail "harlune-cli play did not report the stop"
    cat "$work/cli-loop.log"
fi

# The daemon goes away mid-play, and a server that never answers takes its socket: the engine
# hears of the loss on its own thread, the restart it asks for does not wait for that server,
# and the sound comes back by itself once a real server runs again.
timeout 90 "$tool" play --backend pipewire --seconds 30 --restart-after "$work/go" \
    >"$work/loss.log" 2>&1 &
player=$!
pids+=("$player")
wait_for grep -q playing "$work/loss.log"
sleep 0.5
kill "$pipewire_pid" "${session_pids[@]}"
wait_for grep -q "configuration change" "$work/loss.log"
"$tool" silent-server "$XDG_RUNTIME_DIR/pipewire-0" >"$work/silent.log" 2>&1 &
silent=$!
pids+=("$silent")
wait_for grep -q listening "$work/silent.log"
touch "$work/go"
wait_for grep -q "restart call took" "$work/loss.log"
took=$(sed -n 's/^restart call took \([0-9.]*\) s$/\1/p' "$work/loss.log")
# The old restart waited 5 s for an answer; a busy machine may still take a moment.
awk -v t="$took" 'BEGIN { exit !(t < 1.5) }' || fail "the restart held the main thread for $took s"
sleep 1
kill "$silent"
rm -f "$XDG_RUNTIME_DIR/pipewire-0"
start_pipewire
wait "$player" || fail "the sound did not come back with the server"
cat "$work/loss.log"
echo "e2e-pipewire: all passed"
