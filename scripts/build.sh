#!/usr/bin/env bash
# Configures and builds one build tree. Usage: scripts/build.sh [BUILD_DIR] [extra cmake args...]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build_dir=${1:-"$root/build"}
shift || true
jobs=$(nproc 2>/dev/null || echo 2)
# Warnings are errors in the project's own builds (the option is off for everyone else).
cmake -S "$root" -B "$build_dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQV_WARNINGS_AS_ERRORS=ON "$@" \
  >/dev/null
cmake --build "$build_dir" -j"$jobs"
