#!/usr/bin/env bash
# A user without privileges installs into ~/.local: `cmake --install BUILD --prefix ~/.local`.
# Nothing may be written outside the prefix (the udev rule lands under it), and every installed
# program runs from there (its --help) with a clean environment: no LD_LIBRARY_PATH, the run
# paths alone find the library.
# Run as root, the install runs as `nobody`, who may write nowhere but in its scratch home (and
# the world-writable /tmp); as another user it runs as that user.
# Usage: install-into-user-prefix.sh BUILD_DIR WORK_DIR
set -euo pipefail
build=$1 work=$2
fail() {
  echo "FAIL: $*" >&2
  exit 1
}

rm -rf "$work"
mkdir -p "$work/home"
home="$work/home"
prefix="$home/.local"
as_user=()
if [[ $(id -u) == 0 ]]; then
  command -v setpriv >/dev/null || { echo "SKIP: setpriv is not installed"; exit 77; }
  chown nobody "$home"
  # cmake --install writes its manifest into the build tree: a user installs from a tree of their
  # own, so only that one file is handed over here.
  : >"$build/install_manifest.txt"
  chown nobody "$build/install_manifest.txt"
  as_user=(setpriv --reuid=nobody --regid=nogroup --clear-groups --)
fi
run() { "${as_user[@]}" env -i HOME="$home" PATH=/usr/bin:/bin "$@"; }

echo "== install into $prefix as $(run id -un)"
run cmake --install "$build" --prefix "$prefix" >"$work/install.log" 2>&1 || {
  cat "$work/install.log"
  fail "the install failed"
}

echo "== nothing outside the prefix"
outside=$(grep -v "^$prefix/" "$build/install_manifest.txt" || true)
[[ -z "$outside" ]] || fail "installed outside $prefix: $outside"
rule=$(find "$prefix/lib/udev/rules.d" -name '[0-9][0-9]-qvdeviceobserver.rules' -print -quit 2>/dev/null || true)
[[ -n "$rule" ]] || fail "the udev rule is not under $prefix/lib/udev/rules.d"
grep -q "^prefix=$prefix\$" "$(find "$prefix" -name QVDeviceObserver.pc -print -quit)" ||
  fail "the .pc file's prefix is not $prefix"

echo "== every installed program runs from the prefix"
mapfile -t programs < <(find "$prefix/bin" "$prefix/libexec" -type f -perm -u+x | sort)
[[ ${#programs[@]} -ge 4 ]] || fail "only ${#programs[@]} programs installed: ${programs[*]}"
for program in "${programs[@]}"; do
  if ! run "$program" --help >"$work/help.out" 2>&1; then
    cat "$work/help.out"
    fail "$program --help failed"
  fi
  grep -qi "usage" "$work/help.out" || fail "$program --help printed no usage: $(cat "$work/help.out")"
  echo "ok: ${program#"$prefix"/}"
done
echo "installed as a user"
