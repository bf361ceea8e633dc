#!/usr/bin/env bash
# Does all set-up on a fresh Debian 12 machine, builds Hexmold and its tests, and runs them.
#   scripts/test.sh              release build
#   scripts/test.sh sanitize     AddressSanitizer + UndefinedBehaviorSanitizer build
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
kind=${1:-release}
bash "$root/scripts/setup.sh"
bash "$root/scripts/build.sh" "$kind"
dir="$root/build"
[ "$kind" = sanitize ] && dir="$root/build-asan"
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=0}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
cd "$dir"
ctest --output-on-failure -j 2 --timeout 1500
