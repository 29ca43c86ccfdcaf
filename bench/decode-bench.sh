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

# best wall time (s), best CPU time (user + system, s, children included) and the largest peak
# resident memory (kB) over $runs runs. On a shared machine the CPU figure is the steadier one.
measure() {
    local best_wall="" best_cpu="" max_rss=0
    for _ in $(seq "$runs"); do
        /usr/bin/time -v -o "$work/time.txt" "$@" >/dev/null 2>"$work/stderr.txt" || { cat "$work/stderr.txt" >&2; exit 1; }
        local wall cpu rss
        wall=$(awk -F': ' '/Elapsed \(wall clock\)/ {n = split($2, p, ":"); s = 0; for (i = 1; i <= n; i++) s = s * 60 + p[i]; print s}' "$work/time.txt")
        cpu=$(awk -F': ' '/User time|System time/ {s += $2} END {print s}' "$work/time.txt")
        rss=$(awk -F': ' '/Maximum resident set size/ {print $2}' "$work/time.txt")
        if [ -z "$best_wall" ] || awk -v a="$wall" -v b="$best_wall" 'BEGIN {exit !(a < b)}'; then best_wall=$wall; fi
        if [ -z "$best_cpu" ] || awk -v a="$cpu" -v b="$best_cpu" 'BEGIN {exit !(a < b)}'; then best_cpu=$cpu; fi
        [ "$rss" -gt "$max_rss" ] && max_rss=$rss
    done
    echo "$best_wall $best_cpu $max_rss"
}

frames=$((seconds * 48000))
float_kb=$((frames * 2 * 4 / 1024))

read -r ref_t ref_c ref_m < <(measure "$bin/harlune-decode-reference" "$work/long.wav")
read -r cli_t cli_c cli_m < <(measure "$bin/harlune-cli" info --decode "$work/long.wav")
read -r ff_t ff_c ff_m < <(measure ffmpeg -nostdin -v error -i "$work/long.m4a" -f null -)
read -r aac_t aac_c aac_m < <(measure "$bin/harlune-cli" info --decode "$work/long.m4a")

echo "load average before the runs' end: $(cut -d' ' -f1-3 /proc/loadavg) on $(nproc) cores"
awk -v rt="$ref_t" -v rc="$ref_c" -v rm="$ref_m" -v ct="$cli_t" -v cc="$cli_c" -v cm="$cli_m" \
    -v ft="$ff_t" -v fc="$ff_c" -v at="$aac_t" -v ac="$aac_c" -v am="$aac_m" -v fk="$float_kb" -v runs="$runs" 'BEGIN {
    printf "best of %d runs; the audio as 32-bit float: %.0f MB\n", runs, fk / 1024
    printf "WAV 24-bit  reference   %6.2f s wall %6.2f s CPU %6.0f MB\n", rt, rc, rm / 1024
    printf "            harlune-cli %6.2f s wall %6.2f s CPU %6.0f MB\n", ct, cc, cm / 1024
    printf "            ratio       %6.2fx wall %6.2fx CPU (target 1.3x); memory %.2fx the float size (target 1.15x)\n", ct / rt, cc / rc, cm / fk
    printf "AAC .m4a    ffmpeg null %6.2f s wall %6.2f s CPU\n", ft, fc
    printf "            harlune-cli %6.2f s wall %6.2f s CPU %6.0f MB (ffprobe and ffmpeg included)\n", at, ac, am / 1024
    printf "            ratio       %6.2fx wall %6.2fx CPU (target 1.3x)\n", at / ft, ac / fc
}'
