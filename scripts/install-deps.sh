#!/usr/bin/env bash
# Installs the Debian packages listed in scripts/packages.txt that are missing, and nothing
# when all are present. Extra list files may be named as arguments (for example the
# real-time checker's toolchain, which only its own make target needs).
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
lists=("$here/packages.txt" "$@")

wanted=()
for list in "${lists[@]}"; do
    while read -r line; do
        line=${line%%#*}
        line=$(echo "$line" | xargs)
        [ -n "$line" ] && wanted+=("$line")
    done <"$list"
done

missing=()
for pkg in "${wanted[@]}"; do
    status=$(dpkg-query -W -f='${db:Status-Status}' "$pkg" 2>/dev/null || true)
    [ "$status" = "installed" ] || missing+=("$pkg")
done

[ ${#missing[@]} -eq 0 ] && exit 0

echo "Installing missing packages: ${missing[*]}"
sudo_cmd=()
[ "$(id -u)" -eq 0 ] || sudo_cmd=(sudo)
export DEBIAN_FRONTEND=noninteractive
"${sudo_cmd[@]}" apt-get update -qq
"${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
