#!/usr/bin/env bash
# Recording end to end through PipeWire: a private server with the null sink "test" and a virtual
# source "testmic" on its monitor; a tone plays into the sink while the recorder captures testmic
# through its own capture stream, and the take must hold the tone at its level.
# With harlune-cli given, `harlune-cli record` lists testmic and records it into a file.
# With harlune-e2e-record-modes given, each record mode goes into a document and the take must
# be the played click track exactly. The command line's take is also killed mid-way (the safety
# file must read back) and recorded with its safety folder on a full disk (the take must not
# suffer).
# Usage: e2e-record.sh TOOL RECORD-CHECK [HARLUNE-CLI [RECORD-MODES]]
set -uo pipefail
tool=$1
check=$2
cli=${3:-}
modes=${4:-}
session_name=e2e-record
quantum=4096
source "$(dirname "$0")/private-pipewire.sh"

pactl load-module module-remap-source master=test.monitor source_name=testmic >/dev/null ||
    fail "no virtual source"
"$check" testmic 5 1000 0.5 "$work/Recordings" >"$work/check.log" 2>&1 &
checker=$!
pids+=("$checker")
sleep 1
timeout 60 "$tool" play --backend pipewire --rate 48000 --channels 2 --seconds 4 --amplitude 0.5 \
    >"$work/play.log" 2>&1 || fail "play failed"
wait "$checker" || fail "the take did not hold the tone"
cat "$work/check.log"
ls "$work/Recordings" 2>/dev/null | grep -q . && fail "a safety file was left behind"
if [ -n "$cli" ]; then
    "$cli" record --list >"$work/list.log" 2>&1 || fail "record --list failed"
    grep -q '^testmic' "$work/list.log" || fail "record --list does not show testmic"
    XDG_DATA_HOME=$work/data timeout 60 "$cli" record --device testmic --duration 2 "$work/take.wav" \
        >"$work/cli-record.log" 2>&1 || fail "harlune-cli record failed"
    seconds=$(ffprobe -v error -show_entries format=duration -of csv=p=0 "$work/take.wav")
    awk -v s="$seconds" 'BEGIN { exit !(s >= 1.9 && s <= 2.3) }' || fail "the recorded file lasts $seconds s"
    XDG_DATA_HOME=$work/data timeout 60 "$cli" record --device testmic --input 2 --duration 1 \
        "$work/right.flac" >"$work/cli-input.log" 2>&1 || fail "harlune-cli record --input 2 failed"
    channels=$(ffprobe -v error -show_entries stream=channels -of csv=p=0 "$work/right.flac")
    [ "$channels" = 1 ] || fail "--input 2 recorded $channels channels"
    ls "$work/data/Harlune/Recordings" 2>/dev/null | grep -q . && fail "a written take left its safety file"
fi

# Frames of a file as libsndfile and as ffmpeg read it.
frames_sndfile() { "$cli" info "$1" 2>/dev/null | awk '/frames:/ { print $2 }'; }
frames_ffmpeg() { ffmpeg -v error -i "$1" -f f32le -acodec pcm_f32le - 2>/dev/null | wc -c | awk '{ print int($1 / 8) }'; }

if [ -n "$cli" ]; then
    # Killed during a two-minute take: the safety file holds all but the last second.
    timeout 60 "$tool" play --backend pipewire --rate 48000 --channels 2 --seconds 12 --amplitude 0.5 \
        >"$work/play-kill.log" 2>&1 &
    player=$!
    sleep 0.5
    XDG_DATA_HOME=$work/killed "$cli" record --device testmic --duration 120 "$work/never.wav" \
        >"$work/cli-killed.log" 2>&1 &
    recorder=$!
    started=$(date +%s.%N)
    sleep 6
    kill -9 "$recorder"
    killed_after=$(awk -v a="$started" -v b="$(date +%s.%N)" 'BEGIN { printf "%.2f", b - a }')
    wait "$recorder" 2>/dev/null
    kill "$player" 2>/dev/null
    wait "$player" 2>/dev/null
    safety=$(ls "$work/killed/Harlune/Recordings/"*.caf 2>/dev/null | head -1)
    [ -n "$safety" ] || fail "the killed take left no safety file"
    by_sndfile=$(frames_sndfile "$safety")
    by_ffmpeg=$(frames_ffmpeg "$safety")
    echo "killed after $killed_after s: libsndfile reads $by_sndfile frames, ffmpeg $by_ffmpeg"
    # Half a second for the program to reach the server before the take starts.
    awk -v f="$by_sndfile" -v t="$killed_after" 'BEGIN { exit !(f / 48000 >= t - 1.5) }' ||
        fail "the safety file misses more than the last second"
    [ "$by_sndfile" = "$by_ffmpeg" ] || fail "libsndfile and ffmpeg read different lengths"
    "$cli" info --decode "$safety" | grep -Eq 'peak -6\.0[0-9] dBFS' || fail "the safety file does not hold the tone"

    # A full disk under the safety file: one warning, and the whole take still reaches OUT.
    if mkdir -p "$work/full" && mount -t tmpfs -o size=256k tmpfs "$work/full" 2>/dev/null; then
        timeout 60 "$tool" play --backend pipewire --rate 48000 --channels 2 --seconds 4 --amplitude 0.5 \
            >"$work/play-full.log" 2>&1 &
        player=$!
        XDG_DATA_HOME=$work/full timeout 60 "$cli" record --device testmic --duration 3 "$work/full-take.wav" \
            >"$work/cli-full.log" 2>&1
        status=$?
        wait "$player" 2>/dev/null
        cat "$work/cli-full.log"
        [ "$status" = 0 ] || { umount "$work/full"; fail "recording onto a full disk failed"; }
        warnings=$(grep -c 'safety copy on disk stopped' "$work/cli-full.log")
        seconds=$(ffprobe -v error -show_entries format=duration -of csv=p=0 "$work/full-take.wav")
        umount "$work/full"
        [ "$warnings" = 1 ] || fail "expected one warning about the safety copy, saw $warnings"
        awk -v s="$seconds" 'BEGIN { exit !(s >= 2.9 && s <= 3.3) }' || fail "the take on a full disk lasts $seconds s"
        echo "full disk: one warning, the take lasts $seconds s"
        # Killed once the disk is full: the safety file still reads back with what fit.
        mount -t tmpfs -o size=256k tmpfs "$work/full" || fail "cannot mount the tmpfs again"
        XDG_DATA_HOME=$work/full "$cli" record --device testmic --duration 30 "$work/never.wav" \
            >"$work/cli-full-killed.log" 2>&1 &
        recorder=$!
        for _ in $(seq 100); do grep -q 'safety copy on disk stopped' "$work/cli-full-killed.log" && break; sleep 0.1; done
        kill -9 "$recorder"
        wait "$recorder" 2>/dev/null
        safety=$(ls "$work/full/Harlune/Recordings/"*.caf 2>/dev/null | head -1)
        by_sndfile=$( [ -n "$safety" ] && frames_sndfile "$safety")
        by_ffmpeg=$( [ -n "$safety" ] && frames_ffmpeg "$safety")
        umount "$work/full"
        echo "full disk, killed: libsndfile reads ${by_sndfile:-no} frames, ffmpeg ${by_ffmpeg:-no}"
        # 256 KiB hold at most 32768 frames of stereo float; the file holds some and all readers agree.
        awk -v f="${by_sndfile:-0}" 'BEGIN { exit !(f > 4096 && f <= 32768) }' || fail "the safety file on a full disk holds ${by_sndfile:-nothing}"
        [ "$by_sndfile" = "$by_ffmpeg" ] || fail "libsndfile and ffmpeg read different lengths of the full-disk safety file"
    else
        echo "full disk: skipped (cannot mount a tmpfs here)"
    fi
fi

if [ -n "$modes" ]; then
    QT_QPA_PLATFORM=offscreen timeout 180 "$modes" testmic "$work/Recordings-modes" "$tool" \
        >"$work/modes.log" 2>&1
    status=$?
    cat "$work/modes.log"
    [ "$status" = 0 ] || fail "a record mode failed"
    ls "$work/Recordings-modes" 2>/dev/null | grep -q . && fail "a kept take left its safety file"
fi
echo "$session_name: ok"
