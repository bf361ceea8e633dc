#!/usr/bin/env bash
# Installs the built libraries into a temporary prefix and builds and runs the consumer examples
# against the installed CMake package, as another project would use it.
#   scripts/check_consumer.sh <build-dir>
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:?build folder}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$build" --prefix "$work/prefix" >/dev/null
cmake -S "$root/examples/consumer" -B "$work/build" -G Ninja -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/build" >/dev/null
export LD_LIBRARY_PATH="$work/prefix/lib:${LD_LIBRARY_PATH:-}"
"$work/build/consumer"
printf 'v 0 0 0\nv 1 0 0\nv 1 1 0\nv 0 1 0\nf 1 2 3 4\n' >"$work/square.obj"
"$work/build/consumer_read_mesh" "$work/square.obj"
