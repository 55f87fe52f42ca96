#!/usr/bin/env bash
# Makes the Debian package with cpack, installs it with dpkg, runs the installed tvl and removes
# the package again. Needs root (CI runs as root); otherwise it is skipped (status 77).
#   tests/install/deb-test.sh BUILD_DIR
set -euo pipefail
build="$(cd "$1" && pwd)"
if [ "$(id -u)" -ne 0 ]; then
  echo "not root: the package is not installed"
  exit 77
fi
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
(cd "$work" && cpack -G DEB --config "$build/CPackConfig.cmake" >/dev/null)
package="$(ls "$work"/*.deb)"
dpkg-deb --field "$package" Package Version Depends
dpkg-deb --field "$package" Depends | grep -q libc6 || { echo "no runtime dependencies declared"; exit 1; }
# Loaded at run time, so declared by hand: the catalog archive commands need it.
dpkg-deb --field "$package" Depends | grep -q libarchive13 || { echo "libarchive13 not declared"; exit 1; }
if dpkg-query -W -f='${Status}' tarvolin 2>/dev/null | grep -q "install ok installed"; then
  echo "a tarvolin package is already installed; not touching it"
  exit 77
fi
trap 'dpkg -r tarvolin >/dev/null 2>&1 || true; rm -rf "$work"' EXIT
dpkg -i "$package" >/dev/null
/usr/bin/tvl --version
[ -x /usr/libexec/tarvolin/tvl-pdftext ]
man -w tvl >/dev/null 2>&1 || [ -e /usr/share/man/man1/tvl.1.gz ] || [ -e /usr/share/man/man1/tvl.1 ]
echo "deb: installed, ran and removed"
