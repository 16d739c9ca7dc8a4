#!/usr/bin/env bash
# The main job: installs what is missing, builds what the story needs (qvdevice, the framework's
# library and its resources; not the tests, benchmarks and other tools), and plays the shipped
# hot-plug story (a stick with a driver CD becomes available, is initialised and polled, and is
# unplugged) in virtual time. Extra arguments go to qvdevice simulate (for example --json or
# --pretty).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build="$root/build"
"$root/scripts/install-deps.sh"
# Configured as scripts/build.sh does, so that the same tree serves both.
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQV_WARNINGS_AS_ERRORS=ON >/dev/null
cmake --build "$build" -j"$(nproc 2>/dev/null || echo 2)" --target qvdevice qv_resources
exec "$build/Tools/qvdevice" simulate "$root/Examples/stick-with-driver-cd.json" "$@"
