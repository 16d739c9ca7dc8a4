#!/usr/bin/env bash
# Runs the host example that install-and-build-host-example.sh built against the installed
# framework, under umockdev with a fake Huawei E1750 plugged in, and expects the framework to
# announce it to the application. Exit 77 (skipped) where that cannot be shown here.
# Usage: run-host-example-on-fake-stick.sh WORK_DIR DEVICE_DESCRIPTION UMOCKDEV_RUN
set -euo pipefail
work=$1 description=$2 umockdev_run=${3:-}

skip() {
  echo "SKIP: $*"
  exit 77
}

[[ -n "$umockdev_run" && -x "$umockdev_run" ]] || skip "umockdev-run is not installed"
lib=$(cat "$work/libdir")
qvdevice=$(cat "$work/qvdevice")
# An application hears of this machine's devices only once the framework feeds its registry from
# udev by default; the same step gives qvdevice its `run` command.
LD_LIBRARY_PATH="$lib" "$qvdevice" --help | grep -Eq '^ +run( |$)' ||
  skip "the framework does not watch this machine's devices by default yet (no 'qvdevice run')"

status=0
for host in "$work/host-cmake/host" "$work/host-pkg-config/host"; do
  out="$host.out"
  LD_LIBRARY_PATH="$lib" timeout 60 "$umockdev_run" --device "$description" -- "$host" 10 \
    >"$out" 2>&1 || true
  if grep -q '^available: .*(Quorvel ID 320)$' "$out" && grep -q '^  chosen as the default device$' "$out" &&
    grep -q '^stopped$' "$out"; then
    echo "$host announced the fake stick"
  else
    echo "FAIL: $host did not announce the fake stick; its output:"
    cat "$out"
    status=1
  fi
done
exit $status
