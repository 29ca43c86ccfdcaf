#!/usr/bin/env bash
# Start-up of the editor to its first painted window, and open of a file to a usable window,
# from the program's trace lines, under a private X server (warm caches).
# Usage: [RUNS=7] [COLD=1] bench/editor-open.sh PATH/TO/harlune [AUDIO-FILE]
set -uo pipefail
harlune=$1
file=${2:-}
work=$(mktemp -d /tmp/harlune-bench-open.XXXXXX)
for display in $(seq 130 160); do
    [[ -e /tmp/.X11-unix/X$display || -e /tmp/.X$display-lock ]] || break
done
Xvfb ":$display" -screen 0 1280x800x24 -nolisten tcp >/dev/null 2>&1 &
xvfb=$!
trap 'kill $xvfb 2>/dev/null; rm -rf "$work"' EXIT
export DISPLAY=":$display" XDG_RUNTIME_DIR="$work" HOME="$work"
for _ in $(seq 100); do xdotool getmouselocation >/dev/null 2>&1 && break; sleep 0.1; done

# seconds_until ARGS... PATTERN: runs the editor until the trace line, prints the seconds.
# The trace comes through a pipe and a blocking read: polling the log with grep and sleep
# started a few hundred processes a second, which took a fifth of the two cores from the open.
seconds_until() {
    local pattern=${*: -1}
    local start end line
    rm -f "$work/trace"
    mkfifo "$work/trace"
    start=$(date +%s.%N)
    "$harlune" --trace --new-instance "${@:1:$#-1}" 2>"$work/trace" &
    local pid=$!
    end=
    while IFS= read -r line; do
        if [[ $line == *"$pattern"* ]]; then
            end=$(date +%s.%N)
            break
        fi
    done <"$work/trace"
    kill "$pid" 2>/dev/null
    wait "$pid" 2>/dev/null
    [[ -n $end ]] || { echo "the editor ended before \"$pattern\"" >&2; echo nan; return; }
    echo "$end - $start" | bc
}
for run in 1 2 3; do
    echo "start-up to first paint (demo), run $run: $(seconds_until --demo 'first paint') s"
done
# Cold: the page cache dropped before each start, where this user may drop it.
if [[ ${COLD:-0} == 1 ]]; then
    for run in 1 2 3; do
        if ! { sync && echo 3 >/proc/sys/vm/drop_caches; } 2>/dev/null; then
            echo "cold start-up: not measured (the page cache can't be dropped here)"
            break
        fi
        echo "cold start-up to first paint (demo), run $run: $(seconds_until --demo 'first paint') s"
    done
fi
if [[ -n $file ]]; then
    # A shared machine swings by a third from run to run: several runs, and their median.
    runs=${RUNS:-7}
    times=()
    for run in $(seq "$runs"); do
        times+=("$(seconds_until "$file" 'file opened')")
        echo "open $(basename "$file") to a usable window, run $run: ${times[-1]} s"
    done
    printf '%s\n' "${times[@]}" | sort -n |
        awk '{ t[NR] = $1 } END { printf "median of %d runs: %.2f s (fastest %.2f s, slowest %.2f s)\n", NR, t[int((NR + 1) / 2)], t[1], t[NR] }'
fi
