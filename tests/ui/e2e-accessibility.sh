#!/usr/bin/env bash
# The inspector read by assistive technology: the editor runs under a private X server with a
# private session bus and accessibility bus, opens a generated file (a 1031.25 Hz tone at half
# scale), and a pyatspi client must read the spectrum's strongest bin and the Info panel's peak,
# RMS and DC offset from the accessible names and descriptions.
# Usage: e2e-accessibility.sh PATH/TO/harlune
set -uo pipefail
harlune=$1
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d /tmp/harlune-e2e-a11y.XXXXXX)
pids=()
cleanup() {
    for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null; done
    wait 2>/dev/null
}
trap cleanup EXIT
fail() {
    echo "e2e-accessibility: FAIL: $*" >&2
    cat "$work"/*.log >&2 2>/dev/null
    exit 1
}
for tool in Xvfb xdotool sox dbus-run-session /usr/libexec/at-spi-bus-launcher; do
    command -v "$tool" >/dev/null || fail "$tool is not installed (scripts/packages.txt)"
done
/usr/bin/python3 -c 'import pyatspi' 2>/dev/null || fail "python3-pyatspi is not installed"

# Inside the private session bus: the accessibility bus, the editor, the reader.
if [[ ${1:-} != --inside ]]; then
    source "$here/../e2e/private-x-server.sh"
    start_private_x 121 150
    export HARLUNE_A11Y_WORK=$work
    dbus-run-session -- "$0" --inside "$harlune"
    exit $?
fi

harlune=$2
work=$HARLUNE_A11Y_WORK
/usr/libexec/at-spi-bus-launcher --launch-immediately >"$work/atspi.log" 2>&1 &
pids+=($!)
export QT_LINUX_ACCESSIBILITY_ALWAYS_ON=1
export QT_ACCESSIBILITY=1
sox -n -r 48000 -c 1 -b 24 "$work/tone.wav" synth 2 sine 1031.25 vol 0.5 || fail "sox could not make the input"
"$harlune" --trace --new-instance "$work/tone.wav" 2>"$work/editor.log" &
pids+=($!)
for _ in $(seq 600); do grep -q "first paint" "$work/editor.log" 2>/dev/null && break; sleep 0.1; done
grep -q "first paint" "$work/editor.log" || fail "the editor did not paint"

# The frame at the cursor (frame 0) is half silence: its level is not asserted, only its place.
/usr/bin/python3 "$here/read-accessibility.py" 60 \
    'Spectrum=Strongest at 1\.03 kHz  -?[0-9]+\.[0-9] dB' \
    'Peak Mono=-6\.0' 'RMS Mono=-9\.0' 'DC offset Mono=-?0\.00[0-9]{2}%' ||
    fail "the inspector's figures could not be read over AT-SPI"
echo "e2e-accessibility: 1 passed, 0 failed"
