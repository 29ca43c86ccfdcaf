#!/usr/bin/env bash
# Recording end to end through PipeWire: a private server with the null sink "test" and a virtual
# source "testmic" on its monitor; a tone plays into the sink while the recorder captures testmic
# through its own capture stream, and the take must hold the tone at its level.
# With harlune-cli given, `harlune-cli record` lists testmic and records it into a file.
# Usage: e2e-record.sh PATH/TO/harlune-e2e-tool PATH/TO/harlune-e2e-record-check [PATH/TO/harlune-cli]
set -uo pipefail
tool=$1
check=$2
cli=${3:-}
session_name=e2e-record
quantum=4096
source "$(dirname "$0")/private-pipewire.sh"

pactl load-module module-remap-source master=test.monitor source_name=testmic >/dev/null ||
    fail "no virtual source"
"$check" testmic 5 1000 0.5 "$work/Recordings" >"$work/check.log" 2>&1 &
checker=$!
pids+=("$checker")
sleep 1
timeout 60 "$tool" play --backend pipewire --rate 48000 --channels 2 --seconds 4 --amplitude 0.5 \
    >"$work/play.log" 2>&1 || fail "play failed"
wait "$checker" || fail "the take did not hold the tone"
cat "$work/check.log"
ls "$work/Recordings" 2>/dev/null | grep -q . && fail "a safety file was left behind"
if [ -n "$cli" ]; then
    "$cli" record --list >"$work/list.log" 2>&1 || fail "record --list failed"
    grep -q '^testmic' "$work/list.log" || fail "record --list does not show testmic"
    XDG_DATA_HOME=$work/data timeout 60 "$cli" record --device testmic --duration 2 "$work/take.wav" \
        >"$work/cli-record.log" 2>&1 || fail "harlune-cli record failed"
    seconds=$(ffprobe -v error -show_entries format=duration -of csv=p=0 "$work/take.wav")
    awk -v s="$seconds" 'BEGIN { exit !(s >= 1.9 && s <= 2.3) }' || fail "the recorded file lasts $seconds s"
fi
echo "$session_name: ok"
