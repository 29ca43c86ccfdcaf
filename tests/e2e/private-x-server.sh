#!/usr/bin/env bash
# Sourced by the window's end-to-end tests. `start_private_x FIRST LAST` starts Xvfb on the first
# free display number in FIRST..LAST (the tests use separate ranges so they never meet), waits
# until it answers, and points DISPLAY, XDG_RUNTIME_DIR and HOME (preferences, recent files) into
# the caller's `work` folder. The server's PID joins the caller's `pids`.
start_private_x() {
    local display
    for display in $(seq "$1" "$2"); do
        [[ -e /tmp/.X11-unix/X$display || -e /tmp/.X$display-lock ]] || break
    done
    Xvfb ":$display" -screen 0 1280x800x24 -nolisten tcp >"$work/xvfb.log" 2>&1 &
    pids+=($!)
    export DISPLAY=":$display"
    for _ in $(seq 100); do xdotool getmouselocation >/dev/null 2>&1 && break; sleep 0.1; done
    export XDG_RUNTIME_DIR="$work/runtime"
    mkdir -m 700 -p "$XDG_RUNTIME_DIR"
    export HOME="$work/home"
    mkdir -p "$HOME"
}
