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
printf 'v -1 -1 -1\nv 1 -1 -1\nv 1 1 -1\nv -1 1 -1\nv -1 -1 1\nv 1 -1 1\nv 1 1 1\nv -1 1 1\nf 1 4 3 2\nf 5 6 7 8\nf 1 2 6 5\nf 2 3 7 6\nf 3 4 8 7\nf 4 1 5 8\n' >"$work/cube.obj"
"$work/build/consumer_mesh_to_vdb" "$work/cube.obj" "$work/cube.vdb"
test -s "$work/cube.vdb"
