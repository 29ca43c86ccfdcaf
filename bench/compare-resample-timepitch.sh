#!/usr/bin/env bash
# Times Harlune's resampler and time stretcher (in memory, in harlune-bench) beside the command-line
# tools (end to end, file to file) on ten minutes of stereo 48 kHz noise. Each tool runs RUNS times
# and the minimum counts, since the machine may be shared.
# Usage: bench/compare-resample-timepitch.sh [BUILD_DIR] (default: build)
set -euo pipefail
build=${1:-build}
runs=${RUNS:-3}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

sox -n -r 48000 -c 2 -b 32 -e floating-point "$work/in.wav" synth 600 whitenoise vol 0.5

best() { # best NAME COMMAND...: prints the minimum wall time of RUNS runs
    local name=$1; shift
    local min=
    for _ in $(seq "$runs"); do
        local start end t
        start=$(date +%s.%N)
        "$@" >/dev/null 2>&1
        end=$(date +%s.%N)
        t=$(echo "$end - $start" | bc)
        if [ -z "$min" ] || [ "$(echo "$t < $min" | bc)" = 1 ]; then min=$t; fi
    done
    printf '%-55s min %8.3f s over %d runs\n' "$name" "$min" "$runs"
}

best "sox rate -v -b 91.3 (48000 -> 44100)" sox "$work/in.wav" -r 44100 "$work/out.wav" rate -v -b 91.3
best "rubberband -3 -T 1.25" rubberband -3 -T 1.25 "$work/in.wav" "$work/out.wav"
best "rubberband -3 --centre-focus -T 1.25" rubberband -3 --centre-focus -T 1.25 "$work/in.wav" "$work/out.wav"
best "rubberband -2 -T 1.25" rubberband -2 -T 1.25 "$work/in.wav" "$work/out.wav"
best "rubberband -2 -c 4 --centre-focus -T 1.25" rubberband -2 -c 4 --centre-focus -T 1.25 "$work/in.wav" "$work/out.wav"

"$build/bin/harlune-bench" --benchmark_filter='resample48To44|stretchTempo125' \
    --benchmark_repetitions="$runs" --benchmark_report_aggregates_only=true 2>/dev/null |
    grep -E '_min|^-|Benchmark'
