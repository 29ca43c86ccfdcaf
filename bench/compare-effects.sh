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

# `median NAME COMMAND...`: the median wall time of $runs runs, left in "$work/last", and the
# median CPU time (user + system) in "$work/lastcpu".
median() {
    local name=$1; shift
    : >"$work/walls"
    : >"$work/cpus"
    for _ in $(seq "$runs"); do
        /usr/bin/time -f '%e %U %S' -o "$work/time" "$@" >/dev/null 2>"$work/stderr" ||
            { cat "$work/stderr" >&2; exit 1; }
        read -r w u s <"$work/time"
        echo "$w" >>"$work/walls"
        echo "$u + $s" | bc -l >>"$work/cpus"
    done
    local wall cpu
    wall=$(sort -g "$work/walls" | sed -n "$(((runs + 1) / 2))p")
    cpu=$(sort -g "$work/cpus" | sed -n "$(((runs + 1) / 2))p")
    printf '%-64s wall %6.2f s  (%.0fx real time)  cpu %6.2f s\n' "$name" "$wall" "$(echo "$seconds / $wall" | bc -l)" "$cpu"
    echo "$wall" >"$work/last"
    echo "$cpu" >"$work/lastcpu"
}
wall() { cat "$work/last"; }
cpu() { cat "$work/lastcpu"; }

# `compare NAME JSON SOX_EFFECT...`: our effect with the settings JSON (one EffectSettings
# object) beside `sox in.wav out.wav SOX_EFFECT...`.
compare() {
    local name=$1 json=$2; shift 2
    if [ ${#only[@]} -gt 0 ] && ! printf '%s\n' "${only[@]}" | grep -qx "$name"; then return; fi
    echo "[$json]" >"$work/$name.json"
    median "sox: $*" sox "$work/in.wav" -b 32 -e float "$work/sox.wav" "$@"; local t_sox
    t_sox=$(wall)
    sox_cpu=$(cpu)
    median "harlune-cli process --effects ($name)" "$cli" process "$work/in.wav" "$work/h.wav" \
        --effects "$work/$name.json"
    printf '    %s: sox / harlune %.2f\n' "$name" "$(echo "$t_sox / $(wall)" | bc -l)"
}

echo "load before: $(cut -d' ' -f1-3 /proc/loadavg) on $(nproc) cores; median of $runs runs"

# --- Effects add their comparisons below, one section each. ---

# --- distortion ---
# Our soft curve at 12 dB drive runs at four times the rate (two half-band stages each way), then a
# DC blocker, a tone filter and the mix; sox's overdrive is a tanh-like curve at the base rate with
# a DC blocker, no oversampling. So ours does roughly four times the shaping and the filtering.
compare distortion \
    '{"distortion":{"_0":{"mode":"Soft Clip","driveDB":12,"toneHz":12000,"outputDB":-6,"mix":1,"bits":8,"downsample":1}}}' \
    overdrive 12
# The floor under every comparison: no effect on either side, sox copying the file and
# harlune-cli reading it into memory and writing it out with an empty chain.
compare copy ''

# Delay: ours is a 375 ms feedback line (right 1.5 times as long) with cubic reads, low and high
# cut in the loop, and a soft limiter; sox's `echo` adds one tap with no loop, `echos` two taps
# in series. The same time and a comparable level of repeats.
delay_json='{"delay":{"_0":{"timeMs":375,"rightTimeRatio":1.5,"feedback":0.35,"mix":0.3,"pingPong":false,"lowCutHz":80,"highCutHz":8000}}}'
compare delay "$delay_json" echo 0.8 0.9 375 0.35
compare delay "$delay_json" echos 0.8 0.9 375 0.35 750 0.12

# Chorus: ours runs two voices per channel (25 ms base, 0.8 Hz, cubic reads, per-tick sine);
# sox's `chorus` (which wants more than 20 ms) two voices with linear reads from tables.
compare chorus '{"chorus":{"_0":{"mode":"chorus","rateHz":0.8,"depth":0.5,"delayMs":25,"feedback":0,"voices":2,"stereoSpread":0.5,"mix":0.5}}}' \
    chorus 0.7 0.5 25 0.4 0.8 2 -s 28 0.4 0.9 2.3 -s

# Flanger: one modulated 3 ms line with feedback 0.5 on both sides; sox's `flanger` with the same
# delay, regeneration and a quadratic read.
compare flanger '{"chorus":{"_0":{"mode":"flanger","rateHz":0.5,"depth":0.7,"delayMs":3,"feedback":0.5,"voices":1,"stereoSpread":0.25,"mix":0.5}}}' \
    flanger 3 2 50 71 0.5 sine 25 quadratic
# The dynamics effects cost little beside reading and writing ten minutes of audio (and
# harlune-cli syncs its output to disk, which sox does not), so these sections also give the
# effect's own CPU: each tool's CPU time less that of the same tool copying the file unchanged.
# harlune-cli's copy runs a flat EQ, which leaves the buffers untouched, so that the render pass
# and the building of the new content count in the baseline, not in the effect.
net_baselines() {
    [ -n "${sox_copy_cpu:-}" ] && return
    median "sox: copy (baseline)" sox "$work/in.wav" -b 32 -e float "$work/sox.wav"
    sox_copy_cpu=$(cpu)
    echo '[{"eq":{"_0":{"bands":[],"outputGainDB":0}}}]' >"$work/flat.json"
    median "harlune-cli process --effects (flat eq, baseline)" "$cli" process "$work/in.wav" "$work/h.wav" \
        --effects "$work/flat.json"
    harlune_copy_cpu=$(cpu)
}
# `compare_net NAME JSON SOX_EFFECT...`: `compare`, then the ratio of the effects' own CPU
# (sox's CPU is left in $sox_cpu by `compare`).
compare_net() {
    local name=$1
    if [ ${#only[@]} -gt 0 ] && ! printf '%s\n' "${only[@]}" | grep -qx "$name"; then return; fi
    net_baselines
    compare "$@"
    local h_cpu s_cpu=$sox_cpu
    h_cpu=$(cpu)
    printf '    %s: effect CPU, sox %.2f s, harlune %.2f s: sox / harlune %.1f\n' "$name" \
        "$(echo "$s_cpu - $sox_copy_cpu" | bc -l)" "$(echo "$h_cpu - $harlune_copy_cpu" | bc -l)" \
        "$(echo "($s_cpu - $sox_copy_cpu) / ($h_cpu - $harlune_copy_cpu)" | bc -l)"
}

# Compressor: threshold -20 dB, 4:1, 6 dB soft knee, 10 ms attack, 120 ms release, peak
# detection, linked. sox's compand draws the same curve from its breakpoints (unity to -20 dB,
# then 1/4 slope to 0 dB in -> -15 dB out) and smooths per channel with the same attack and decay.
compare_net compressor \
    '{"compressor":{"_0":{"thresholdDB":-20,"ratio":4,"kneeDB":6,"attackMs":10,"releaseMs":120,"makeupGainDB":0,"autoMakeup":false,"detection":"peak","stereoLink":true,"mix":1}}}' \
    compand 0.01,0.12 6:-90,-90,-20,-20,0,-15 0 -90 0

# Noise gate: opens at -45 dB, 60 dB range, 1 ms attack, 150 ms release (50 ms hold and 3 dB
# hysteresis have no compand counterpart). compand as a gate: a steep expander just under the
# threshold, 60 dB down below it.
compare_net gate \
    '{"gate":{"_0":{"thresholdDB":-45,"rangeDB":-60,"attackMs":1,"holdMs":50,"releaseMs":150,"hysteresisDB":3,"stereoLink":true}}}' \
    compand 0.001,0.15 -90,-150,-45.1,-105.1,-45,-45,0,0 0 -90 0
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

# Parametric EQ, eight peaking bands at Q 1, alternating +-3 dB: the same bands as sox's eight
# `equalizer` stages (biquads of the same cookbook design).
eq_bands='[{"frequency":60,"gainDB":3},{"frequency":150,"gainDB":-3},{"frequency":400,"gainDB":3},
{"frequency":1000,"gainDB":-3},{"frequency":2500,"gainDB":3},{"frequency":5000,"gainDB":-3},
{"frequency":8000,"gainDB":3},{"frequency":12000,"gainDB":-3}]'
eq_json="{\"eq\":{\"_0\":{\"bands\":$(echo "$eq_bands" | python3 -c 'import json,sys
print(json.dumps([dict(b, type="peak", q=1, isEnabled=True, slopeDBPerOctave=24, id="00000000-0000-4000-8000-00000000000%d" % i) for i, b in enumerate(json.load(sys.stdin))]))'),\"outputGainDB\":0}}}"
compare eq "$eq_json" equalizer 60 1q 3 equalizer 150 1q -3 equalizer 400 1q 3 equalizer 1000 1q -3 \
    equalizer 2500 1q 3 equalizer 5000 1q -3 equalizer 8000 1q 3 equalizer 12000 1q -3
