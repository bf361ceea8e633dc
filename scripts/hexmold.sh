#!/usr/bin/env bash
# Does all set-up on a fresh Debian 12 machine, builds the hexmold program and runs it.
#   scripts/hexmold.sh demo | --version
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
bash "$root/scripts/setup.sh" >&2
bash "$root/scripts/build.sh" release hexmold_tool >&2
# The demo voxelizes bunny.obj from the shared data folder next to the repository when it is there.
export HEXMOLD_DATA_DIR="${HEXMOLD_DATA_DIR:-$root/../shared/data}"
exec "$root/build/tools/hexmold" "${@:-demo}"
