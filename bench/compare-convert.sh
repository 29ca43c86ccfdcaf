#!/usr/bin/env bash
# Times harlune-cli's file conversions beside the command-line tools doing the same job, on the
# same input in the page cache: ten minutes (SECONDS) of 24-bit stereo 48 kHz noise and tones.
# Each figure is the median wall time of RUNS runs (default 5), with the CPU time (user + system,
# all threads) of the same runs' median; the pairs run one right after the other so that both see
# much the same load. Targets:
#   WAV -> WAV copy                      <= 1.3 x sox
#   WAV -> FLAC                          <= 1.1 x flac -5
#   48 -> 44.1 kHz, very high quality    >= 1.6 x faster than sox at the same passband (91.3 %)
#   decoding through ffmpeg (AAC .m4a)   <= 1.1 x ffmpeg -f f32le - | cat (reading the pipe)
#   convert's peak memory                <= 64 MB, whatever the length
# Usage: bench/compare-convert.sh [BUILD_DIR] (default: build)
set -euo pipefail
build=${1:-build}
runs=${RUNS:-5}
seconds=${SECONDS_OF_AUDIO:-600}
cli="$build/bin/harlune-cli"
for tool in "$cli" sox flac ffmpeg /usr/bin/time bc; do
    command -v "$tool" >/dev/null || { echo "missing $tool" >&2; exit 1; }
done
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

echo "generating $seconds s of 24-bit stereo 48 kHz audio in $work ..."
sox -n -r 48000 -c 2 -b 24 "$work/in.wav" synth "$seconds" pinknoise sine 997 vol 0.4
ffmpeg -nostdin -v error -y -i "$work/in.wav" -c:a aac -b:a 192k "$work/in.m4a"
cat "$work/in.wav" "$work/in.m4a" >/dev/null # into the page cache

# `median NAME COMMAND...`: the median wall and CPU time of $runs runs, and the largest peak
# resident memory; also left in "$work/last" as "wall cpu rss_kB".
median() {
    local name=$1; shift
    : >"$work/walls"; : >"$work/cpus"; local rss=0
    for _ in $(seq "$runs"); do
        /usr/bin/time -f '%e %U %S %M' -o "$work/time" "$@" >/dev/null 2>"$work/stderr" ||
            { cat "$work/stderr" >&2; exit 1; }
        read -r e u s m <"$work/time"
        echo "$e" >>"$work/walls"
        echo "$u + $s" | bc >>"$work/cpus"
        [ "$m" -gt "$rss" ] && rss=$m
    done
    local wall cpu
    wall=$(sort -g "$work/walls" | sed -n "$(((runs + 1) / 2))p")
    cpu=$(sort -g "$work/cpus" | sed -n "$(((runs + 1) / 2))p")
    printf '%-58s wall %6.2f s  cpu %6.2f s  peak %6.0f MB\n' "$name" "$wall" "$cpu" "$(echo "$rss / 1024" | bc -l)"
    echo "$wall $cpu $rss" >"$work/last"
}
wall() { cut -d' ' -f1 "$work/last"; }
ratio() { printf '    ratio %.2f (%s)\n' "$(echo "$1 / $2" | bc -l)" "$3"; }

echo "load before: $(cut -d' ' -f1-3 /proc/loadavg) on $(nproc) cores; median of $runs runs"

median "sox in.wav out.wav" sox "$work/in.wav" "$work/sox.wav"; t_sox=$(wall)
median "harlune-cli convert in.wav out.wav" "$cli" convert "$work/in.wav" "$work/h.wav"; t_h=$(wall)
rss_copy=$(cut -d' ' -f3 "$work/last")
ratio "$t_h" "$t_sox" "harlune / sox, target <= 1.3"
# harlune-cli flushes the file to disk before it replaces the old one; sox does not.
median "sox in.wav out.wav && sync out.wav (the same flush)" \
    sh -c "sox '$work/in.wav' '$work/sox.wav' && sync '$work/sox.wav'"
ratio "$t_h" "$(wall)" "harlune / sox with the flush"

median "flac -5 -f -o out.flac in.wav" flac -5 -s -f -o "$work/ref.flac" "$work/in.wav"; t_flac=$(wall)
median "harlune-cli convert in.wav out.flac" "$cli" convert "$work/in.wav" "$work/h.flac"; t_h=$(wall)
ratio "$t_h" "$t_flac" "harlune / flac, target <= 1.1"

median "sox in.wav -b 24 out.wav rate -v -b 91.3 44100" \
    sox "$work/in.wav" -b 24 "$work/sox44.wav" rate -v -b 91.3 44100; t_sox=$(wall)
median "harlune-cli convert --rate 44100 in.wav out.wav" \
    "$cli" convert --rate 44100 "$work/in.wav" "$work/h44.wav"; t_h=$(wall)
ratio "$t_sox" "$t_h" "sox / harlune, target >= 1.6"
median "harlune-cli process --resample 44100 --bits 24 in.wav out.wav" \
    "$cli" process --resample 44100 --bits 24 "$work/in.wav" "$work/p44.wav"; t_p=$(wall)
ratio "$t_sox" "$t_p" "sox / harlune process"

median "ffmpeg -i in.m4a -f f32le - | cat >/dev/null" \
    sh -c "ffmpeg -nostdin -v error -i '$work/in.m4a' -f f32le - | cat >/dev/null"; t_ff=$(wall)
median "harlune-cli info --decode in.m4a" "$cli" info --decode "$work/in.m4a"; t_h=$(wall)
ratio "$t_h" "$t_ff" "harlune / ffmpeg pipe, target <= 1.1"
median "harlune-cli convert in.m4a out.wav (float)" "$cli" convert --bits float "$work/in.m4a" "$work/m.wav"
t_h=$(wall)
ratio "$t_h" "$t_ff" "harlune / ffmpeg pipe"

echo "convert's peak memory: $((rss_copy / 1024)) MB on $seconds s (target <= 64 MB)"
echo "load after: $(cut -d' ' -f1-3 /proc/loadavg)"
