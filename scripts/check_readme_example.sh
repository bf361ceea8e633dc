#!/usr/bin/env bash
# Checks that the README's first C++ example is examples/consumer/main.cpp word for word, so that
# the example readers copy is the one the consumer_package test builds and runs.
#   scripts/check_readme_example.sh
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
diff -u <(awk '/^```cpp$/ { n++; if (n == 1) { inside = 1; next } } /^```$/ { inside = 0 } inside' "$root/README.md") \
    "$root/examples/consumer/main.cpp"
