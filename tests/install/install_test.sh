#!/usr/bin/env bash
# Installs the build tree to a temporary prefix and runs the installed
# programs from there: `tavo call` (the lean program, with the installed
# group module) and `tavo init` and `tavo log` (the full program, installed
# as a helper in PREFIX/lib/tavo). Each must find libtavo through its own
# search path, whatever folder it is started from.
#   install_test.sh BUILD_DIR
set -euo pipefail
build=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "install test: $*" >&2; exit 1; }

cmake --install "$build" --prefix "$work/prefix" >"$work/install.log" 2>&1 ||
  fail "cmake --install failed: $(tail -5 "$work/install.log")"
tavo=$work/prefix/bin/tavo
[ -x "$tavo" ] || fail "no $tavo"
cd "$work"  # not the build tree: nothing may be found from the current folder

"$tavo" init "$work/root" >/dev/null 2>"$work/err" || fail "tavo init: $(cat "$work/err")"
out=$("$tavo" call --root "$work/root" TAVO.Core.Group create name=installed 2>&1) ||
  fail "tavo call create: $out"
out=$("$tavo" call --root "$work/root" TAVO.Core.Group list name_only=true 2>&1) ||
  fail "tavo call list: $out"
grep -q '"installed"' <<<"$out" || fail "the created group is not listed: $out"
out=$("$tavo" log --root "$work/root" 2>&1) || fail "tavo log: $out"
grep -q "installed" <<<"$out" || fail "the creation is not in the event log: $out"
echo "install test: ok"
