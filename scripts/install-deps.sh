#!/usr/bin/env bash
# Installs the Debian packages the build and the tests need, only those that are missing.
set -euo pipefail

packages=(
  build-essential cmake pkg-config clang-format clang-14 libclang-rt-14-dev
  libglib2.0-dev libudev-dev libusb-1.0-0-dev libssl-dev openssl libicu-dev libplist-dev
  nlohmann-json3-dev libcli11-dev googletest libgtest-dev libgmock-dev libbenchmark-dev
  umockdev libumockdev-dev dbus util-linux mount e2fsprogs udev file usb-modeswitch
  usb-modeswitch-data
)

missing=()
for p in "${packages[@]}"; do
  status=$(dpkg-query -W -f='${Status}' "$p" 2>/dev/null || true)
  [[ "$status" == "install ok installed" ]] || missing+=("$p")
done

if ((${#missing[@]} == 0)); then
  exit 0
fi

echo "Installing missing packages: ${missing[*]}"
sudo_cmd=()
if [[ $(id -u) -ne 0 ]]; then
  sudo_cmd=(sudo)
fi
export DEBIAN_FRONTEND=noninteractive
"${sudo_cmd[@]}" apt-get update -qq
"${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
