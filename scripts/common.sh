# Shared by the scripts of this folder; sourced, not run.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

say() { printf '\n== %s\n' "$*"; }

if [ "$(id -u)" -ne 0 ]; then
    echo "This needs root: the agent runs as root, and packages may have to be installed." >&2
    exit 1
fi

# What the agent and the receiver are built from.
build_packages=(cmake make g++ libbson-dev libssl-dev libudns-dev rapidjson-dev libcli11-dev \
    libcurl4-openssl-dev libmicrohttpd-dev zlib1g-dev pkg-config)

# Installs those of the named packages that are missing.
install_missing() {
    local missing=() package
    for package in "$@"; do
        dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'ok installed' || missing+=("$package")
    done
    [ ${#missing[@]} -gt 0 ] || return 0
    say "installing ${#missing[@]} packages: ${missing[*]}"
    (
        # Servers that are needed here are started by the scripts, not by their packages.
        policy=/usr/sbin/policy-rc.d
        if [ ! -e "$policy" ]; then
            printf '#!/bin/sh\nexit 101\n' >"$policy"
            chmod +x "$policy"
            trap 'rm -f "$policy"' EXIT
        fi
        export DEBIAN_FRONTEND=noninteractive
        apt-get update -qq
        apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
    )
}
