#!/usr/bin/env bash
# The editor driven by keystrokes under a private X server with no window manager: open a
# generated file, Ctrl+A, Ctrl+G, type -6 and Return in the Gain sheet, Ctrl+Shift+S, save as
# out.flac. Every step waits for the program's trace line, never for a fixed time. The saved file
# must be FLAC with the input's frame count and equal the input × 10^(−6/20) within 1.5 LSB of
# 16 bits (the default dither). Then a second start forwards a file to the running editor, and
# Escape during the open of a long FLAC ends a fresh instance with 0 and only trace lines.
# With harlune-cli given, a selection is dragged with the mouse on a file it wrote, read from the
# trace line that ends the gesture, deleted with Backspace and saved with Ctrl+S: the file must be
# shorter by exactly the selected frames, as harlune-cli info reads it.
# Screenshots stay in the artefact folder.
# Usage: e2e-editor.sh PATH/TO/harlune [ARTEFACT-FOLDER [PATH/TO/harlune-cli]]
set -uo pipefail
harlune=$1
work=$(mktemp -d /tmp/harlune-e2e-editor.XXXXXX)
artefacts=${2:-$work}
cli=${3:-}
mkdir -p "$artefacts"
pids=()
cleanup() {
    for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null; done
    wait 2>/dev/null
}
trap cleanup EXIT
fail() {
    echo "e2e-editor: FAIL: $*" >&2
    echo "--- trace" >&2
    cat "$work"/*.log >&2 2>/dev/null
    exit 1
}
for tool in Xvfb xdotool sox ffprobe; do
    command -v "$tool" >/dev/null || fail "$tool is not installed (scripts/packages.txt)"
done

source "$(dirname "$0")/private-x-server.sh"
start_private_x 90 120

# to_png NAME: NAME.xwd becomes NAME.png (ffmpeg reads X window dumps), kept as xwd if it can't.
to_png() {
    ffmpeg -nostdin -v error -y -i "$1.xwd" "$1.png" 2>/dev/null && rm -f "$1.xwd"
}

# wait_for LOG PATTERN [SECONDS]: until a trace line matches.
wait_for() {
    local seconds=${3:-60}
    for _ in $(seq $((seconds * 10))); do
        grep -q -- "$2" "$1" 2>/dev/null && return 0
        sleep 0.1
    done
    fail "no trace line matching '$2' in $1"
}

sox -n -r 48000 -c 2 -b 16 "$work/in.wav" synth 1.5 sine 440 sine 660 vol 0.5 || fail "sox could not make the input"
frames=$(soxi -s "$work/in.wav")

"$harlune" --trace "$work/in.wav" 2>"$work/editor.log" &
editor=$!
pids+=($editor)
wait_for "$work/editor.log" "file opened .*in.wav frames $frames"
wait_for "$work/editor.log" "first paint"
window=$(xdotool search --sync --onlyvisible --name "in.wav" | head -1)
[[ -n $window ]] || fail "no window named in.wav"
xdotool windowfocus --sync "$window"

xdotool key ctrl+a
wait_for "$work/editor.log" "selection 0..$frames"
xdotool key ctrl+g
sheet=$(xdotool search --sync --onlyvisible --name "^Gain$" | head -1)
[[ -n $sheet ]] || fail "the Gain sheet did not open"
xdotool type -- -6
xdotool key Return
wait_for "$work/editor.log" "command done Gain -6.0 dB"
xdotool windowfocus --sync "$window"
xdotool key ctrl+shift+s
dialog=$(xdotool search --sync --onlyvisible --name "^Save As$" | head -1)
[[ -n $dialog ]] || fail "the Save As dialog did not open"
xdotool key ctrl+a
xdotool type -- "$work/out.flac"
sleep 0.3 # the completer of the name field settles before Return (no trace exists for it)
xwd -root -silent >"$artefacts/editor-save.xwd" 2>/dev/null
# With no window manager, a dialog mapped inside its parent is not always in the root's picture.
xwd -id "$dialog" -silent >"$artefacts/editor-save-dialog.xwd" 2>/dev/null
xdotool key Return
wait_for "$work/editor.log" "save finished $work/out.flac"

[[ $(ffprobe -v error -show_entries format=format_name -of csv=p=0 "$work/out.flac") == flac ]] ||
    fail "out.flac is not FLAC"
saved=$(ffprobe -v error -select_streams a:0 -show_entries stream=duration_ts -of csv=p=0 "$work/out.flac")
[[ $saved == "$frames" ]] || fail "out.flac has $saved frames, the input $frames"
# The independent decode: sox mixes the saved file with the input scaled by -10^(-6/20).
sox -m -v 1 "$work/out.flac" -v -0.50118723362727 "$work/in.wav" -b 32 "$work/diff.wav" || fail "sox could not compare"
peak=$(sox "$work/diff.wav" -n stat 2>&1 | awk '/Maximum amplitude/ {max=$3} /Minimum amplitude/ {min=-$3} END {print (max > min ? max : min)}')
awk -v p="$peak" 'BEGIN {exit !(p <= 1.5 / 32768)}' || fail "out.flac differs from the input at -6 dB by $peak"

# A second start hands its file to the running editor and ends at once.
cp "$work/in.wav" "$work/second.wav"
"$harlune" "$work/second.wav" 2>"$work/second.log" || fail "the second start failed"
wait_for "$work/editor.log" "file opened .*second.wav frames $frames"

passed=2
if [[ -n $cli ]]; then
    # The file comes from the project's own writer; its length from the project's own reader.
    "$cli" convert --format wav --bits 16 "$work/in.wav" "$work/drag.wav" >/dev/null || fail "harlune-cli could not write drag.wav"
    cli_frames() { "$cli" info "$1" | awk '$1 == "frames:" {print $2}'; }
    before=$(cli_frames "$work/drag.wav")
    [[ $before == "$frames" ]] || fail "harlune-cli reads $before frames in drag.wav, sox wrote $frames"
    "$harlune" "$work/drag.wav" 2>"$work/drag-start.log" || fail "the start with drag.wav failed"
    wait_for "$work/editor.log" "file opened .*drag.wav frames $frames"
    dragged=$(xdotool search --sync --onlyvisible --name "drag.wav" | head -1)
    [[ -n $dragged ]] || fail "no window named drag.wav"
    xdotool windowfocus --sync "$dragged"
    # The lanes of the timeline: left of the inspector, below the overview, above the loudness lane.
    eval "$(xdotool getwindowgeometry --shell "$dragged")"
    y=$((HEIGHT * 45 / 100))
    marks=$(grep -c "selection " "$work/editor.log")
    xdotool mousemove --window "$dragged" 150 "$y" mousedown 1
    for x in 170 200 240 280 320; do xdotool mousemove --window "$dragged" "$x" "$y"; done
    xdotool mouseup 1
    wait_for "$work/editor.log" "selection [0-9]*\.\.[0-9]*"
    line=$(grep "selection [0-9]*\.\.[0-9]*" "$work/editor.log" | tail -1)
    (($(grep -c "selection " "$work/editor.log") == marks + 1)) || fail "the drag traced its selection more than once"
    lower=$(sed -E 's/.*selection ([0-9]+)\.\.([0-9]+).*/\1/' <<<"$line")
    upper=$(sed -E 's/.*selection ([0-9]+)\.\.([0-9]+).*/\2/' <<<"$line")
    ((upper > lower)) || fail "the drag selected nothing: $line"
    xwd -root -silent >"$artefacts/editor-drag.xwd" 2>/dev/null
    xdotool key BackSpace
    wait_for "$work/editor.log" "command done Delete"
    xdotool key ctrl+s
    wait_for "$work/editor.log" "save finished $work/drag.wav"
    after=$(cli_frames "$work/drag.wav")
    [[ $after == $((frames - (upper - lower))) ]] ||
        fail "drag.wav has $after frames after deleting $lower..$upper from $frames"
    to_png "$artefacts/editor-drag"
    passed=3
fi

if grep -qi ambiguous "$work/editor.log"; then fail "Qt reported an ambiguous shortcut"; fi
to_png "$artefacts/editor-save"
to_png "$artefacts/editor-save-dialog"

xdotool windowfocus --sync "$window"
xdotool key ctrl+q
for _ in $(seq 100); do kill -0 "$editor" 2>/dev/null || break; sleep 0.1; done
kill -0 "$editor" 2>/dev/null && fail "the editor did not quit on Ctrl+Q"
wait "$editor"
rc=$?
[[ $rc == 0 ]] || fail "the editor ended with $rc"
# Opening a FLAC long enough that decoding outlasts the overlay's delay: Escape cancels the open,
# the window closes silently and the program ends with 0 and only trace lines on stderr.
sox -n -r 48000 -c 2 -b 16 "$work/long.flac" synth 1200 sine 300 vol 0.3 || fail "sox could not make the long file"
"$harlune" --trace --new-instance "$work/long.flac" 2>"$work/cancel.log" &
cancelled=$!
pids+=($cancelled)
wait_for "$work/cancel.log" "busy shown Opening"
long=$(xdotool search --sync --onlyvisible --name "long.flac" | head -1)
xdotool windowfocus --sync "$long"
xdotool key Escape
for _ in $(seq 200); do kill -0 "$cancelled" 2>/dev/null || break; sleep 0.1; done
kill -0 "$cancelled" 2>/dev/null && fail "the cancelled open did not end the program"
wait "$cancelled"
rc=$?
[[ $rc == 0 ]] || fail "the program ended with $rc after a cancelled open"
if grep -v '^harlune: trace: ' "$work/cancel.log" | grep -q .; then fail "more than trace lines after a cancelled open"; fi
echo "e2e-editor: $((passed)) passed, 0 failed"
