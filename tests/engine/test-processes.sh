# Sourced by the end-to-end tests (and, through private-pipewire.sh, the xrun benchmark): a scratch
# folder and the processes a test starts. It sets `work` (the scratch folder) and `pids`
# (everything started, stopped by PID at exit, newest first), and defines `fail` and `wait_for`.
# The caller sets `session_name`, which prefixes every failure.
work=$(mktemp -d)
pids=()

stop_all() {
    # Newest first: recorders and clients before the servers they talk to.
    for ((i = ${#pids[@]} - 1; i >= 0; i--)); do
        kill "${pids[i]}" 2>/dev/null || true
    done
    for pid in "${pids[@]}"; do
        for _ in $(seq 50); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
        kill -9 "$pid" 2>/dev/null || true
    done
    rm -rf "$work"
}
trap stop_all EXIT

fail() { echo "$session_name: $*"; for log in "$work"/*.log; do echo "--- $log"; tail -20 "$log"; done; exit 1; }

# Runs a command until it succeeds, at most 10 s.
wait_for() {
    for _ in $(seq 100); do "$@" >/dev/null 2>&1 && return 0; sleep 0.1; done
    fail "gave up waiting for: $*"
}

# A JACK server killed by a test leaves its entry in the shared-memory registry, and jackd refuses
# to start once the registry is full ("Too many servers already active"). With no JACK server
# running on the machine every entry is stale, so the tests clear them before starting their own.
clear_stale_jack_registry() {
    if pgrep -x jackd >/dev/null || pgrep -x jackdbus >/dev/null; then return 0; fi
    rm -f /dev/shm/jack-* /dev/shm/jack_* 2>/dev/null || true
}
