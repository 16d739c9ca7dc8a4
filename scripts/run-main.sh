#!/usr/bin/env bash
# The main job: installs what is missing, builds, and plays the shipped demo.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/install-deps.sh"
"$root/scripts/build.sh" "$root/build"
exec "$root/build/Tools/qvdevice" registry "$root/Examples/registry-demo.json" --at 1.5 "$@"
