#!/usr/bin/env bash
# Times Harlune's resampler and time stretcher (in memory, in harlune-bench) beside the command-line
# tools (end to end, file to file) on ten minutes of stereo 48 kHz noise. Each tool runs RUNS times
# and the minimum counts, since the machine may be shared. Wall and CPU time (all threads) are both
# given: on a loaded machine the CPU figure is the steadier one.
# Usage: bench/compare-resample-timepitch.sh [BUILD_DIR] (default: build)
set -euo pipefail
build=${1:-build}
runs=${RUNS:-3}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

sox -n -r 48000 -c 2 -b 32 -e floating-point "$work/in.wav" synth 600 whitenoise vol 0.5

best() { # best NAME COMMAND...: the minimum wall time and the minimum CPU time (user + system) of RUNS runs
    local name=$1; shift
    local wall= cpu=
    for _ in $(seq "$runs"); do
        /usr/bin/time -f '%e %U %S' -o "$work/time" "$@" >/dev/null 2>&1
        read -r e u s <"$work/time"
        local c
        c=$(echo "$u + $s" | bc)
        if [ -z "$wall" ] || [ "$(echo "$e < $wall" | bc)" = 1 ]; then wall=$e; fi
        if [ -z "$cpu" ] || [ "$(echo "$c < $cpu" | bc)" = 1 ]; then cpu=$c; fi
    done
    printf '%-45s wall %8.2f s   cpu %8.2f s   (min of %d)\n' "$name" "$wall" "$cpu" "$runs"
}

best "sox rate -v -b 91.3 (48000 -> 44100)" sox "$work/in.wav" -r 44100 "$work/out.wav" rate -v -b 91.3
best "rubberband -3 -T 1.25" rubberband -3 -T 1.25 "$work/in.wav" "$work/out.wav"
best "rubberband -3 --centre-focus -T 1.25" rubberband -3 --centre-focus -T 1.25 "$work/in.wav" "$work/out.wav"
best "rubberband -2 -T 1.25" rubberband -2 -T 1.25 "$work/in.wav" "$work/out.wav"
best "rubberband -2 -c 4 --centre-focus -T 1.25" rubberband -2 -c 4 --centre-focus -T 1.25 "$work/in.wav" "$work/out.wav"

"$build/bin/harlune-bench" --benchmark_filter='resample48To44|stretchTempo125' \
    --benchmark_repetitions="$runs" --benchmark_report_aggregates_only=true 2>/dev/null |
    grep -E '_min|^-|Benchmark'
echo "(harlune-bench: Time is wall time, CPU is the process's CPU time over all threads)"
