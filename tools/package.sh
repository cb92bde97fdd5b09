#!/usr/bin/env bash
# Builds the Debian packages tavo_VERSION_ARCH.deb and tavo-dev_VERSION_ARCH.deb
# with debhelper, from a copy of the source tree, into OUT_DIR (default
# build-deb/), then checks them with lintian.
#   tools/package.sh [OUT_DIR]
# The package build compiles the program, library and module only (no tests or
# benchmarks), with as many jobs as there are cores.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
out=${1:-$top/build-deb}
case "$out" in /*) ;; *) out="$PWD/$out" ;; esac
mkdir -p "$out"
work=$(mktemp -d "${TMPDIR:-/tmp}/tavo-package.XXXXXX")
trap 'rm -rf "$work"' EXIT

# The tracked files plus the working tree's changes, without build folders.
mkdir "$work/tavo"
(cd "$top" && git ls-files -z --cached --others --exclude-standard) |
  (cd "$top" && xargs -0 cp --parents -t "$work/tavo" 2>/dev/null || true)
cd "$work/tavo"
DEB_BUILD_OPTIONS="nocheck noddebs parallel=$(nproc) ${DEB_BUILD_OPTIONS:-}" \
  dpkg-buildpackage -b -us -uc >"$work/build.log" 2>&1 || {
    tail -40 "$work/build.log"
    echo "package.sh: dpkg-buildpackage failed (log above)" >&2
    exit 1
  }
rm -f "$out"/tavo*.deb "$out"/tavo*.changes "$out"/tavo*.buildinfo
mv "$work"/tavo*.deb "$work"/tavo_*.changes "$work"/tavo_*.buildinfo "$out"/
echo "package.sh: built $(cd "$out" && ls tavo*.deb | tr '\n' ' ')in $out"

# Errors fail the build; the warnings left are explained in debian/README.source.
lintian --fail-on error --info "$out"/tavo_*.changes
