#!/usr/bin/env bash
# Fails when any C++ file of the project is not formatted as .clang-format says.
set -euo pipefail
clang_format=${1:-clang-format}
cd "$(dirname "$0")/.."
mapfile -t files < <(git ls-files --cached --others --exclude-standard -- \
  'CoreLayer/*.cpp' 'CoreLayer/*.h' 'Tools/*.cpp' 'Tools/*.h' 'Tests/*.cpp' 'Tests/*.h' \
  'Benchmarks/*.cpp' 'Benchmarks/*.h' 'Fuzz/*.cpp' 'Fuzz/*.h')
existing=()
for f in "${files[@]}"; do
  [[ -f "$f" ]] && existing+=("$f")
done
[[ ${#existing[@]} -gt 0 ]] || exit 0
# One clang-format per batch of files, as many batches at once as there are cores: starting the
# program once per file cost most of the check's time.
jobs=$(nproc 2>/dev/null || echo 2)
if printf '%s\0' "${existing[@]}" |
   xargs -0 -P "$jobs" -n 50 "$clang_format" --dry-run --Werror >/dev/null 2>&1; then
  exit 0
fi
# Something is off: name each file that clang-format would change.
for f in "${existing[@]}"; do
  if ! "$clang_format" --dry-run --Werror "$f" >/dev/null 2>&1; then
    echo "not formatted: $f"
  fi
done
exit 1
