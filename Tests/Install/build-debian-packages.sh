#!/usr/bin/env bash
# Makes the Debian packages with CPack and checks what they hold and what they depend on.
# Usage: build-debian-packages.sh BUILD_DIR WORK_DIR UDEV_RULES_DIR   (exit 77 without dpkg-deb)
set -euo pipefail
build=$1 work=$2 udev_rules_dir=$3
command -v dpkg-deb >/dev/null && command -v dpkg-shlibdeps >/dev/null ||
  { echo "SKIP: dpkg-deb or dpkg-shlibdeps is not installed"; exit 77; }
rm -rf "$work"
mkdir -p "$work"
fail() {
  echo "FAIL: $*" >&2
  exit 1
}

cpack --config "$build/CPackConfig.cmake" -G DEB -B "$work" >"$work/cpack.log" 2>&1 || {
  cat "$work/cpack.log"
  fail "cpack failed"
}
runtime=$(ls "$work"/libqvdeviceobserver0_*.deb)
dev=$(ls "$work"/libqvdeviceobserver-dev_*.deb)

depends=$(dpkg-deb -f "$runtime" Depends)
echo "runtime Depends: $depends"
for library in libglib2.0-0 libudev1 libssl3 libplist3 libstdc++6; do
  [[ "$depends" == *"$library"* ]] || fail "the runtime package does not depend on $library"
done
[[ "$(dpkg-deb -f "$runtime" Recommends)" == *udev* ]] || fail "udev is not recommended"
# QVSystemHelper::sendSignal runs psmisc's killall.
[[ "$depends" =~ (^|, )psmisc(,|$) ]] || fail "the runtime package does not depend on psmisc"
dev_depends=$(dpkg-deb -f "$dev" Depends)
echo "development Depends: $dev_depends"
[[ "$dev_depends" == *"libqvdeviceobserver0 (= "* ]] ||
  fail "the development package does not depend on its runtime package's version"
[[ "$dev_depends" == *libglib2.0-dev* ]] || fail "the development package lacks libglib2.0-dev"

dpkg-deb -c "$runtime" | awk '{ print $6 }' >"$work/runtime.files"
dpkg-deb -c "$dev" | awk '{ print $6 }' >"$work/dev.files"
expect() {
  grep -Eq "$2" "$work/$1.files" || fail "the $1 package has no $2"
}
expect runtime '/lib(/[^/]+)?/libQVDeviceObserver\.so\.0\.[0-9.]+$'
expect runtime '/lib(/[^/]+)?/libQVDeviceObserver\.so\.0$'
expect runtime '/share/QVDeviceObserver/Resources/DeviceDatabase\.plist$'
expect runtime '/libexec/QVDeviceObserver/qv-unmount-disk$'
expect runtime '/bin/qvdevice$'
expect runtime '/man1/qvdevice\.1'
# In udev's own directory, whatever prefix the package has.
expect runtime "^\\.$udev_rules_dir/[0-9][0-9]-qvdeviceobserver\\.rules\$"
expect dev '/include/QVDeviceObserver/QVDeviceObserver\.h$'
expect dev '/lib(/[^/]+)?/libQVDeviceObserver\.so$'
expect dev '/pkgconfig/QVDeviceObserver\.pc$'
expect dev '/cmake/QVDeviceObserver/QVDeviceObserverConfig\.cmake$'
! grep -q '/include/' "$work/runtime.files" || fail "headers in the runtime package"
echo "packages: $(basename "$runtime") $(basename "$dev")"
