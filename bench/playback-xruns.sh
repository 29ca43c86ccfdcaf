#!/usr/bin/env bash
# Callbacks missed while a long file plays through the PipeWire back end with both cores busy:
# a private PipeWire server with a null sink (as in the end-to-end test, but at a desktop's
# usual period), two busy loops at normal priority as "another job", and the tool's count of
# callbacks that came more than one and a half periods late (each one audio that was not ready
# in time).
# Usage: bench/playback-xruns.sh [SECONDS (600)] [QUANTUM (1024)] [TOOL (build/bin/harlune-e2e-tool)]
set -uo pipefail
seconds=${1:-600}
quantum=${2:-1024}
tool=$(realpath "${3:-build/bin/harlune-e2e-tool}")
session_name=playback-xruns
source "$(dirname "$0")/../tests/engine/private-pipewire.sh"

for _ in 1 2; do
    bash -c 'while :; do :; done' &
    pids+=($!)
done
echo "playing ${seconds} s at 48 kHz stereo, quantum ${quantum}, with two busy loops; load: $(cut -d' ' -f1-3 /proc/loadavg)"
timeout $((seconds * 3 / 2 + 60)) "$tool" play --backend pipewire --rate 48000 --channels 2 --seconds "$seconds" \
    --lead 0.5 --amplitude 0.3 || fail "play failed"
echo "load after: $(cut -d' ' -f1-3 /proc/loadavg)"
