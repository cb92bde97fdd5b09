#!/usr/bin/env bash
# HTTP benchmark of `tavo serve` beside nginx serving the same bytes:
#   bench/http_bench.sh [BUILD_DIR]   (default: build; installs nginx-light and wrk if missing)
# Makes a root of 10,000 groups x 10 members and 10,000 users, starts tavo and
# a private nginx on free loopback ports, and prints throughput (wrk -t2 -c64
# -d10s, keep-alive, a page of 50 groups), sequential latency (1,000 requests
# on one connection), a logged-in client's latency while 2,000 half-sent heads
# and 2,000 idle connections are held, and while 1,000 change streams are
# open (their memory, and how long a change takes to reach them all), and the HTTP cost of a membership change
# beside the same change made in process. The page is measured twice: as
# served (the answer reused while its files stand) and made afresh by the
# module every time (a second server with --answer-cache 0), and, as root,
# both again in the shipped mode (--privsep-user nobody), each beside one
# process in turn (2 s slices). Takes about three minutes.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
dir=${1:-build}
case "$dir" in /*) ;; *) dir="$top/$dir" ;; esac
"$top/tools/install-deps.sh" --bench
cmake --build "$dir" -j2 --target tavo_cli call_in_process http_floor change_client tavo_group_module >/dev/null
tavo="$dir/bin/tavo"
work=$(mktemp -d /tmp/tavo-http-bench.XXXXXX)
chmod 755 "$work"
pids=()
cleanup() {
  for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done
  wait 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT
free_port() { python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])'; }

echo "== root: 10,000 groups x 10 members, 10,000 users"
TAVO_ADMIN_PASSWORD=bench-Admin-pw-1 "$tavo" init "$work/root" >/dev/null
python3 - "$work/root/etc" <<'PY'
import sys
etc = sys.argv[1]
n = 10000
with open(f'{etc}/passwd', 'a') as p, open(f'{etc}/shadow', 'a') as s:
    for i in range(n):
        p.write(f'u{i:05d}:x:{2000 + i}:100:User {i}:/home/u{i:05d}:/bin/sh\n')
        s.write(f'u{i:05d}:!:20000:0:99999:7:::\n')
with open(f'{etc}/group', 'a') as g, open(f'{etc}/gshadow', 'a') as gs:
    for i in range(n):
        members = ','.join(f'u{(i + k) % n:05d}' for k in range(10))
        g.write(f'g{i:05d}:x:{10000 + i}:{members}\n')
        gs.write(f'g{i:05d}:!::{members}\n')
PY

port=$(free_port)
mkdir -p "$work/www"
"$tavo" serve --root "$work/root" --listen "127.0.0.1:$port" --web "$work/www" --per-address 256 \
  --keepalive-max 100000 >"$work/tavo.out" 2>"$work/tavo.err" &
pids+=($!)
tavo_pid=$!
for _ in $(seq 100); do grep -q listening "$work/tavo.out" 2>/dev/null && break; sleep 0.1; done
grep -q listening "$work/tavo.out" || { cat "$work/tavo.err"; exit 1; }
token=$(curl -s -H 'Content-Type: application/json' \
  -d '{"account":"admin","password":"bench-Admin-pw-1"}' "http://127.0.0.1:$port/api/auth/login" |
  python3 -c 'import json,sys; print(json.load(sys.stdin)["data"]["token"])')
page='/api?api=TAVO.Core.Group&version=1&method=list&limit=50&name_only=false'

# nginx serves the same answer bytes as a static file.
mkdir -p "$work/www/api"
curl -s -H "Authorization: Bearer $token" "http://127.0.0.1:$port$page" >"$work/www/page.json"
chmod -R a+rX "$work/www"
nport=$(free_port)
cat >"$work/nginx.conf" <<CONF
worker_processes auto;
pid $work/nginx.pid;
error_log $work/nginx.err;
events { worker_connections 4096; }
http {
  access_log off;
  keepalive_requests 1000000;
  client_body_temp_path $work/tmp;
  server {
    listen 127.0.0.1:$nport;
    location / { root $work/www; default_type application/json; try_files /page.json =404; }
  }
}
CONF
mkdir -p "$work/tmp"
nginx -p "$work" -c "$work/nginx.conf" -g 'daemon off;' 2>/dev/null &
pids+=($!)
sleep 0.5
echo "answer: $(wc -c <"$work/www/page.json") bytes; $(nproc) cores; $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2)"

rate() { wrk -t2 -c64 -d10s "$@" | awk '/Requests\/sec/ {print $2}'; }
echo "== throughput: page of 50, wrk -t2 -c64 -d10s, keep-alive"
t=$(rate -H "Authorization: Bearer $token" "http://127.0.0.1:$port$page")
n=$(rate "http://127.0.0.1:$nport$page")
compare() { python3 -c "print(f'$1: tavo {float(\"$2\"):.0f} req/s, nginx {float(\"$3\"):.0f} req/s: tavo at {100*float(\"$2\")/float(\"$3\"):.1f}% of nginx')"; }
compare "page of 50 (module call; the answer reused while the files stand)" "$t" "$n"
# Another server on the same root, with extra options; sets xport, xpid, xtoken.
start_extra() {
  local name=$1
  shift
  xport=$(free_port)
  "$tavo" serve --config none --root "$work/root" --listen "127.0.0.1:$xport" --web "$work/www" \
    --per-address 256 --keepalive-max 100000 "$@" >"$work/$name.out" 2>"$work/$name.err" &
  xpid=$!
  for _ in $(seq 100); do grep -q listening "$work/$name.out" 2>/dev/null && break; sleep 0.1; done
  xtoken=$(curl -s -H 'Content-Type: application/json' \
    -d '{"account":"admin","password":"bench-Admin-pw-1"}' "http://127.0.0.1:$xport/api/auth/login" |
    python3 -c 'import json,sys; print(json.load(sys.stdin)["data"]["token"])')
}
stop_extra() { kill "$xpid"; wait "$xpid" 2>/dev/null || true; }
# The same page made afresh by the module every time: a server that keeps no
# answers.
start_extra tavo0 --answer-cache 0
t0=$(rate -H "Authorization: Bearer $xtoken" "http://127.0.0.1:$xport$page")
stop_extra
compare "page of 50 (module call, made afresh: --answer-cache 0)" "$t0" "$n"
# As the Debian package runs it: the network side as an unprivileged user,
# the module calls in the root process behind the privileged channel.
# The shipped mode beside one process: both servers run at once and wrk takes
# them in turn, 2 s each, five times, so that a slow spell of a shared
# machine falls on both. Prints the mean of each.
paired() {
  local sa=0 sb=0 a b
  for _ in 1 2 3 4 5; do
    a=$(wrk -t2 -c64 -d2s -H "Authorization: Bearer $2" "http://127.0.0.1:$1$page" | awk '/Requests\/sec/ {print $2}')
    b=$(wrk -t2 -c64 -d2s -H "Authorization: Bearer $4" "http://127.0.0.1:$3$page" | awk '/Requests\/sec/ {print $2}')
    sa=$(python3 -c "print($sa + $a)")
    sb=$(python3 -c "print($sb + $b)")
  done
  python3 -c "print($sa / 5, $sb / 5)"
}
shipped_line() {
  python3 -c "print(f'shipped mode (--privsep-user nobody), page $1: {float(\"$2\"):.0f} req/s, {100*float(\"$2\")/float(\"$n\"):.1f}% of nginx, {float(\"$2\")/float(\"$3\"):.2f}x one process ({float(\"$3\"):.0f} req/s in turn with it)')"
}
if [ "$(id -u)" = 0 ]; then
  start_extra split --privsep-user nobody
  read -r tp ts < <(paired "$port" "$token" "$xport" "$xtoken")
  shipped_line reused "$ts" "$tp"
  lat_shipped=$(python3 "$top/bench/http_clients.py" latency "$xport" "$page" "$xtoken" 1000)
  echo "shipped mode, latency: $lat_shipped"
  stop_extra
  start_extra tavo0 --answer-cache 0
  port0=$xport token0=$xtoken pid0=$xpid
  start_extra split0 --privsep-user nobody --answer-cache 0
  read -r tp0 ts0 < <(paired "$port0" "$token0" "$xport" "$xtoken")
  stop_extra
  kill "$pid0"
  wait "$pid0" 2>/dev/null || true
  shipped_line "made afresh" "$ts0" "$tp0"
fi
s=$(rate "http://127.0.0.1:$port/page.json")
compare "the same bytes as a static file" "$s" "$n"

echo "== latency: one keep-alive client, 1,000 sequential requests"
lat_one=$(python3 "$top/bench/http_clients.py" latency "$port" "$page" "$token" 1000)
echo "tavo:  $lat_one"
echo "nginx: $(python3 "$top/bench/http_clients.py" latency "$nport" "$page" - 1000)"

echo "== one request after 5 ms of doing nothing (as a change's answer comes), 200 times"
idle() { python3 "$top/bench/http_clients.py" idle "$@" 200 5; }
echo "nginx, the page as a static file:   $(idle "$nport" /page.json -)"
echo "tavo, the same file:                $(idle "$port" /page.json -)"
echo "tavo, a module call (group get):    $(idle "$port" "/api?api=TAVO.Core.Group&version=1&method=get&name=g00000" "$token")"

echo "== slow clients"
python3 "$top/bench/http_clients.py" slow "$port" "$token" "$tavo_pid" 2000 2000

echo "== 1,000 open change streams, on a server started afresh (so that its RSS grows with them)"
start_extra streams
python3 "$top/bench/http_clients.py" streams "$xport" bench-Admin-pw-1 "$xpid" 1000
stop_extra

echo "== a membership change over keep-alive, beside the same change in process"
# Each change over HTTP is followed at once by the same change made in
# process on a copy of the root, 200 pairs: fsync times on a shared disk
# drift by more than the HTTP layer costs, and the pairing puts that drift on
# both sides alike.
cp -a "$work/root" "$work/root2"
python3 "$top/bench/http_clients.py" paired "$port" "$token" g00000 u05000 100 \
  "$dir/bin/call_in_process" "$work/root2" "$dir/modules" g00000 u05000

echo "== the same change from a C++ client, beside a server that makes it in its own thread"
# http_floor has one thread and blocking sockets: no pool, no event loop, no
# login, so what it adds to a change is what any server adds here (the
# sockets, and waking a sleeping client and server). change_client costs next
# to nothing itself, unlike the Python client above. Alternated, twice.
cp -a "$work/root" "$work/root3"
fport=$(free_port)
"$dir/bin/http_floor" "$work/root3" "$dir/modules" "$fport" >"$work/floor.out" &
pids+=($!)
for _ in $(seq 100); do grep -q listening "$work/floor.out" 2>/dev/null && break; sleep 0.1; done
for _ in 1 2; do
  echo "tavo:                           $("$dir/bin/change_client" "$port" "$token" g00000 u05000 200)"
  echo "one-thread server (the floor):  $("$dir/bin/change_client" "$fport" - g00000 u05000 200)"
done

if [ -n "${ts:-}" ]; then
  echo "== summary: the shipped mode first, one process beside it, nginx the baseline"
  python3 - "$n" "$ts" "$ts0" "$tp" "$tp0" "$lat_shipped" "$lat_one" <<'PY'
import re, sys
n, ts, ts0, t, t0 = map(float, sys.argv[1:6])
med = lambda text: float(re.search(r"median ([0-9.]+) ms", text).group(1))
# The one-process rates here are those measured in turn with the shipped mode.
rows = [("shipped mode, page reused", ts, ts / t), ("shipped mode, page made afresh", ts0, ts0 / t0),
        ("one process, page reused", t, None), ("one process, page made afresh", t0, None),
        ("nginx, the same bytes (baseline)", n, None)]
for name, rate, ratio in rows:
    extra = f"{ratio:.2f}x one process" if ratio is not None else ""
    print(f"{name:34s} {rate:8.0f} req/s {100 * rate / n:5.1f}% of nginx  {extra}")
s, o = med(sys.argv[6]), med(sys.argv[7])
print(f"list latency, median: shipped {s:.3f} ms, one process {o:.3f} ms: the channel adds {s - o:.3f} ms")
PY
fi
