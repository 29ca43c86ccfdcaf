# Sourced by the comparison scripts. `best NAME COMMAND...` runs COMMAND $runs times (default 3)
# and prints NAME with the minimum wall time and the minimum CPU time (user + system, all
# threads); the two figures also go to "$work/last". Needs $work, a scratch folder.
best() {
    local name=$1; shift
    local wall= cpu=
    for _ in $(seq "${runs:-3}"); do
        /usr/bin/time -f '%e %U %S' -o "$work/time" "$@" >/dev/null 2>&1
        read -r e u s <"$work/time"
        local c
        c=$(echo "$u + $s" | bc)
        if [ -z "$wall" ] || [ "$(echo "$e < $wall" | bc)" = 1 ]; then wall=$e; fi
        if [ -z "$cpu" ] || [ "$(echo "$c < $cpu" | bc)" = 1 ]; then cpu=$c; fi
    done
    printf '%-45s wall %8.2f s   cpu %8.2f s   (min of %d)\n' "$name" "$wall" "$cpu" "${runs:-3}"
    echo "$wall $cpu" >"$work/last"
}
