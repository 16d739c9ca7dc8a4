#!/usr/bin/env bash
# Installs the built framework into a staging directory, checks that every part lands where an
# application's developers and the framework itself look for it, and builds the host example
# against the installed files only: with find_package(QVDeviceObserver) and with pkg-config.
# Usage: install-and-build-host-example.sh BUILD_DIR SOURCE_DIR WORK_DIR
# (the layout variables QV_LIBDIR, QV_INCLUDEDIR, ... come from the environment).
set -euo pipefail
build=$1 source=$2 work=$3
prefix=/opt/qvdeviceobserver
rm -rf "$work"
mkdir -p "$work"
stage="$work/stage"
root="$stage$prefix"

fail() {
  echo "FAIL: $*" >&2
  exit 1
}
expect_file() { [[ -f "$1" ]] || fail "missing $1"; }

echo "== install into $stage (prefix $prefix)"
DESTDIR="$stage" cmake --install "$build" --prefix "$prefix" >"$work/install.log"

echo "== layout"
lib="$root/$QV_LIBDIR"
expect_file "$lib/libQVDeviceObserver.so.0.1.0"
[[ -L "$lib/libQVDeviceObserver.so.0" && -L "$lib/libQVDeviceObserver.so" ]] ||
  fail "library links missing"
soname=$(objdump -p "$lib/libQVDeviceObserver.so.0.1.0" | awk '$1 == "SONAME" { print $2 }')
[[ "$soname" == "libQVDeviceObserver.so.0" ]] || fail "SONAME is '$soname'"
# The modem libraries are inside the framework, not beside it.
[[ -z "$(find "$lib" -mindepth 1 -maxdepth 1 -name '*.so*' ! -name 'libQVDeviceObserver.so*' -print -quit)" ]] ||
  fail "other libraries installed: $(ls "$lib")"
headers="$root/$QV_INCLUDEDIR/QVDeviceObserver"
expect_file "$headers/QVDeviceObserver.h"
expect_file "$headers/Application/QVDeviceObserver.h"
expect_file "$headers/Foundation/Value.h"
[[ ! -e "$headers/QVGsmKit" ]] || fail "the modem library's headers are installed"
[[ -z "$(find "$headers" -name 'Scripted*' -print -quit)" ]] || fail "test doubles installed"
expect_file "$lib/pkgconfig/QVDeviceObserver.pc"
expect_file "$lib/cmake/QVDeviceObserver/QVDeviceObserverConfig.cmake"
expect_file "$lib/cmake/QVDeviceObserver/QVDeviceObserverConfigVersion.cmake"
expect_file "$root/$QV_RESOURCES_SUBDIR/DeviceDatabase.plist"
[[ -z "$(find "$root/$QV_RESOURCES_SUBDIR" -name '*.rules' -print -quit)" ]] ||
  fail "the udev rule is among the resources"
[[ -x "$root/$QV_LIBEXEC_SUBDIR/qv-unmount-disk" ]] || fail "qv-unmount-disk not in libexec"
[[ -x "$root/$QV_BINDIR/qvdevice" ]] || fail "qvdevice not in bin"
expect_file "$root/$QV_MANDIR/man1/qvdevice.1"
# The rule goes where it was told, or under the prefix (this one is not /usr).
rules_dir=${QV_UDEV_RULES_DIR:-$prefix/$QV_PREFIX_UDEV_RULES_SUBDIR}
rule=$(find "$stage$rules_dir" -name '[0-9][0-9]-*.rules' -print -quit 2>/dev/null || true)
[[ -n "$rule" ]] || fail "no numbered udev rule in $rules_dir"
[[ -z "$(find "$stage" -path "$root" -prune -o -type f -print -quit)" ]] ||
  fail "installed outside the prefix: $(find "$stage" -path "$root" -prune -o -type f -print)"
grep -q 'SYMLINK+="cu.%k"' "$rule" || fail "$rule does not make the cu. links"
grep -q "^prefix=$prefix\$" "$lib/pkgconfig/QVDeviceObserver.pc" ||
  fail "the .pc file's prefix is not $prefix"
# The installed tool runs (a private prefix gives it a run path; in a system prefix the library
# would be in the system's library directory, which a staged tree is not).
LD_LIBRARY_PATH="$lib" "$root/$QV_BINDIR/qvdevice" --help >/dev/null ||
  fail "the installed qvdevice does not run"

# pkg-config reads a copy of the staged .pc file whose prefix is moved into the staging
# directory (--define-variable would move glib's prefix too).
mkdir -p "$work/pkgconfig"
sed "s|^prefix=.*|prefix=$root|" "$lib/pkgconfig/QVDeviceObserver.pc" \
  >"$work/pkgconfig/QVDeviceObserver.pc"
export PKG_CONFIG_PATH="$work/pkgconfig"
pc=(pkg-config)

echo "== every installed header compiles with pkg-config's flags only"
: >"$work/all-headers.cpp"
(cd "$headers" && find . -name '*.h' | sort) | while read -r header; do
  echo "#include <QVDeviceObserver/${header#./}>" >>"$work/all-headers.cpp"
done
echo '#include <QVDeviceObserver/QVDeviceObserver.h>' >"$work/umbrella.cpp"
# shellcheck disable=SC2046
"$CXX" -std=c++20 -Wall -Wextra -Wpedantic -Werror -fsyntax-only $("${pc[@]}" --cflags QVDeviceObserver) \
  "$work/umbrella.cpp" || fail "the umbrella header does not compile on its own"
# shellcheck disable=SC2046
"$CXX" -std=c++20 -fsyntax-only $("${pc[@]}" --cflags QVDeviceObserver) "$work/all-headers.cpp" ||
  fail "an installed header needs one that is not installed"

echo "== host example with CMake (find_package)"
cmake -S "$source/Examples/host" -B "$work/host-cmake" -DCMAKE_PREFIX_PATH="$root" \
  -DCMAKE_CXX_COMPILER="$CXX" -DCMAKE_BUILD_TYPE=Release >"$work/host-cmake.log"
cmake --build "$work/host-cmake" >>"$work/host-cmake.log" || {
  cat "$work/host-cmake.log"
  fail "the example does not build with CMake"
}

echo "== host example with pkg-config"
mkdir -p "$work/host-pkg-config"
cp "$source/Examples/host/host.cpp" "$source/Examples/host/Makefile" "$work/host-pkg-config/"
make -s -C "$work/host-pkg-config" CXX="$CXX" PKG_CONFIG="${pc[*]}" ||
  fail "the example does not build with pkg-config"

# Both programs use the installed library, not the build tree's.
for host in "$work/host-cmake/host" "$work/host-pkg-config/host"; do
  used=$(LD_LIBRARY_PATH="$lib" ldd "$host" | awk '/libQVDeviceObserver/ { print $3 }')
  [[ "$(readlink -f "$used")" == "$(readlink -f "$lib/libQVDeviceObserver.so.0")" ]] ||
    fail "$host uses $used"
done
echo "$lib" >"$work/libdir"
echo "$root/$QV_BINDIR/qvdevice" >"$work/qvdevice"
echo "installed and built"
