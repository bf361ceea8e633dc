#!/usr/bin/env bash
# Checks that the README's first C++ example is examples/consumer/main.cpp word for word, and the
# block after "<!-- example: examples/consumer/mesh_to_vdb.cpp -->" that file, so that the
# examples readers copy are the ones the consumer_package test builds and runs.
#   scripts/check_readme_example.sh
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
diff -u <(awk '/^```cpp$/ { n++; if (n == 1) { inside = 1; next } } /^```$/ { inside = 0 } inside' "$root/README.md") \
    "$root/examples/consumer/main.cpp"
diff -u <(awk '/<!-- example: examples\/consumer\/mesh_to_vdb.cpp -->/ { armed = 1; next }
               armed && /^```cpp$/ { inside = 1; armed = 0; next } /^```$/ { inside = 0 } inside' "$root/README.md") \
    "$root/examples/consumer/mesh_to_vdb.cpp"
