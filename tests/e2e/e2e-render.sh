#!/usr/bin/env bash
# `harlune --render` without a display: a generated file drawn into PNGs at two device pixel
# ratios, light and dark, whole and in part. Each picture must have the asked size in device
# pixels, and pictures of different audio, ranges and appearances must differ; bad arguments and
# a missing file must fail with a message and no picture.
# Usage: e2e-render.sh PATH/TO/harlune
set -uo pipefail
harlune=$1
work=$(mktemp -d /tmp/harlune-e2e-render.XXXXXX)
trap 'rm -rf "$work"' EXIT
fail() { echo "e2e-render: FAIL: $*" >&2; exit 1; }
unset DISPLAY WAYLAND_DISPLAY
export XDG_RUNTIME_DIR=$work/run
mkdir -m 700 "$XDG_RUNTIME_DIR"

# Width and height of a PNG from its header.
png_size() { python3 -c 'import struct,sys; d=open(sys.argv[1],"rb").read(24); assert d[:8]==b"\x89PNG\r\n\x1a\n"; print("%dx%d" % struct.unpack(">II", d[16:24]))' "$1"; }

ffmpeg -v error -f lavfi -i "sine=frequency=220:duration=3:sample_rate=48000" -ac 2 "$work/tone.wav" || fail "ffmpeg"
ffmpeg -v error -f lavfi -i "anoisesrc=duration=3:sample_rate=48000:amplitude=0.5" -ac 1 "$work/noise.flac" || fail "ffmpeg"

"$harlune" --render "$work/tone.png" "$work/tone.wav" --size 800x300 || fail "render of a WAV"
[ "$(png_size "$work/tone.png")" = 800x300 ] || fail "tone.png is $(png_size "$work/tone.png")"
"$harlune" --render "$work/tone2.png" "$work/tone.wav" --size 800x300 --dpr 2 || fail "render at ratio 2"
[ "$(png_size "$work/tone2.png")" = 1600x600 ] || fail "tone2.png is $(png_size "$work/tone2.png")"
"$harlune" --render "$work/tone15.png" "$work/tone.wav" --size 800x300 --dpr 1.5 || fail "render at ratio 1.5"
[ "$(png_size "$work/tone15.png")" = 1200x450 ] || fail "tone15.png is $(png_size "$work/tone15.png")"
"$harlune" --render "$work/dark.png" "$work/tone.wav" --size 800x300 --dark || fail "dark render"
"$harlune" --render "$work/part.png" "$work/tone.wav" --size 800x300 --range 1:1.01 || fail "render of a range"
"$harlune" --render "$work/noise.png" "$work/noise.flac" --size 800x300 || fail "render of a FLAC"
for other in dark part noise; do
    cmp -s "$work/tone.png" "$work/$other.png" && fail "$other.png is the same picture as tone.png"
done
# The same input draws the same picture.
"$harlune" --render "$work/again.png" "$work/tone.wav" --size 800x300 || fail "second render"
cmp -s "$work/tone.png" "$work/again.png" || fail "the same render differs"

# Bad input: a message, a failing status, no picture.
for args in "--size 0x300" "--size big" "--range 2:1" "--dpr 0" "--colour red"; do
    # shellcheck disable=SC2086
    if "$harlune" --render "$work/bad.png" "$work/tone.wav" $args 2>"$work/err.txt"; then
        fail "accepted $args"
    fi
    [ -s "$work/err.txt" ] || fail "no message for $args"
    [ -e "$work/bad.png" ] && fail "a picture for $args"
done
if "$harlune" --render "$work/bad.png" "$work/missing.wav" 2>"$work/err.txt"; then fail "rendered a missing file"; fi
[ -s "$work/err.txt" ] || fail "no message for a missing file"
echo "e2e-render: ok"
