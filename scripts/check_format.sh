#!/usr/bin/env bash
# Checks that every C++ file in the repository is formatted as .clang-format says (Debian 12's
# clang-format 14). Fix a failure with: clang-format -i FILE
#   scripts/check_format.sh
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
if git rev-parse --is-inside-work-tree >/dev/null 2>&1; then
    mapfile -t files < <(git ls-files "*.cpp" "*.h")
else
    mapfile -t files < <(find hexmold tests bench tools examples fixtures -name '*.cpp' -o -name '*.h')
fi
clang-format --dry-run -Werror "${files[@]}"
echo "check_format: ${#files[@]} files formatted"
