#!/usr/bin/env bash
# Recording end to end through JACK's dummy driver, whose capture ports are silent: the recorder
# records through its JACK input device while a player client plays a tone, and the script wires
# the player's outputs to the recorder's input ports. The take must hold the tone at its level,
# and the capture thread must allocate nothing. The same through the PortAudio input device on
# PortAudio's JACK host API. Then the server dies mid-take: the recorder must hear of it, keep the
# take and disarm.
# Usage: e2e-record-jack.sh PATH/TO/harlune-e2e-tool PATH/TO/harlune-e2e-record-check
set -uo pipefail
tool=$1
check=$2
session_name=e2e-record-jack
source "$(dirname "$0")/private-jack.sh"

# With no PipeWire daemon but a JACK server, the default choice is the JACK input device.
"$check" system 6 1000 0.5 "$work/Recordings" automatic >"$work/check.log" 2>&1 &
checker=$!
pids+=("$checker")
wait_for grep -q '^port ' "$work/check.log"
mapfile -t inputs < <(sed -n 's/^port \(.*:in_.*\)$/\1/p' "$work/check.log")
[ "${#inputs[@]}" -eq 2 ] || fail "the recorder has ${#inputs[@]} input ports, not 2"
timeout 60 "$tool" play --backend jack --rate 48000 --channels 2 --seconds 4.5 --amplitude 0.5 \
    >"$work/play.log" 2>&1 &
player=$!
pids+=("$player")
# The player's ports exist before its client is active, when they cannot be joined yet.
wait_for jack_connect harlune:out_1 "${inputs[0]}"
wait_for jack_connect harlune:out_2 "${inputs[1]}"
wait "$checker" || fail "the take did not hold the tone"
cat "$work/check.log"
grep -q "0 allocations" "$work/check.log" || fail "the capture thread allocated"
grep -q "input back end: JACK" "$work/check.log" || fail "the JACK input device was not chosen"
wait "$player" || fail "play failed"
ls "$work/Recordings" 2>/dev/null | grep -q . && fail "a safety file was left behind"

# Monitoring: the recorder's monitor ports play what its inputs get, joined to the speakers while
# monitoring is on. A JACK recorder started first takes the monitor ports (the only other outputs
# then) and must hear the whole tone.
"$check" system 9 1000 0.5 "$work/Recordings" jack monitor >"$work/check-monitor.log" 2>&1 &
checker=$!
pids+=("$checker")
wait_for grep -q '^port .*monitor_2' "$work/check-monitor.log"
mapfile -t inputs < <(sed -n 's/^port \(.*:in_.*\)$/\1/p' "$work/check-monitor.log")
jack_recorder=$(dirname "$tool")/harlune-jack-record
"$jack_recorder" "$work/monitor.wav" 20 >"$work/jack-record.log" 2>&1 &
listener=$!
pids+=("$listener")
wait_for grep -q recording "$work/jack-record.log"
wait_for sh -c 'jack_lsp -c | grep -A3 "^harlune-input:monitor_1" | grep -q "harlune-recorder:in_1"'
# A long lead: the tone must not start before the script has wired the player.
timeout 60 "$tool" play --backend jack --rate 48000 --channels 2 --lead 1.5 --seconds 5 --amplitude 0.5 \
    >"$work/play-monitor.log" 2>&1 &
player=$!
pids+=("$player")
wait_for jack_connect harlune:out_1 "${inputs[0]}"
wait_for jack_connect harlune:out_2 "${inputs[1]}"
jack_lsp -c | grep -A3 "^harlune-input:monitor_1" | grep -q "system:playback_1" ||
    fail "the monitor is not joined to the speakers"
wait_for grep -q "monitoring off" "$work/check-monitor.log"
jack_lsp -c | grep -A3 "^harlune-input:monitor_" | grep -q "system:playback" &&
    fail "the monitor stayed joined to the speakers"
wait "$checker" || fail "the monitored take did not hold the tone"
wait "$player" || fail "play failed"
kill -INT "$listener"
for _ in $(seq 50); do kill -0 "$listener" 2>/dev/null || break; sleep 0.1; done
"$tool" check "$work/monitor.wav" --seconds 5 --amplitude 0.5 || fail "the monitor did not pass the tone"

# PortAudio's JACK client names its ports itself: they are found in the server's list.
"$check" "JACK Audio Connection Kit:system" 6 1000 0.25 "$work/Recordings" portaudio \
    >"$work/check-portaudio.log" 2>&1 &
checker=$!
pids+=("$checker")
wait_for grep -q '^recording' "$work/check-portaudio.log"
mapfile -t inputs < <(jack_lsp | grep '^PortAudio[^:]*:in_')
[ "${#inputs[@]}" -eq 2 ] || fail "PortAudio has ${#inputs[@]} input ports, not 2"
timeout 60 "$tool" play --backend jack --rate 48000 --channels 2 --seconds 4.5 --amplitude 0.25 \
    >"$work/play-portaudio.log" 2>&1 &
player=$!
pids+=("$player")
wait_for jack_connect harlune:out_1 "${inputs[0]}"
wait_for jack_connect harlune:out_2 "${inputs[1]}"
wait "$checker" || fail "the take through PortAudio did not hold the tone"
cat "$work/check-portaudio.log"
grep -q "0 allocations" "$work/check-portaudio.log" || fail "the PortAudio capture thread allocated"
wait "$player" || fail "play failed"

# The server dies mid-take: the loss reaches the recorder, which keeps the take and disarms.
# lose_server LOG REASON CHECK-ARGUMENTS...
lose_server() {
    local log=$work/$1 reason=$2
    shift 2
    "$check" "$@" 30 1000 0.5 "$work/Recordings" "${backend[@]}" until-lost >"$log" 2>&1 &
    checker=$!
    pids+=("$checker")
    wait_for grep -q '^recording' "$log"
    sleep 1
    kill "$jack_pid"
    # The take is at most 30 s; a checker still running well after that is stuck: its threads'
    # stacks go into the log before the test fails.
    for _ in $(seq 400); do kill -0 "$checker" 2>/dev/null || break; sleep 0.1; done
    if kill -0 "$checker" 2>/dev/null; then
        gdb -p "$checker" -batch -ex "thread apply all bt" >>"$log" 2>&1
        fail "the recorder hung after the server's end ($log)"
    fi
    wait "$checker" || fail "the recorder did not survive the server's end ($log)"
    cat "$log"
    grep -q "$reason" "$log" || fail "the loss was not reported ($log)"
}
backend=(portaudio)
lose_server loss-portaudio "stopped delivering audio" "JACK Audio Connection Kit:system"
start_jack
backend=(jack)
lose_server loss-jack "the JACK server went away" system
echo "$session_name: ok"
