#!/usr/bin/env bash
# Checks that every C++ file of the repository is formatted as .clang-format
# says; lists the files that are not.
set -euo pipefail
cd "$(dirname "$0")/.."
files=$(git ls-files '*.cpp' '*.h' 2>/dev/null || find src tools tests fuzz -name '*.cpp' -o -name '*.h')
bad=()
for f in $files; do
  clang-format --dry-run --Werror "$f" >/dev/null 2>&1 || bad+=("$f")
done
if ((${#bad[@]})); then
  echo "Error: these files are not formatted (run clang-format -i on them): ${bad[*]}"
  exit 1
fi
echo "Formatting: every C++ file as .clang-format says."
