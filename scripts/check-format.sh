#!/usr/bin/env bash
# Fails when any C++ file of the project is not formatted as .clang-format says.
set -euo pipefail
clang_format=${1:-clang-format}
cd "$(dirname "$0")/.."
mapfile -t files < <(git ls-files --cached --others --exclude-standard -- \
  'CoreLayer/*.cpp' 'CoreLayer/*.h' 'Tools/*.cpp' 'Tools/*.h' 'Tests/*.cpp' 'Tests/*.h' \
  'Benchmarks/*.cpp' 'Benchmarks/*.h' 'Fuzz/*.cpp' 'Fuzz/*.h')
bad=0
for f in "${files[@]}"; do
  [[ -f "$f" ]] || continue
  if ! "$clang_format" --dry-run --Werror "$f" >/dev/null 2>&1; then
    echo "not formatted: $f"
    bad=1
  fi
done
exit $bad
