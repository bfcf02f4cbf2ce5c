#!/bin/bash
# Every C and C++ source of the repository is clang-format clean.
set -euo pipefail
cd "$1"
mapfile -t files < <(git ls-files '*.c' '*.cpp' '*.h' 2>/dev/null | grep -v '^fuzz/corpus/' || true)
[ ${#files[@]} -gt 0 ] || { echo "no sources found"; exit 1; }
clang-format --dry-run -Werror "${files[@]}"
echo "format: ${#files[@]} files clean"
