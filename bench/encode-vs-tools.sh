#!/usr/bin/env bash
# Times Harlune's writers against the reference command-line encoders on the same input: ten
# minutes of stereo 48 kHz 24-bit noise (two independent channels). The machine is shared, so each
# command runs several times and the fastest run counts; both wall time and CPU time (user + system)
# are printed, and CPU time is the fairer comparison when other work competes for the cores.
#
#   bench/encode-vs-tools.sh [BUILD_DIR] [RUNS]
#
# Files go to $BENCH_DIR (default: a folder on /dev/shm, so the disk does not set the pace).
set -euo pipefail
build=${1:-build}
runs=${2:-5}
cli="$build/bin/harlune-cli"
bench="$build/bin/harlune-bench"
work=${BENCH_DIR:-/dev/shm/harlune-encode-bench}
mkdir -p "$work"
trap 'rm -rf "$work"' EXIT

noise="$work/noise24.wav"
noise16="$work/noise16.wav"
ffmpeg -nostdin -v error -y \
    -filter_complex "anoisesrc=d=600:r=48000:a=0.5:seed=1[a];anoisesrc=d=600:r=48000:a=0.5:seed=2[b];[a][b]amerge=inputs=2" \
    -c:a pcm_s24le "$noise"
ffmpeg -nostdin -v error -y -i "$noise" -c:a pcm_s16le "$noise16"

# best NAME COMMAND...: runs the command $runs times and prints the fastest wall and CPU times.
best() {
    local name=$1
    shift
    local bestWall="" bestCPU=""
    for _ in $(seq "$runs"); do
        local line
        line=$( { TIMEFORMAT='%R %U %S'; time "$@" >/dev/null 2>&1; } 2>&1 | tail -1)
        read -r wall user sys <<<"$line"
        local cpu
        cpu=$(awk -v u="$user" -v s="$sys" 'BEGIN { print u + s }')
        if [ -z "$bestWall" ] || awk -v a="$wall" -v b="$bestWall" 'BEGIN { exit !(a < b) }'; then bestWall=$wall; fi
        if [ -z "$bestCPU" ] || awk -v a="$cpu" -v b="$bestCPU" 'BEGIN { exit !(a < b) }'; then bestCPU=$cpu; fi
    done
    printf '%-34s wall %7.2f s   cpu %7.2f s\n' "$name" "$bestWall" "$bestCPU"
}

echo "fastest of $runs runs, input: 10 min stereo 48 kHz 24-bit noise in $work"
best "flac -5 (16-bit input)" flac -5 -f -s -o "$work/ref16.flac" "$noise16"
best "flac -5 (24-bit input)" flac -5 -f -s -o "$work/ref24.flac" "$noise"
best "lame -h -b 320" lame --silent -h -b 320 "$noise" "$work/ref.mp3"
best "opusenc --bitrate 160" opusenc --quiet --bitrate 160 "$noise" "$work/ref.opus"
if [ -x "$cli" ] && "$cli" --help 2>&1 | grep -q "^  convert"; then
    best "harlune-cli convert flac 16" "$cli" convert --bits 16 "$noise" "$work/h16.flac"
    best "harlune-cli convert flac 24" "$cli" convert --bits 24 "$noise" "$work/h24.flac"
    best "harlune-cli convert mp3 320" "$cli" convert --bitrate 320 "$noise" "$work/h.mp3"
    best "harlune-cli convert opus 160" "$cli" convert --bitrate 160 "$noise" "$work/h.opus"
    best "harlune-cli convert wav float" "$cli" convert --bits float "$noise" "$work/hf.wav"
    best "harlune-cli convert wav 24 tpdf" "$cli" convert --bits 24 --dither tpdf "$noise" "$work/h24.wav"
fi
# The writers alone, from memory (no decoding): Google Benchmark's fastest of five.
if [ -x "$bench" ]; then
    TMPDIR="$work" "$bench" --benchmark_filter='^encode/' 2>/dev/null | grep -E '_min|Benchmark'
fi
