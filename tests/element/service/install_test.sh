#!/usr/bin/env bash
# Installs the build into a scratch DESTDIR as a package build would, and checks what a host gets:
# the binaries answer, the systemd units verify against that tree (ExecStart and man pages
# included), the man pages render without warnings.
# Usage: install_test.sh BUILD_DIR CMAKE
set -euo pipefail
build=$1 cmake=$2
dest=$(mktemp -d)
trap 'rm -rf "$dest"' EXIT
fail() { echo "FAIL: $*"; exit 1; }
installed() {  # installed NAME FOLDER: the path of the installed file NAME inside a FOLDER
  local path
  path=$(find "$dest" -type f -name "$1" -path "*/$2/*" | head -1)
  [ -n "$path" ] || fail "$1 is not installed in a $2 folder: $(cd "$dest" && find . -type f)"
  echo "$path"
}

DESTDIR=$dest "$cmake" --install "$build" >/dev/null
installed pbr.yang yang/modules >/dev/null
for binary in sbin/pbr-app sbin/pbr-mgmtd bin/pbr-cli; do
  "$(installed "${binary#*/}" "${binary%/*}")" --version | grep -q '(pbr-app)' ||
    fail "$binary --version"
done

pages=("$(installed pbr-app.8 man8)" "$(installed pbr-mgmtd.8 man8)" "$(installed pbr-cli.1 man1)")
if command -v man >/dev/null; then
  for page in "${pages[@]}"; do
    warnings=$(LC_ALL=C.UTF-8 MANWIDTH=80 man --warnings -l "$page" 2>&1 >/dev/null)
    [ -z "$warnings" ] || fail "$page: $warnings"
  done
else
  echo "man is missing: the pages were not rendered"
fi

units=("$(installed pbr-mgmtd.service systemd/system)" "$(installed pbr-app.service systemd/system)")
if command -v systemd-analyze >/dev/null; then
  # --root: the units' paths, ExecStart's binary included, are looked up in the install tree;
  # the host's targets they are ordered against need not be there.
  mandir=$(dirname "$(dirname "${pages[0]}")")
  out=$(cd "$dest" && MANPATH=$mandir systemd-analyze verify --root="$dest" \
    --recursive-errors=no "${units[@]#"$dest"/}" 2>&1) || fail "systemd-analyze verify: $out"
  [ -z "$out" ] || fail "systemd-analyze verify: $out"
else
  echo "systemd-analyze is missing: the units were not verified"
fi
echo "install: binaries, module, units and man pages in place"
