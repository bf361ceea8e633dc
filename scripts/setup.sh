#!/usr/bin/env bash
# Installs what Hexmold needs to build, test and benchmark on Debian 12. Idempotent; run as root
# (or with sudo available). Installs only the packages that are missing.
set -euo pipefail

packages=(build-essential cmake ninja-build ccache git pkg-config
          libtbb-dev libjemalloc-dev libgtest-dev googletest libbenchmark-dev
          libopenvdb-dev libboost-dev libboost-iostreams-dev libimath-dev
          libassimp-dev libcli11-dev libstb-dev clang-format)

missing=()
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done

if ((${#missing[@]})); then
    echo "setup: installing ${missing[*]}"
    sudo_cmd=()
    [ "$(id -u)" -eq 0 ] || sudo_cmd=(sudo)
    export DEBIAN_FRONTEND=noninteractive
    "${sudo_cmd[@]}" apt-get update -qq
    "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
else
    echo "setup: all packages present"
fi
