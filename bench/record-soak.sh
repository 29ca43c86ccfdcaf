#!/usr/bin/env bash
# Dropouts of a long recording with both cores busy: a private PipeWire server with the null sink
# "test" and the virtual source "testmic" on its monitor, the click track played into the sink,
# two busy loops at normal priority as "another job", and `harlune-cli record` taking testmic.
# Dropouts are counted twice: the ring overruns the recorder reports, and the tenths of a second
# where the take departs from the click track. `pw-record` takes the same source beside it as a
# reference: a departure it shares comes from the player or the server, not from the recorder.
# Also the CPU time of the recording process per second of audio (capture, tap, safety file, and
# the final write of the WAV).
# Usage: bench/record-soak.sh [SECONDS (600)] [QUANTUM (1024)] [BUILD (build)]
set -uo pipefail
seconds=${1:-600}
quantum=${2:-1024}
build=$(realpath "${3:-build}")
tool=$build/bin/harlune-e2e-tool
cli=$build/bin/harlune-cli
session_name=record-soak
source "$(dirname "$0")/../tests/engine/private-pipewire.sh"

pactl load-module module-remap-source master=test.monitor source_name=testmic >/dev/null || fail "no virtual source"
for _ in 1 2; do
    bash -c 'while :; do :; done' &
    pids+=($!)
done
echo "recording ${seconds} s at 48 kHz stereo, quantum ${quantum}, with two busy loops; load: $(cut -d' ' -f1-3 /proc/loadavg)"
XDG_DATA_HOME=$work/data /usr/bin/time -f '%U %S' -o "$work/cpu" \
    "$cli" record --device testmic "$work/take.wav" >"$work/record.log" 2>&1 &
recorder=$!
pw-record --target testmic --format f32 --rate 48000 --channels 2 "$work/reference.wav" >"$work/pw-record.log" 2>&1 &
reference=$!
pids+=("$reference")
sleep 1
timeout $((seconds * 3 / 2 + 60)) "$tool" play --backend pipewire --rate 48000 --channels 2 --clicks 1 \
    --lead 0.5 --seconds "$seconds" >"$work/play.log" 2>&1 || fail "play failed"
# The player needs a while to make ten minutes of audio on a busy machine: the take runs until
# a second after the click track ended, then Ctrl+C ends it as a user would.
sleep 1
pkill -INT -P "$recorder" # the program under /usr/bin/time, which ignores Ctrl+C itself
wait "$recorder" || fail "record failed"
kill -INT "$reference" 2>/dev/null
wait "$reference" 2>/dev/null
echo "player: $(tail -1 "$work/play.log")"
echo "load after: $(cut -d' ' -f1-3 /proc/loadavg)"
grep -i 'overrun\|lost\|safety' "$work/record.log" || echo "ring overruns: 0 (none reported)"
echo -n "harlune-cli record: "
"$tool" compare-clicks "$work/take.wav" --lead 0.5 --seconds "$seconds"
echo -n "pw-record (reference): "
"$tool" compare-clicks "$work/reference.wav" --lead 0.5 --seconds "$seconds"
read -r user system <"$work/cpu"
awk -v u="$user" -v s="$system" -v d="$seconds" \
    'BEGIN { printf "CPU of the recording process: %.2f s user + %.2f s system = %.2f ms per second of audio\n", u, s, (u + s) * 1000 / d }'
