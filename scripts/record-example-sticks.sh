#!/usr/bin/env bash
# Records the shipped example sticks with `qvdevice record`, as a user would record a real one:
# each fake stick (Examples/recordings/sticks/*.umockdev) is loaded into a umockdev testbed, its
# control port is a pty served by the modem simulator with the stick's profile, and the framework
# runs live on it with the application initialising the stick. The recordings go to
# Examples/recordings/ (scenario, umockdev description, one simulator profile per port), masked as
# a user's would be.
#
#   scripts/record-example-sticks.sh BUILD_DIR [SECONDS [NAME...]]   (NAMEs: only those recordings)
set -euo pipefail
build=${1:?usage: $0 BUILD_DIR [SECONDS]}
seconds=${2:-8}
shift $(($# < 2 ? $# : 2))
only=" $* "
cd "$(dirname "$0")/.."
qvdevice=$(find "$build" -name qvdevice -type f -perm -u+x | head -n 1)
simulator=$(find "$build" -name qv-modem-simulator -type f -perm -u+x | head -n 1)
if [[ -z "$qvdevice" || -z "$simulator" ]] || ! command -v umockdev-run >/dev/null; then
  echo "needs qvdevice and qv-modem-simulator built in $build, and umockdev-run" >&2
  exit 2
fi
out=Examples/recordings
sticks=$out/sticks

# recording name, stick description, control port (kernel name) or "-" for a stick without one,
# simulator profile (under Tools/ModemSimulator/profiles, or a path), record's extra option or "-".
# Where each stick's facts come from: Examples/recordings/sticks/SOURCES.md.
recordings=(
  "huawei-e1750 huawei-e1750 ttyUSB2 huawei-e1750.json -"
  "huawei-e1750-sim-pin huawei-e1750 ttyUSB2 huawei-e1750-sim-pin.json -"
  "generic-huawei generic-huawei ttyUSB2 huawei-e1750.json --generic"
  "zte-k3805-z zte-k3805-z ttyACM0 zte-k3805-z.json -"
  "huawei-k4305-storage huawei-k4305-storage - - --generic"
)

for line in "${recordings[@]}"; do
  read -r name stick port profile extra <<<"$line"
  [[ "$extra" != - ]] || extra=
  [[ "$only" == "  " || "$only" == *" $name "* ]] || continue
  pty=
  if [[ "$port" != - ]]; then
    [[ "$profile" == */* ]] || profile=Tools/ModemSimulator/profiles/$profile
    coproc modem { exec "$simulator" "$profile"; }
    read -r pty <&"${modem[0]}"
    echo "recording $name: $port is $pty" >&2
  fi
  PTY=$pty PORT=$port umockdev-run -d "$sticks/$stick.umockdev" -- sh -c '
    mkdir -p "$UMOCKDEV_DIR/dev"
    [ -z "$PTY" ] || ln -sf "$PTY" "$UMOCKDEV_DIR/dev/cu.$PORT"
    exec "$0" record "$1" --for "$2" --modem --default-device 0 --umockdev "$3" --json $4
  ' "$qvdevice" "$out/$name.json" "$seconds" "$out/$name.umockdev" "$extra" >"$out/$name.live.jsonl"
  if [[ -n "$pty" ]]; then
    kill "$modem_PID" 2>/dev/null || true
    wait "$modem_PID" 2>/dev/null || true
  fi
done
