#!/usr/bin/env bash
# End to end through the live effects rack: a private PipeWire server with a null sink (as in the
# engine's PipeWire test), `harlune-cli play --effects RACK.json` of five steady tones, the sink's
# monitor recorded, and each tone's level in the recording compared with the rack's EQ response
# (within 0.2 dB). Then the same with --watch while the rack file is rewritten mid-play: the new
# value must be heard and reported. When the swh amplifier is installed as an LV2 plug-in, a
# rack with it after the EQ must add its gain.
# Usage: e2e-rack.sh PATH/TO/harlune-e2e-rack-check PATH/TO/harlune-cli
set -uo pipefail
check=$1
cli=$2
session_name=e2e-rack
quantum=4096
source "$(dirname "$0")/../engine/private-pipewire.sh"

"$check" make "$work/tones.wav" || fail "could not make the test file"

# write_rack FILE OUTPUT-GAIN-DB [EXTRA-SLOT-JSON]: an EQ that shapes all five tones differently.
write_rack() {
    local extra=${3:+,$3}
    cat >"$1.tmp" <<JSON
{"slots": [{"id": "6f1c1a40-8f55-4c49-9f0e-0b3c6f6f2a11", "isEnabled": true, "builtin": {"eq": {"_0": {
  "outputGainDB": $2,
  "bands": [
    {"isEnabled": true, "type": "lowShelf", "frequency": 120, "gainDB": 6, "q": 0.707},
    {"isEnabled": true, "type": "peak", "frequency": 1000, "gainDB": -8, "q": 1.4},
    {"isEnabled": true, "type": "peak", "frequency": 3000, "gainDB": 3, "q": 2},
    {"isEnabled": true, "type": "highShelf", "frequency": 7000, "gainDB": -5, "q": 0.707}]}}}}$extra],
 "previewEnabled": true, "tailMode": "mixIntoFollowing"}
JSON
    mv "$1.tmp" "$1" # whole at once, as an editor saves
}

start_recorder() {
    recording=$work/$1.wav
    pw-record --target test -P '{ stream.capture.sink = true }' --rate 48000 --channels 2 --format f32 \
        "$recording" >"$work/record-$1.log" 2>&1 &
    recorder=$!
    pids+=("$recorder")
    wait_for test -s "$recording"
}
stop_recorder() {
    kill -INT "$recorder"
    for _ in $(seq 50); do kill -0 "$recorder" 2>/dev/null || break; sleep 0.1; done
}

# 1. A fixed rack.
write_rack "$work/rack.json" -2
start_recorder fixed
timeout 60 "$cli" play "$work/tones.wav" --effects "$work/rack.json" >"$work/play-fixed.log" 2>&1 ||
    fail "harlune-cli play --effects failed"
stop_recorder
grep -q "^effects: Parametric EQ" "$work/play-fixed.log" || fail "play did not name the rack"
"$check" check "$recording" "$work/rack.json" || fail "the EQ was not heard as its response says"

# 2. The file changes while it plays: a parameter change, heard without a rebuild.
write_rack "$work/watched.json" -2
start_recorder watched
timeout 60 "$cli" play "$work/tones.wav" --effects "$work/watched.json" --watch >"$work/play-watched.log" 2>&1 &
player=$!
pids+=("$player")
wait_for grep -q "^effects:" "$work/play-watched.log"
sleep 1.2
write_rack "$work/watched.json" -8
wait "$player" || fail "harlune-cli play --watch failed"
stop_recorder
cat "$work/play-watched.log"
grep -q "slot 1 (Parametric EQ): outputGainDB -2 -> -8" "$work/play-watched.log" ||
    fail "the change of the rack file was not reported"
"$check" check "$recording" "$work/watched.json" --last || fail "the changed value was not heard"

# 3. An LV2 amplifier after the EQ, when one is installed.
amp=http://plugin.org.uk/swh-plugins/amp
"$cli" effects --plugins >"$work/plugins.txt" 2>&1
if grep -q " $amp\$" "$work/plugins.txt"; then
    write_rack "$work/amp.json" -2 "{\"id\": \"0b8a3f55-1f7e-4d0a-b7a4-3f9c4c1d5e22\", \"isEnabled\": true,
        \"plugin\": {\"uri\": \"$amp\", \"name\": \"Simple amplifier\", \"state\": {\"gain\": -6}}}"
    start_recorder amp
    timeout 60 "$cli" play "$work/tones.wav" --effects "$work/amp.json" >"$work/play-amp.log" 2>&1 ||
        fail "harlune-cli play with the amplifier failed"
    stop_recorder
    "$check" check "$recording" "$work/amp.json" --plugin-gain-db -6 || fail "the amplifier's gain was not heard"
else
    echo "e2e-rack: the swh amplifier is not installed as LV2; its part is skipped"
fi
echo "e2e-rack: all passed"
