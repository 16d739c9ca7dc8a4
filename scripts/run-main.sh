#!/usr/bin/env bash
# The main job: installs what is missing, builds, and plays the shipped hot-plug story (a stick
# with a driver CD becomes available, is initialised and polled, and is unplugged) in virtual time.
# Extra arguments go to qvdevice simulate (for example --json or --pretty).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/install-deps.sh"
"$root/scripts/build.sh" "$root/build"
exec "$root/build/Tools/qvdevice" simulate "$root/Examples/stick-with-driver-cd.json" "$@"
