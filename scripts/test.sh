#!/usr/bin/env bash
# The whole test suite: installs what is missing, then builds and runs every test twice, in a
# normal build and in an address + undefined-behaviour sanitizer build, and then runs every
# libFuzzer target in a clang build: a fixed number of runs from a fixed seed per target
# (Fuzz/ci-runs.tsv), or FUZZ_SECONDS each from random seeds when that is set.
# Each phase prints how long it took: CI must stay under 20 minutes on two cores from a fresh
# clone, without ccache.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/install-deps.sh"
jobs=$(nproc 2>/dev/null || echo 2)

# What each build is configured with (scripts/build.sh starts from RelWithDebInfo; later
# arguments win). The sanitizer and fuzz builds need no full optimisation or debug information:
# -O1 keeps the sanitizers fast enough and -g1 keeps file and line in their reports, at a fraction
# of the compile time.
normal_args=(-DQV_SANITIZE=OFF -DCMAKE_BUILD_TYPE=Release)
sanitize_args=(-DQV_SANITIZE=ON -DQV_BUILD_BENCHMARKS=OFF
               "-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O1 -g1 -DNDEBUG"
               "-DCMAKE_C_FLAGS_RELWITHDEBINFO=-O1 -g1 -DNDEBUG")
fuzz_args=(-DCMAKE_BUILD_TYPE=RelWithDebInfo -DQV_BUILD_FUZZERS=ON -DQV_BUILD_TESTS=OFF
           -DQV_BUILD_BENCHMARKS=OFF
           "-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O1 -g1 -DNDEBUG"
           "-DCMAKE_C_FLAGS_RELWITHDEBINFO=-O1 -g1 -DNDEBUG")

phase_start=$SECONDS
phase_done() {
  echo "== $1 took $((SECONDS - phase_start)) s (total $SECONDS s)"
  phase_start=$SECONDS
}

echo "== normal build"
"$root/scripts/build.sh" "$root/build" "${normal_args[@]}"
(cd "$root/build" && ctest --output-on-failure -j"$jobs")
phase_done "normal build and tests"

echo "== sanitizer build (address, undefined)"
"$root/scripts/build.sh" "$root/build-sanitize" "${sanitize_args[@]}"
(cd "$root/build-sanitize" && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
   UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 ctest --output-on-failure -j"$jobs")
phase_done "sanitizer build and tests"

echo "== fuzz targets (clang, libFuzzer + address + undefined)"
CC=clang-14 CXX=clang++-14 cmake -S "$root" -B "$root/build-fuzz" "${fuzz_args[@]}" >/dev/null
cmake --build "$root/build-fuzz" -j"$jobs" --target qv_fuzzers
"$root/scripts/run-fuzzers.sh" "$root/build-fuzz" ${FUZZ_SECONDS:+"$FUZZ_SECONDS"}
phase_done "fuzz build and runs"
