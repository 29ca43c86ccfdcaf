#!/usr/bin/env bash
# Monitoring through PipeWire: a private server with the null sink "test" (where a tone plays) and
# a second null sink "speakers" as the default sink. The recorder arms on a source made from
# test's monitor with monitoring on; the tone must reach the speakers' monitor, and stop when
# monitoring goes off. Then a mono source comes and goes, and the recorder's device list follows;
# last the armed source goes, which disarms the recorder.
# Usage: e2e-monitor.sh PATH/TO/harlune-e2e-monitor-check
set -uo pipefail
check=$1
session_name=e2e-monitor
quantum=4096
source "$(dirname "$0")/private-pipewire.sh"

pactl load-module module-null-sink sink_name=speakers rate=48000 channels=2 >/dev/null || fail "no second sink"
wait_for pactl set-default-sink speakers
testmic=$(pactl load-module module-remap-source master=test.monitor source_name=testmic) ||
    fail "no virtual source"
pactl load-module module-remap-source master=speakers.monitor source_name=heard >/dev/null ||
    fail "no listening source"
sox -n -r 48000 -c 2 -b 32 -e floating-point "$work/tone.wav" synth 40 sine 1000 vol 0.5 ||
    fail "sox could not make the tone"
pw-play --target test "$work/tone.wav" >"$work/pw-play.log" 2>&1 &
pids+=($!)

"$check" testmic heard 1000 0.5 >"$work/check.log" 2>&1 &
checker=$!
pids+=("$checker")
wait_for grep -q "waiting for a new source" "$work/check.log"
late=$(pactl load-module module-remap-source master=test.monitor source_name=latemono channels=1) ||
    fail "no mono source"
wait_for grep -q "latemono listed" "$work/check.log"
pactl unload-module "$late" || fail "the mono source would not go"
wait_for grep -q "waiting for the armed source to go" "$work/check.log"
pactl unload-module "$testmic" || fail "the armed source would not go"
wait "$checker"; status=$?; [ $status -eq 0 ] || fail "monitoring or the device list went wrong ($status)"
cat "$work/check.log"
echo "$session_name: ok"
