#!/usr/bin/env bash
# Resident memory of `tavo serve` after it has served every kind of read and
# a change on large roots, beside the size of the account files it holds:
#   bench/serve_memory.sh [BUILD_DIR]   (default: build)
# Two roots: 100,000 users with 10,000 groups x 10 members (target: at most
# 64 MiB), and 100,000 users with 100,000 groups x 10 members (target: at most
# 1.5 x the files + 16 MiB). Each group has a description.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
dir=${1:-build}
case "$dir" in /*) ;; *) dir="$top/$dir" ;; esac
cmake --build "$dir" -j2 --target tavo_cli tavo_group_module >/dev/null
tavo="$dir/bin/tavo"
work=$(mktemp -d /tmp/tavo-serve-mem.XXXXXX)
chmod 755 "$work"
pid=
cleanup() {
  [ -n "$pid" ] && kill "$pid" 2>/dev/null || true
  wait 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT
free_port() { python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])'; }

. "$top/bench/make_root.sh"

kib_of_files() {
  local R=$1
  du -k --apparent-size -c "$R/etc/group" "$R/etc/gshadow" "$R/etc/passwd" "$R/etc/shadow" \
    "$R/etc/tavo/group_desc" | tail -1 | cut -f1
}

# As root, each root is measured as the package serves it first (the network
# side as an unprivileged user, the account work in the root process: the
# RSS of both together), then in one process.
modes=one
[ "$(id -u)" = 0 ] && modes="shipped one"
printf "%-40s %12s %12s %12s  %s\n" case "files KiB" "RSS KiB" "target KiB" verdict
for spec in "100000 10000" "100000 100000"; do
 for mode in $modes; do
  set -- $spec
  users=$1 groups=$2
  extra=()
  [ "$mode" = shipped ] && extra=(--privsep-user nobody)
  R="$work/r$users-$groups"
  TAVO_ADMIN_PASSWORD=bench-Admin-pw-1 make_root "$R" "$users" "$groups"
  port=$(free_port)
  "$tavo" serve --config none --root "$R" --listen "127.0.0.1:$port" --web "$top/web" "${extra[@]}" \
    >"$work/out" 2>"$work/err" &
  pid=$!
  for _ in $(seq 200); do grep -q listening "$work/out" 2>/dev/null && break; sleep 0.1; done
  grep -q listening "$work/out" || { cat "$work/err"; exit 1; }
  token=$(curl -s -H 'Content-Type: application/json' \
    -d '{"account":"admin","password":"bench-Admin-pw-1"}' "http://127.0.0.1:$port/api/auth/login" |
    python3 -c 'import json,sys; print(json.load(sys.stdin)["data"]["token"])')
  api() { curl -s -H "Authorization: Bearer $token" "http://127.0.0.1:$port/api?$1"; }
  g=group$(printf %06d $((groups / 2)))
  # Every kind of read, twice (the second from the kept snapshots), and a change.
  for round in 1 2; do
    for q in "api=TAVO.Core.Group&version=1&method=list&limit=50&name_only=false" \
             "api=TAVO.Core.Group&version=1&method=list&offset=$((groups - 50))&limit=50&name_only=false" \
             "api=TAVO.Core.Group&version=1&method=get&name=$g" \
             "api=TAVO.Core.Group.Member&version=1&method=list&group=$g&limit=50" \
             "api=TAVO.Core.Group.Member&version=1&method=list&group=$g&ingroup=false&limit=50" \
             "api=TAVO.Core.Group&version=1&method=list&limit=50&user=admin" \
             "api=TAVO.Core.Group.Member&version=1&method=admin_check&name=admin"; do
      api "$q" | grep -q '"success" *: *true' || { echo "request failed: $q" >&2; exit 1; }
    done
  done
  curl -s -H "Authorization: Bearer $token" -H 'Content-Type: application/json' \
    -d "{\"api\":\"TAVO.Core.Group.Member\",\"version\":1,\"method\":\"add\",\"params\":{\"group\":\"$g\",\"name\":[\"user000001\"]}}" \
    "http://127.0.0.1:$port/api" | grep -q '"success" *: *true' || { echo "change failed" >&2; exit 1; }
  api "api=TAVO.Core.Group&version=1&method=list&limit=50&name_only=false" >/dev/null
  rss=0
  for p in "$pid" $(pgrep -P "$pid" || true); do
    rss=$((rss + $(awk '/^VmRSS/ {print $2}' "/proc/$p/status")))
  done
  files=$(kib_of_files "$R")
  if [ "$groups" -eq 10000 ]; then target=$((64 * 1024)); else target=$((files * 3 / 2 + 16 * 1024)); fi
  verdict=$([ "$rss" -le "$target" ] && echo met || echo "NOT met")
  printf "%-40s %12d %12d %12d  %s (RSS/files = %.2f)\n" "$users users, $groups groups, $mode" "$files" "$rss" \
    "$target" "$verdict" "$(awk -v a="$rss" -v b="$files" 'BEGIN { print a / b }')"
  kill "$pid"; wait "$pid" 2>/dev/null || true; pid=
  rm -rf "$R"
 done
done
