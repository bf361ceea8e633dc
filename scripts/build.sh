#!/usr/bin/env bash
# Configures and builds Hexmold into a build folder.
#   scripts/build.sh [release|sanitize] [targets...]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
kind=${1:-release}
shift || true

case "$kind" in
    release)  dir="$root/build";      flags=(-DCMAKE_BUILD_TYPE=Release) ;;
    # -O1 -g1: what the sanitizers need for exact reports, at a fraction of the -O2 -g compile time.
    # NDEBUG is not defined, so assertions and the substrate's precondition checks are on.
    sanitize) dir="$root/build-asan"; flags=(-DCMAKE_BUILD_TYPE=RelWithDebInfo "-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O1 -g1" -DHEXMOLD_SANITIZE=ON
                                             -DHEXMOLD_BUILD_BENCH=OFF) ;;
    *) echo "usage: $0 [release|sanitize] [targets...]" >&2; exit 2 ;;
esac

jobs=$(nproc)
cmake -S "$root" -B "$dir" -G Ninja "${flags[@]}" >/dev/null
if (($#)); then
    cmake --build "$dir" -j "$jobs" --target "$@"
else
    cmake --build "$dir" -j "$jobs"
fi
