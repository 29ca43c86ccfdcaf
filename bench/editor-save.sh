#!/usr/bin/env bash
# Save of a long document to FLAC through the editor's Save As dialog, beside `flac -5` of the
# same audio, under a private X server. The save is timed from the Return that accepts the dialog
# to the trace line "save finished"; each trace line is stamped as it arrives through a pipe, so
# the script's own waiting costs the editor nothing. The editor's file carries the default TPDF
# dither, which flac's does not. SETTLE (10 s) is the wait between the open and the save.
# Usage: bench/editor-save.sh PATH/TO/harlune AUDIO-FILE (a WAV, so that flac reads it too)
set -uo pipefail
harlune=$1
file=$2
work=$(mktemp -d /tmp/harlune-bench-save.XXXXXX)
pids=()
cleanup() {
    for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null; done
    wait 2>/dev/null
    rm -rf "$work"
}
trap cleanup EXIT
source "$(dirname "$0")/../tests/e2e/private-x-server.sh"
start_private_x 161 180

# wait_for PATTERN: until a stamped trace line matches (the stamps, not this wait, are measured).
wait_for() {
    for _ in $(seq 1200); do
        grep -q -- "$1" "$work/trace.log" 2>/dev/null && return 0
        sleep 0.1
    done
    echo "no trace line matching '$1'" >&2
    cat "$work/trace.log" >&2
    exit 1
}

mkfifo "$work/trace"
while IFS= read -r line; do echo "$(date +%s.%N) $line"; done <"$work/trace" >"$work/trace.log" &
pids+=($!)
"$harlune" --trace --new-instance "$file" 2>"$work/trace" &
pids+=($!)
wait_for "file opened"
# The loudness of a newly opened file is measured in the background; the save is timed alone.
sleep "${SETTLE:-10}"
window=$(xdotool search --sync --onlyvisible --name "$(basename "$file")" | head -1)
xdotool windowfocus --sync "$window"
xdotool key ctrl+shift+s
xdotool search --sync --onlyvisible --name "^Save As$" >/dev/null
xdotool key ctrl+a
xdotool type -- "$work/out.flac"
sleep 0.3 # the completer of the name field settles before Return
start=$(date +%s.%N)
xdotool key Return
wait_for "save finished"
end=$(grep "save finished" "$work/trace.log" | awk '{print $1}')
echo "editor Save As to FLAC: $(echo "$end - $start" | bc) s ($(du -m "$work/out.flac" | cut -f1) MB)"

/usr/bin/time -o "$work/time.txt" -f "%e s wall, %U + %S s CPU" flac -5 -s -f -o "$work/reference.flac" "$file" 2>/dev/null
echo "flac -5 of the same audio: $(cat "$work/time.txt") ($(du -m "$work/reference.flac" | cut -f1) MB)"
