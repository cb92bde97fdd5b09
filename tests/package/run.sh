#!/usr/bin/env bash
# Checks the Debian packages built by tools/package.sh as an installation
# would use them, without installing: both are unpacked with dpkg-deb -x into a
# temporary prefix, then
#   - the files are where Debian puts them, the configuration is conffiles;
#   - the unpacked tavo makes a root (init), changes it (call), and serves it
#     (serve, a login and an API call), and serve tells systemd it is ready,
#     feeds the watchdog and says when it stops (notify_check.py);
#   - the systemd units pass systemd-analyze verify, and the service's confinement
#     scores "OK" or better in systemd-analyze security;
#   - the example module builds out of tree against the unpacked SDK, with
#     CMake and with pkg-config, and the unpacked tavo loads it.
#   tests/package/run.sh [DEB_DIR]   (default build-deb/)
set -euo pipefail
top=$(cd "$(dirname "$0")/../.." && pwd)
debs=${1:-$top/build-deb}
tmp=$(mktemp -d "${TMPDIR:-/tmp}/tavo-pkgtest.XXXXXX")
server_pid=
cleanup() {
  [ -n "$server_pid" ] && kill "$server_pid" 2>/dev/null && wait "$server_pid" 2>/dev/null
  rm -rf "$tmp"
}
trap cleanup EXIT
fail() { echo "package test: FAIL: $*" >&2; exit 1; }
ok() { echo "package test: ok: $*"; }

prefix=$tmp/prefix
deb=$(ls "$debs"/tavo_*.deb)
dev=$(ls "$debs"/tavo-dev_*.deb)
dpkg-deb -x "$deb" "$prefix"
dpkg-deb -x "$dev" "$prefix"
ma=$(dpkg-architecture -qDEB_HOST_MULTIARCH)
# The packaged program has no run path: the system's library folder holds libtavo.
export LD_LIBRARY_PATH=$prefix/usr/lib/$ma
tavo=$prefix/usr/bin/tavo

for f in usr/bin/tavo usr/lib/tavo/tavo-server usr/lib/$ma/libtavo.so.1 usr/lib/tavo/modules/TAVO.Core.Group.so \
         usr/share/tavo/web/index.html etc/tavo/serve.conf etc/tavo/tavo.conf \
         usr/share/man/man1/tavo.1.gz usr/share/man/man5/tavo.conf.5.gz \
         usr/include/tavo/api.h usr/include/tavo/abi.h usr/lib/$ma/libtavo.so usr/lib/$ma/pkgconfig/tavo.pc \
         usr/lib/$ma/cmake/Tavo/TavoConfig.cmake usr/lib/$ma/cmake/Tavo/tavo-module.map; do
  [ -e "$prefix/$f" ] || fail "missing /$f"
done
conffiles=$(dpkg-deb -f "$deb" Package >/dev/null; dpkg-deb --ctrl-tarfile "$deb" | tar -xO ./conffiles)
for f in /etc/tavo/serve.conf /etc/tavo/tavo.conf; do
  grep -qx "$f" <<<"$conffiles" || fail "$f is not a conffile"
done
ok "layout and conffiles"

# init, call, serve with a login. --config none: the machine's own
# /etc/tavo/serve.conf, if any, must not steer the test.
root=$tmp/root
TAVO_ADMIN_PASSWORD=pkg-Admin-pw-1 "$tavo" init "$root" --demo >/dev/null
"$tavo" call --root "$root" TAVO.Core.Group create name=packaged | grep -q '"success" *: *true' ||
  fail "tavo call create"
"$tavo" serve --config none --root "$root" --listen 127.0.0.1:0 >"$tmp/serve.out" 2>"$tmp/serve.err" &
server_pid=$!
for _ in $(seq 100); do grep -q 'listening on' "$tmp/serve.out" && break; sleep 0.1; done
url=$(sed -n 's/^tavo: listening on \(http:[^ ]*\)$/\1/p' "$tmp/serve.out")
[ -n "$url" ] || fail "serve did not start: $(cat "$tmp/serve.err")"
token=$(curl -sf -H 'Content-Type: application/json' -d '{"account":"admin","password":"pkg-Admin-pw-1"}' \
  "$url/api/auth/login" | sed -n 's/.*"token":"\([^"]*\)".*/\1/p')
[ -n "$token" ] || fail "login"
curl -sf -H "Authorization: Bearer $token" -H 'Content-Type: application/json' \
  -d '{"api":"TAVO.Core.Group","version":1,"method":"get","params":{"name":"packaged"}}' "$url/api" |
  grep -q '"name":"packaged"' || fail "API call over HTTP"
curl -sf "$url/" | grep -qi '<html' || fail "the admin page"
kill "$server_pid"; wait "$server_pid" 2>/dev/null || true; server_pid=
ok "init, call, serve with a login"
# The packaged serve.conf splits the server (privsep-user = _tavo). As root,
# serve with that file, the command line naming the root, the address and a
# user this machine has: the front answers a login as that user.
if [ "$(id -u)" = 0 ]; then
  grep -qx 'privsep-user = _tavo' "$prefix/etc/tavo/serve.conf" || fail "serve.conf does not split the server"
  chmod 755 "$tmp"
  # The packaged file serves HTTPS with the certificate postinst makes in
  # /etc/tavo/tls; here the test root's own pair (made by init) stands in.
  grep -qx 'tls-cert = /etc/tavo/tls/cert.pem' "$prefix/etc/tavo/serve.conf" || fail "serve.conf does not serve HTTPS"
  "$tavo" serve --config "$prefix/etc/tavo/serve.conf" --root "$root" --listen 127.0.0.1:0 \
    --tls-cert "$root/etc/tavo/tls/cert.pem" --tls-key "$root/etc/tavo/tls/key.pem" \
    --privsep-user nobody >"$tmp/serve.out" 2>"$tmp/serve.err" &
  server_pid=$!
  for _ in $(seq 100); do grep -q 'listening on' "$tmp/serve.out" && break; sleep 0.1; done
  url=$(sed -n 's/^tavo: listening on \(https:[^ ]*\)$/\1/p' "$tmp/serve.out")
  [ -n "$url" ] || fail "split serve did not start: $(cat "$tmp/serve.err")"
  curl -sf --cacert "$root/etc/tavo/tls/cert.pem" -H 'Content-Type: application/json' \
    -d '{"account":"admin","password":"pkg-Admin-pw-1"}' \
    "$url/api/auth/login" | grep -q '"token"' || fail "login through the split server over HTTPS"
  front=$(cat "/proc/$server_pid/task/$server_pid/children" | awk '{print $1}')
  [ "$(stat -c %U "/proc/$front")" = nobody ] || fail "the front does not run as the unprivileged user"
  kill "$server_pid"; wait "$server_pid" 2>/dev/null || true; server_pid=
  python3 "$top/tests/package/notify_check.py" "$tavo" --config none --root "$root" --listen 127.0.0.1:0 \
    --privsep-user nobody >/dev/null || fail "systemd notifications of the split server"
  ok "the packaged settings split the server: the front runs as nobody and notifies systemd"
fi
python3 "$top/tests/package/notify_check.py" "$tavo" --config none --root "$root" --listen 127.0.0.1:0 >/dev/null ||
  fail "systemd notifications"
ok "readiness, watchdog and stopping notifications"

# The unit: verified against the unpacked tree, and scored.
# Debian 12 keeps units in /lib/systemd/system, later releases in /usr/lib.
unit=$(ls "$prefix"/lib/systemd/system/tavo.service "$prefix"/usr/lib/systemd/system/tavo.service 2>/dev/null | head -1 || true)
[ -n "$unit" ] || fail "no tavo.service"
# verify checks that ExecStart exists: the copy verified runs the unpacked tavo.
mkdir "$tmp/units"
sed "s|/usr/bin/tavo|$tavo|g" "$unit" >"$tmp/units/tavo.service"
[ -f "$(dirname "$unit")/tavo.socket" ] || fail "no tavo.socket"
cp "$(dirname "$unit")/tavo.socket" "$tmp/units/"
systemd-analyze verify --man=no "$tmp/units/tavo.service" "$tmp/units/tavo.socket" >"$tmp/verify" 2>&1 ||
  { cat "$tmp/verify"; fail "systemd-analyze verify"; }
[ ! -s "$tmp/verify" ] || { cat "$tmp/verify"; fail "systemd-analyze verify printed warnings"; }
score=$(systemd-analyze security --offline=true "$unit" 2>/dev/null | sed -n 's/.*Overall exposure level for tavo.service: \([0-9.]*\) \([A-Z]*\).*/\1 \2/p')
case "$score" in *" OK"|*" SAFE"|*" PERFECT") ok "systemd-analyze verify clean, security $score" ;;
  *) fail "systemd-analyze security scores '$score'" ;; esac

# The example module against the unpacked SDK: CMake, then pkg-config.
example=$prefix/usr/share/doc/tavo-dev/examples
cmake -S "$example" -B "$tmp/example" -G Ninja -DCMAKE_PREFIX_PATH="$prefix/usr" >/dev/null
cmake --build "$tmp/example" >/dev/null
mkdir "$tmp/mods"
cp "$tmp/example/TAVO.Example.Echo.so" "$tmp/example/TAVO.Example.Echo.json" "$tmp/mods/"
exports=$(nm -D --defined-only "$tmp/mods/TAVO.Example.Echo.so" | awk '{print $3}' | grep -vxE '_init|_fini|_edata|_end|__bss_start' | sort | tr '\n' ' ')
[ "$exports" = "GetAPITable gTable " ] || fail "the example exports: $exports"
answer=$("$tavo" call --root "$root" --modules "$tmp/mods" TAVO.Example.Echo echo text=hi times=2)
grep -q '"text" *: *"hihi"' <<<"$answer" || fail "the example module answered $answer"
ok "example module built with find_package(Tavo) and loaded by tavo call"

# The unpacked tavo.pc with its prefix moved to where it was unpacked (a
# --define-variable would move jsoncpp's prefix too).
mkdir "$tmp/pc"
sed "s|^prefix=/usr$|prefix=$prefix/usr|" "$prefix/usr/lib/$ma/pkgconfig/tavo.pc" >"$tmp/pc/tavo.pc"
flags=$(PKG_CONFIG_PATH=$tmp/pc pkg-config --cflags --libs tavo)
g++ -std=c++17 -shared -fPIC -fvisibility=hidden -o "$tmp/mods/TAVO.Example.Echo.so" "$example/echo.cpp" \
  -Wl,--version-script="$prefix/usr/lib/$ma/cmake/Tavo/tavo-module.map" -Wl,--no-undefined \
  $flags
"$tavo" call --root "$root" --modules "$tmp/mods" TAVO.Example.Echo echo text=pc | grep -q '"text" *: *"pc"' ||
  fail "the pkg-config build of the example"
"$tavo" openapi --modules "$tmp/mods" >"$tmp/openapi.json" || fail "tavo openapi"
grep -q '"TAVO.Example.Echo.v1.echo.request"' "$tmp/openapi.json" || fail "openapi of the example"
ok "example module built with pkg-config; its description is in the OpenAPI document"
