#!/usr/bin/env bash
# Times each built-in effect through `harlune-cli process` beside sox's nearest effect, on the
# same input in the page cache: ten minutes (SECONDS_OF_AUDIO) of stereo 48 kHz noise and tones.
# Each figure is the median wall time of RUNS runs (default 3); the pairs run one right after the
# other so that both see much the same load. The ratio is sox's time over ours (above 1: faster).
# The comparisons are of comparable work, not identical algorithms: each section says how close.
# Usage: bench/compare-effects.sh [BUILD_DIR] [EFFECT...]  (default: build, every effect)
set -euo pipefail
build=${1:-build}
shift || true
only=("$@")
runs=${RUNS:-3}
seconds=${SECONDS_OF_AUDIO:-600}
cli="$build/bin/harlune-cli"
for tool in "$cli" sox /usr/bin/time bc; do
    command -v "$tool" >/dev/null || { echo "missing $tool" >&2; exit 1; }
done
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

echo "generating $seconds s of float stereo 48 kHz audio in $work ..."
sox -n -r 48000 -c 2 -b 32 -e float "$work/in.wav" synth "$seconds" pinknoise sine 997 vol 0.4
cat "$work/in.wav" >/dev/null # into the page cache

# `median NAME COMMAND...`: the median wall time of $runs runs, left in "$work/last".
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
    printf '%-64s wall %6.2f s  (%.0fx real time)\n' "$name" "$wall" "$(echo "$seconds / $wall" | bc -l)"
    echo "$wall" >"$work/last"
}
wall() { cat "$work/last"; }

# `compare NAME JSON SOX_EFFECT...`: our effect with the settings JSON (one EffectSettings
# object) beside `sox in.wav out.wav SOX_EFFECT...`.
compare() {
    local name=$1 json=$2; shift 2
    if [ ${#only[@]} -gt 0 ] && ! printf '%s\n' "${only[@]}" | grep -qx "$name"; then return; fi
    echo "[$json]" >"$work/$name.json"
    median "sox: $*" sox "$work/in.wav" -b 32 -e float "$work/sox.wav" "$@"; local t_sox
    t_sox=$(wall)
    median "harlune-cli process --effects ($name)" "$cli" process "$work/in.wav" "$work/h.wav" \
        --effects "$work/$name.json"
    printf '    %s: sox / harlune %.2f\n' "$name" "$(echo "$t_sox / $(wall)" | bc -l)"
}

echo "load before: $(cut -d' ' -f1-3 /proc/loadavg) on $(nproc) cores; median of $runs runs"

# --- Effects add their comparisons below, one section each. ---

# `wanted NAME`: whether the command line asked for this effect (or for all).
wanted() { [ ${#only[@]} -eq 0 ] || printf '%s\n' "${only[@]}" | grep -qx "$1"; }

# --- Reverb: sox's reverb (a Freeverb-style bank of combs and allpasses, run per channel) at
# middle reverberance and damping with our pre-delay, beside our 16-line feedback delay
# network with early reflections at its default settings. Both add the wet signal to the dry.
compare reverb '{"reverb":{"_0":{"preDelayMs":20,"decaySeconds":1.8,"size":0.6,"damping":0.5,"diffusion":0.8,"width":1,"lowCutHz":100,"mix":0.25}}}' \
    reverb 50 50 100 100 20 -6

# --- Noise reduction: sox's noisered (2048-point spectral subtraction with gain smoothing)
# with a profile from its noiseprof over the first 2 s, beside ours (2048-point STFT at a
# quarter hop, decision-directed Wiener gains with presence and floor) with a profile from
# harlune-cli noise-profile over the same 2 s. Profiles are made outside the timing.
if wanted noiseReduction; then
    sox "$work/in.wav" -n trim 0 2 noiseprof "$work/sox.prof"
    "$cli" noise-profile "$work/in.wav" --select 0:2 -o "$work/profile.json"
    compare noiseReduction \
        "{\"noiseReduction\":{\"_0\":{\"profile\":$(cat "$work/profile.json"),\"reductionDB\":18,\"sensitivityDB\":0,\"smoothing\":0.5,\"outputNoiseOnly\":false}}}" \
        noisered "$work/sox.prof" 0.21
fi
