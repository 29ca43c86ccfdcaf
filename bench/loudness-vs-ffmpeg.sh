#!/usr/bin/env bash
# Times `harlune-cli loudness` beside ffmpeg's ebur128 filter (integrated, range and true peak) on
# hour-long stereo 48 kHz 24-bit WAV files: pink noise, and a music-like signal (tones whose level
# moves, over quiet noise). Target: harlune-cli at least 3x faster. Each command runs RUNS times
# and the minimum counts; wall and CPU time (user + system, all threads) are both given, since on
# a shared machine the CPU figure is the steadier one.
# Usage: bench/loudness-vs-ffmpeg.sh [BUILD_DIR] [SECONDS]   (defaults: build, 3600)
set -euo pipefail
build=${1:-build}
seconds=${2:-3600}
runs=${RUNS:-3}
cli="$build/bin/harlune-cli"
command -v "$cli" >/dev/null || { echo "missing $cli (build first: make build)" >&2; exit 1; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

echo "generating $seconds s of stereo 48 kHz audio in $work ..."
ffmpeg -nostdin -v error -y -f lavfi -i "anoisesrc=color=pink:sample_rate=48000:amplitude=0.5:duration=$seconds" \
    -af "pan=stereo|c0=c0|c1=0.8*c0" -c:a pcm_s24le "$work/pink.wav"
music="0.25*sin(2*PI*220*t)*(0.55+0.45*sin(2*PI*0.13*t))+0.15*sin(2*PI*330.5*t)*(0.5+0.5*sin(2*PI*0.31*t))"
ffmpeg -nostdin -v error -y -f lavfi -i "aevalsrc=$music|$music*0.9:s=48000:d=$seconds" \
    -f lavfi -i "anoisesrc=color=pink:sample_rate=48000:amplitude=0.02:duration=$seconds" \
    -filter_complex "[1:a]pan=stereo|c0=c0|c1=c0[n];[0:a][n]amix=inputs=2:normalize=0" -c:a pcm_s24le "$work/music.wav"

source "$(dirname "$0")/best-of.sh"

for kind in pink music; do
    best "$kind: ffmpeg ebur128=peak=true" \
        ffmpeg -nostdin -nostats -i "$work/$kind.wav" -filter_complex ebur128=peak=true -f null -
    read -r fw fc <"$work/last"
    best "$kind: harlune-cli loudness" "$cli" loudness "$work/$kind.wav"
    read -r hw hc <"$work/last"
    awk -v fw="$fw" -v fc="$fc" -v hw="$hw" -v hc="$hc" -v k="$kind" \
        'BEGIN { printf "%s: harlune-cli is %.1fx faster (wall), %.1fx (CPU); target 3x\n", k, fw / hw, fc / hc }'
done
echo "load average at the end: $(cut -d' ' -f1-3 /proc/loadavg) on $(nproc) cores; min of $runs runs"
