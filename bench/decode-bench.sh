#!/usr/bin/env bash
# Times harlune-cli info --decode on hour-long files against plain references:
#   1. a stereo 48 kHz 24-bit WAV, against build/bin/harlune-decode-reference (libsndfile into one
#      float buffer plus the same 256-frame summaries); target: time within 1.3x, and peak memory
#      within 1.15x of the audio's size as 32-bit floats;
#   2. an AAC .m4a (the ffmpeg road), against `ffmpeg -i FILE -f null -`; target: within 1.3x.
# Usage: bench/decode-bench.sh [SECONDS]   (default 3600; the files go to a temporary folder)
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
bin="$here/build/bin"
seconds=${1:-3600}
runs=${RUNS:-3}
for tool in "$bin/harlune-cli" "$bin/harlune-decode-reference" /usr/bin/time ffmpeg; do
    command -v "$tool" >/dev/null || { echo "missing $tool (build first: make build)" >&2; exit 1; }
done
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

source=(-f lavfi -i "sine=frequency=440:sample_rate=48000:duration=$seconds"
        -f lavfi -i "sine=frequency=997:sample_rate=48000:duration=$seconds"
        -filter_complex "[0:a][1:a]amerge=inputs=2")
echo "generating $seconds s of stereo 48 kHz audio in $work ..."
ffmpeg -nostdin -v error -y "${source[@]}" -c:a pcm_s24le "$work/long.wav"
ffmpeg -nostdin -v error -y "${source[@]}" -c:a aac -b:a 192k "$work/long.m4a"

# best wall time (s) and its peak resident memory (kB) over $runs runs
measure() {
    local best_time="" best_rss=""
    for _ in $(seq "$runs"); do
        /usr/bin/time -v -o "$work/time.txt" "$@" >/dev/null 2>"$work/stderr.txt" || { cat "$work/stderr.txt" >&2; exit 1; }
        local wall rss
        wall=$(awk -F': ' '/Elapsed \(wall clock\)/ {n = split($2, p, ":"); s = 0; for (i = 1; i <= n; i++) s = s * 60 + p[i]; print s}' "$work/time.txt")
        rss=$(awk -F': ' '/Maximum resident set size/ {print $2}' "$work/time.txt")
        if [ -z "$best_time" ] || awk -v a="$wall" -v b="$best_time" 'BEGIN {exit !(a < b)}'; then
            best_time=$wall; best_rss=$rss
        fi
    done
    echo "$best_time $best_rss"
}

frames=$((seconds * 48000))
float_kb=$((frames * 2 * 4 / 1024))

read -r ref_t ref_m < <(measure "$bin/harlune-decode-reference" "$work/long.wav")
read -r cli_t cli_m < <(measure "$bin/harlune-cli" info --decode "$work/long.wav")
read -r ff_t ff_m < <(measure ffmpeg -nostdin -v error -i "$work/long.m4a" -f null -)
read -r aac_t aac_m < <(measure "$bin/harlune-cli" info --decode "$work/long.m4a")

awk -v rt="$ref_t" -v rm="$ref_m" -v ct="$cli_t" -v cm="$cli_m" -v ft="$ff_t" -v at="$aac_t" -v am="$aac_m" \
    -v fk="$float_kb" -v runs="$runs" 'BEGIN {
    printf "best of %d runs; audio as 32-bit float: %.0f MB\n", runs, fk / 1024
    printf "WAV 24-bit: reference %.2f s (%.0f MB), harlune-cli %.2f s (%.0f MB): time %.2fx (target 1.3x), memory %.2fx the float size (target 1.15x)\n", rt, rm / 1024, ct, cm / 1024, ct / rt, cm / fk
    printf "AAC .m4a:   ffmpeg -f null %.2f s, harlune-cli %.2f s (%.0f MB): time %.2fx (target 1.3x)\n", ft, at, am / 1024, at / ft
}'
