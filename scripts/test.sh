#!/usr/bin/env bash
# The whole test suite: installs what is missing, then builds and runs every test twice, in a
# normal build and in an address + undefined-behaviour sanitizer build, and then runs every
# libFuzzer target for a bounded time (FUZZ_SECONDS each, 20 by default) in a clang build.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/install-deps.sh"
jobs=$(nproc 2>/dev/null || echo 2)

echo "== normal build"
"$root/scripts/build.sh" "$root/build" -DQV_SANITIZE=OFF -DCMAKE_BUILD_TYPE=Release
(cd "$root/build" && ctest --output-on-failure -j"$jobs")

echo "== sanitizer build (address, undefined)"
"$root/scripts/build.sh" "$root/build-sanitize" -DQV_SANITIZE=ON -DQV_BUILD_BENCHMARKS=OFF
(cd "$root/build-sanitize" && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
   UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 ctest --output-on-failure -j"$jobs")

echo "== fuzz targets (clang, libFuzzer + address + undefined)"
CC=clang-14 CXX=clang++-14 cmake -S "$root" -B "$root/build-fuzz" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DQV_BUILD_FUZZERS=ON -DQV_BUILD_TESTS=OFF -DQV_BUILD_BENCHMARKS=OFF >/dev/null
cmake --build "$root/build-fuzz" -j"$jobs" --target qv_fuzzers
"$root/scripts/run-fuzzers.sh" "$root/build-fuzz" "${FUZZ_SECONDS:-20}"
