#!/usr/bin/env bash
# Measures one LDAP group sync of a large directory (default 100,000 groups):
#   bench/directory_sync.sh [BUILD_DIR] [GROUPS]
# Starts a private slapd on a free loopback port (mdb, nis schema, loaded with
# slapadd), binds a fresh root to it, and times `tavo directory sync ldap`
# (wall time and peak resident memory) beside the baseline of the same run:
# OpenLDAP's own ldapsearch reading the same groups with the same paged
# control and page size into /dev/null. Best of three runs each.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
dir=${1:-build}
case "$dir" in /*) ;; *) dir="$top/$dir" ;; esac
n=${2:-100000}
tavo="$dir/bin/tavo"
[ -x "$tavo" ] || { echo "build first: tools/build.sh"; exit 2; }

work=$(mktemp -d /tmp/tavo-bench-dir-XXXXXX)
slapd_pid=
cleanup() {
  [ -n "$slapd_pid" ] && kill "$slapd_pid" 2>/dev/null && wait "$slapd_pid" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

mkdir "$work/db"
cat > "$work/slapd.conf" <<CONF
include /etc/ldap/schema/core.schema
include /etc/ldap/schema/cosine.schema
include /etc/ldap/schema/nis.schema
pidfile $work/slapd.pid
modulepath /usr/lib/ldap
moduleload back_mdb
database mdb
suffix "dc=bench,dc=test"
rootdn "cn=admin,dc=bench,dc=test"
rootpw manager
directory $work/db
maxsize 1073741824
limits users size.soft=1000 size.hard=1000 size.prtotal=unlimited
access to attrs=userPassword by anonymous auth by * none
access to * by users read by * none
CONF
{
  printf 'dn: dc=bench,dc=test\nobjectClass: dcObject\nobjectClass: organization\no: Bench\ndc: bench\n\n'
  printf 'dn: cn=reader,dc=bench,dc=test\nobjectClass: organizationalRole\nobjectClass: simpleSecurityObject\ncn: reader\nuserPassword: readerpw\n\n'
  printf 'dn: ou=groups,dc=bench,dc=test\nobjectClass: organizationalUnit\nou: groups\n\n'
  awk -v n="$n" 'BEGIN { for (i = 0; i < n; i++) printf "dn: cn=group%06d,ou=groups,dc=bench,dc=test\nobjectClass: posixGroup\ncn: group%06d\ngidNumber: %d\ndescription: benchmark group %d\n\n", i, i, 100000 + i, i }'
} > "$work/groups.ldif"
echo "loading $n groups with slapadd..."
slapadd -q -f "$work/slapd.conf" -l "$work/groups.ldif"

port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])')
uri="ldap://127.0.0.1:$port"
/usr/sbin/slapd -f "$work/slapd.conf" -h "$uri/" -d 0 &
slapd_pid=$!
printf readerpw > "$work/pw"
chmod 600 "$work/pw"
for _ in $(seq 100); do
  ldapsearch -x -H "$uri" -D cn=reader,dc=bench,dc=test -y "$work/pw" -b dc=bench,dc=test -s base >/dev/null 2>&1 && break
  sleep 0.1
done

root="$work/root"
"$tavo" init "$root" >/dev/null
"$tavo" directory --root "$root" ldap bind --uri "$uri" --base ou=groups,dc=bench,dc=test \
  --bind-dn cn=reader,dc=bench,dc=test --password-file "$work/pw" --no-sync

# "SECONDS KILOBYTES" of the best (fastest) of three runs of the command.
best() {
  local out="" t m
  for _ in 1 2 3; do
    /usr/bin/time -o "$work/time" -f '%e %M' "$@" >/dev/null 2>&1
    read -r t m < "$work/time"
    if [ -z "$out" ] || awk -v a="$t" -v b="${out% *}" 'BEGIN { exit !(a < b) }'; then out="$t $m"; fi
  done
  echo "$out"
}
base=$(best ldapsearch -x -LLL -H "$uri" -D cn=reader,dc=bench,dc=test -y "$work/pw" \
  -b ou=groups,dc=bench,dc=test -E pr=1000/noprompt '(objectClass=posixGroup)' cn gidNumber)
sync=$(best "$tavo" directory --root "$root" sync ldap)
"$tavo" directory --root "$root" sync ldap
list=$(best "$tavo" call --root "$root" TAVO.Core.Group list type=ldap offset=$((n - 5)) limit=5)
lines=$(wc -l < "$root/usr/tavo/etc/private/ldap_group")
bytes=$(wc -c < "$root/usr/tavo/etc/private/ldap_group")

echo
echo "directory of $n groups, pages of 1000, best of 3 (seconds, peak RSS):"
printf '  %-44s %6s s %8s KiB\n' "baseline: ldapsearch, paged, to /dev/null" ${base}
printf '  %-44s %6s s %8s KiB\n' "tavo directory sync ldap" ${sync}
printf '  %-44s %6s s %8s KiB\n' "tavo call list type=ldap (last page)" ${list}
awk -v s="${sync% *}" -v b="${base% *}" 'BEGIN { if (b > 0) printf "  sync / baseline time: %.2f\n", s / b }'
echo "  local copy: $lines lines, $bytes bytes"
