#!/usr/bin/env bash
# Times Harlune's resampler and time stretcher beside the command-line tools on ten minutes of
# stereo 48 kHz noise: file to file through harlune-cli, and in memory through harlune-bench.
# Each tool runs RUNS times and the minimum counts, since the machine may be shared. Wall and CPU
# time (all threads) are both given: on a loaded machine the CPU figure is the steadier one.
# Usage: bench/compare-resample-timepitch.sh [BUILD_DIR] (default: build)
set -euo pipefail
build=${1:-build}
runs=${RUNS:-3}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

sox -n -r 48000 -c 2 -b 32 -e floating-point "$work/in.wav" synth 600 whitenoise vol 0.5

source "$(dirname "$0")/best-of.sh"

cli="$build/bin/harlune-cli"
# Each tool beside harlune-cli doing the same job file to file, one right after the other so that
# both see much the same load. The tools keep the input's float samples; harlune-cli would write
# 24-bit with dither by default, so it is asked for float too.
best "sox rate -v -b 91.3 (48000 -> 44100)" sox "$work/in.wav" -r 44100 "$work/out.wav" rate -v -b 91.3
best "harlune-cli process --resample 44100" "$cli" process --bits float --resample 44100 "$work/in.wav" "$work/out.wav"
best "rubberband -3 -T 1.25" rubberband -3 -T 1.25 "$work/in.wav" "$work/out.wav"
best "harlune-cli process --tempo 125 (R3)" "$cli" process --bits float --tempo 125 "$work/in.wav" "$work/out.wav"
best "rubberband -2 -T 1.25" rubberband -2 -T 1.25 "$work/in.wav" "$work/out.wav"
best "harlune-cli ... --stretch-engine faster (R2)" \
    "$cli" process --bits float --stretch-engine faster --tempo 125 "$work/in.wav" "$work/out.wav"

# The same work in memory, without the files.
if [ "$runs" -gt 1 ]; then
    aggregates=(--benchmark_repetitions="$runs" --benchmark_report_aggregates_only=true)
    pattern='_min|^-|Benchmark'
else
    aggregates=()
    pattern='.'
fi
"$build/bin/harlune-bench" --benchmark_filter='resample48To44|stretchTempo125' "${aggregates[@]}" 2>/dev/null |
    grep -E "$pattern"
echo "(harlune-bench: Time is wall time, CPU is the process's CPU time over all threads)"
