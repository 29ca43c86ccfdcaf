#!/usr/bin/env bash
# Times harlune-cli's process commands beside sox doing the same job, on one hour (SECONDS_OF_AUDIO)
# of float stereo 48 kHz in the page cache; each figure is the median wall time of RUNS runs
# (default 3), the pair run one right after the other. harlune-cli reads the whole file into its
# editor content first (as the editor does) and syncs its output; sox streams.
# Also: tempo detection on the first ten minutes.
# Usage: bench/compare-process.sh [BUILD_DIR]
set -euo pipefail
build=${1:-build}
runs=${RUNS:-3}
seconds=${SECONDS_OF_AUDIO:-3600}
cli="$build/bin/harlune-cli"
for tool in "$cli" sox /usr/bin/time bc; do
    command -v "$tool" >/dev/null || { echo "missing $tool" >&2; exit 1; }
done
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

echo "generating $seconds s of float stereo 48 kHz audio in $work ..."
sox -n -r 48000 -c 2 -b 32 -e float "$work/in.wav" synth "$seconds" pinknoise sine 997 vol 0.4 dcshift 0.01
sox "$work/in.wav" "$work/ten.wav" trim 0 600
cat "$work/in.wav" >/dev/null

median() {
    local name=$1; shift
    : >"$work/walls"
    for _ in $(seq "$runs"); do
        /usr/bin/time -f '%e' -o "$work/time" "$@" >/dev/null 2>"$work/stderr" ||
            { cat "$work/stderr" >&2; exit 1; }
        cat "$work/time" >>"$work/walls"
    done
    local wall
    wall=$(sort -g "$work/walls" | sed -n "$(((runs + 1) / 2))p")
    printf '%-60s wall %7.2f s\n' "$name" "$wall"
    echo "$wall" >"$work/last"
}
wall() { cat "$work/last"; }

# `compare NAME "OUR OPS" "SOX EFFECT"`: the ratio is sox's time over ours (above 1: faster).
compare() {
    local name=$1 ours=$2 theirs=$3
    # shellcheck disable=SC2086
    median "sox $theirs" sox "$work/in.wav" -b 32 -e float "$work/sox.wav" $theirs
    local t_sox
    t_sox=$(wall)
    # shellcheck disable=SC2086
    median "harlune-cli process $ours" "$cli" process $ours --bits float "$work/in.wav" "$work/h.wav"
    if [ -n "$theirs" ]; then
        printf '    %s: sox / harlune %.2f\n' "$name" "$(echo "$t_sox / $(wall)" | bc -l)"
    fi
}

echo "load before: $(cut -d' ' -f1-3 /proc/loadavg) on $(nproc) cores; median of $runs runs"
compare gain "--gain -3" "vol -3dB"
compare normalize "--normalize-peak -1" "norm -1"
compare reverse "--reverse" "reverse"
compare fade "--select 0:10 --fade-in --fade-shape linear" "fade t 10"
# sox has no DC removal; a 10 Hz high-pass is the nearest, not the same work: no ratio.
median "sox highpass 10 (not the same work)" sox "$work/in.wav" -b 32 -e float "$work/sox.wav" highpass 10
median "harlune-cli process --remove-dc" "$cli" process --remove-dc --bits float "$work/in.wav" "$work/h.wav"
compare mono "--convert-channels 1" "channels 1"
median "harlune-cli tempo (ten minutes, reads the middle two)" sh -c "\"$cli\" tempo \"$work/ten.wav\" || true"
