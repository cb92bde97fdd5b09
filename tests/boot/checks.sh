#!/usr/bin/env bash
# The booted-system checks. Runs as root inside a Debian 12 container booted
# with systemd (tests/boot/run.sh), the package in /mnt/debs: installs it with
# apt as an administrator would, then uses the service as shipped, through
# its HTTPS API on the appliance's address, against the real root "/", with
# glibc, nscd and Samba reading the groups it writes.
# Prints "ok - ..." or "not ok - ..." per check, and a closing count.
set -uo pipefail
export DEBIAN_FRONTEND=noninteractive LC_ALL=C.UTF-8
suite=$(cd "$(dirname "$0")" && pwd)
. "$suite/lib.sh"

# --- Installation, as a new administrator would ---------------------------
# The appliance's address, in the container's own network (on its loopback
# device: this kernel may have no dummy interfaces).
ip addr add 192.0.2.10/32 dev lo
host=$(hostname)
cp /mnt/debs/tavo_*.deb /root/
if apt-get install -y /root/tavo_*.deb >/root/apt-install.log 2>&1 && wait_active tavo; then
  ok "apt-get install ./tavo_*.deb: the service starts and is active"
else
  tail -20 /root/apt-install.log
  journalctl -u tavo --no-pager | tail -20
  bad "apt-get install ./tavo_*.deb: the service starts and is active"
  finish
fi
exposure=$(systemd-analyze security tavo 2>/dev/null | sed -n 's/.*Overall exposure level for tavo.service: \([0-9.]*\).*/\1/p')
check_sh "systemd-analyze security rates the unit at 2.5 or better ($exposure)" \
  '[ -n "$exposure" ] && awk -v e="$exposure" "BEGIN { exit !(e <= 2.5) }"'
# Every thread of the service's two processes runs under the batch policy (3).
batch_threads() {
  local main p t
  main=$(systemctl show -P MainPID tavo)
  for p in $main $(cat /proc/"$main"/task/*/children); do
    for t in /proc/"$p"/task/*; do
      [ "$(sed 's/.*) //' "$t/stat" | cut -d' ' -f39)" = 3 ] || return 1
    done
  done
}
check "the service's threads, in both its processes, run under the batch CPU policy" batch_threads
check "the package made a TLS certificate naming the host" \
  openssl x509 -in /etc/tavo/tls/cert.pem -noout -checkhost "$host"

# A counting reload hook, and one that fails (its warning shows the journal's
# handling of a module-side log line).
mkdir -p /etc/tavo/reload.d
cat >/etc/tavo/reload.d/10-count <<'EOF'
#!/bin/sh
echo "$1" >>/etc/tavo/hook-runs
EOF
printf '#!/bin/sh\nexit 3\n' >/etc/tavo/reload.d/20-fails
chmod 755 /etc/tavo/reload.d/10-count /etc/tavo/reload.d/20-fails

# The administrator and three users, with Samba passwords.
useradd -m -s /bin/bash boss && echo 'boss:Boss-pw-12345' | chpasswd && usermod -aG administrators boss
for u in alice bob carol; do
  useradd -m "$u" && echo "$u:Pw-$u-12345" | chpasswd
  printf 'Pw-%s-12345\nPw-%s-12345\n' "$u" "$u" | smbpasswd -a -s "$u" >/dev/null
done
uid_bob=$(id -u bob)

base="https://$host:8780"
CURL=(curl -sS --max-time 20 --cacert /etc/tavo/tls/cert.pem --resolve "$host:8780:192.0.2.10")
if login boss Boss-pw-12345; then
  ok "login over HTTPS at $host (192.0.2.10) with the package's certificate"
else
  bad "login over HTTPS at $host (192.0.2.10) with the package's certificate"
  journalctl -u tavo --no-pager | tail -20
  finish
fi
journal_mark=$(date '+%Y-%m-%d %H:%M:%S')
sleep 1

# --- The ten methods against the real root --------------------------------
expect_ok "create" G create '{"name":"projects","description":"Project shares"}'
check "create: getent group sees the new group" getent group projects
gid=$(getent group projects | cut -d: -f3)
check "create: grpck -r is clean" grpck -r
expect_ok "get" G get '{"name":"projects"}'
check "get: the gid is the one in /etc/group" [ "$(jq -r '.data.groups[0].gid' <<<"$answer")" = "$gid" ]
expect_ok "list local" G list '{"name_only":false,"limit":-1}'
check "list: the group is there with its description" \
  jq -e '.data.groups[] | select(.name=="projects" and .description=="Project shares")' <<<"$answer"
expect_code "list domain when no domain is joined" 3215 G list '{"type":"domain"}'
expect_code "list ldap when no directory is bound" 3214 G list '{"type":"ldap"}'
expect_ok "set: rename and describe" G set '{"name":"projects","new_name":"team","description":"The team"}'
check_sh "set: getent sees the new name, not the old" \
  'getent group team >/dev/null && ! getent group projects >/dev/null'
check "set: the gid stayed" [ "$(getent group team | cut -d: -f3)" = "$gid" ]
check "set: grpck -r is clean" grpck -r
expect_ok "Member add by name and by uid" M add "{\"group\":\"team\",\"name\":\"alice\",\"uid\":$uid_bob}"
check_sh "Member add: id -Gn shows the membership" 'id -Gn alice | grep -qw team && id -Gn bob | grep -qw team'
check "Member add: getent lists both" [ "$(getent group team | cut -d: -f4 | tr ',' '\n' | sort | tr '\n' ' ')" = "alice bob " ]
check "Member add: grpck -r is clean" grpck -r
expect_ok "Member list" M list '{"group":"team"}'
check "Member list: alice and bob" [ "$(jq -r '[.data.users[].name] | sort | join(" ")' <<<"$answer")" = "alice bob" ]
expect_ok "Member list of non-members" M list '{"group":"team","ingroup":false,"limit":-1}'
check "Member list of non-members: carol, not alice" \
  jq -e '([.data.users[].name] | index("carol")) != null and ([.data.users[].name] | index("alice")) == null' <<<"$answer"
expect_ok "Group admin_check" G admin_check '{"name":["administrators","team"]}'
check "Group admin_check: administrators only" \
  [ "$(jq -c '[.data.groups[] | [.name, .is_admin]]' <<<"$answer")" = '[["administrators",true],["team",false]]' ]
expect_ok "Member admin_check" M admin_check '{"name":["boss","alice"]}'
check "Member admin_check: boss only" \
  [ "$(jq -c '[.data.users[] | [.name, .is_admin]]' <<<"$answer")" = '[["boss",true],["alice",false]]' ]
expect_ok "Member remove by name and by uid" M remove "{\"group\":\"team\",\"name\":\"alice\",\"uid\":$uid_bob}"
check_sh "Member remove: id -Gn no longer shows it" '! id -Gn alice | grep -qw team && ! id -Gn bob | grep -qw team'
check "Member remove: grpck -r is clean" grpck -r
expect_ok "delete" G delete '{"name":"team"}'
check_sh "delete: getent no longer finds it" '! getent group team'
check "delete: grpck -r is clean" grpck -r

# The system's account tools alongside.
groupadd fromtools && gpasswd -a carol fromtools >/dev/null
expect_ok "a group made by groupadd, seen by the API" M list '{"group":"fromtools"}'
check "a member added by gpasswd, seen by the API" [ "$(jq -r '[.data.users[].name] | join(" ")' <<<"$answer")" = "carol" ]
expect_ok "the API changes a group the tools made" M add '{"group":"fromtools","name":"alice"}'
check_sh "gpasswd and the API together: grpck -r clean, both members" \
  'grpck -r && getent group fromtools | grep -q "carol,alice"'

# --- The event log and the journal ----------------------------------------
# Made above, in six calls that each run the reload hooks once: create,
# rename+describe (two events), two adds, two removes, delete, and one add to
# fromtools.
expect_ok "the event log" E list '{"limit":50}'
events=$(jq -r '[.data.entries[] | select(.account=="boss")] | length' <<<"$answer")
check "the event log has each of the 9 changes once, by boss (found $events)" [ "$events" = 9 ]
runs=$(wc -l </etc/tavo/hook-runs)
check "the reload hooks ran once per changing call (6; ran $runs times)" [ "$runs" = 6 ]
journal=$(journalctl -u tavo --since "$journal_mark" -o json --no-pager)
warns=$(jq -r 'select(.MESSAGE|test("reload hook .*20-fails failed")) | .PRIORITY' <<<"$journal" | sort | uniq -c)
check_sh "the journal has the failing hook's warning once per run, at priority 4 ($warns)" \
  '[ "$(awk "{print \$2}" <<<"$warns")" = 4 ] && [ "$(awk "{print \$1}" <<<"$warns")" = "$runs" ]'
doubled=$(jq -r '.MESSAGE | strings' <<<"$journal" | sed -n 's/^tavo\[[0-9]*\]: //p' | head -3)
check "no journal line comes twice, through syslog and standard error ($doubled)" [ -z "$doubled" ]

# --- The system's name caches ----------------------------------------------
check_sh "nscd is running and caches groups without looking at the file" \
  'systemctl is-active -q nscd && grep -Eq "^[[:space:]]*check-files[[:space:]]+group[[:space:]]+no" /etc/nscd.conf'
getent group cached1 >/dev/null  # nscd now remembers that it does not exist
expect_ok "create while nscd remembers the name as absent" G create '{"name":"cached1"}'
check "nscd: the group made through the API is visible at once" getent group cached1
expect_ok "add while nscd holds the group" M add '{"group":"cached1","name":"carol"}'
check_sh "nscd: the new member is visible at once" 'getent group cached1 | grep -q ":carol$"'
getent group cached2 >/dev/null
tavo call --root / TAVO.Core.Group create name=cached2 >/dev/null
check "nscd: a group made by tavo call is visible at once" getent group cached2

# --- Samba's gate follows the group ---------------------------------------
mkdir -p /srv/share/a /srv/share/b && chmod 777 /srv/share/a /srv/share/b
cat >>/etc/samba/smb.conf <<'EOF'

[gated]
   path = /srv/share/a
   valid users = @sharers
   read only = no
[renamed]
   path = /srv/share/b
   valid users = @crew
   read only = no
EOF
systemctl restart smbd && wait_port 445
expect_ok "create the share's group" G create '{"name":"sharers"}'
smb() { smbclient "//127.0.0.1/$1" -U "$2%Pw-$2-12345" -c ls >/tmp/smb.out 2>&1; }
check_sh "Samba refuses alice before she is a member" '! smb gated alice'
expect_ok "add alice to the share's group" M add '{"group":"sharers","name":"alice"}'
check "Samba admits alice once the API added her" smb gated alice
check_sh "Samba still refuses bob" '! smb gated bob'
expect_ok "remove alice" M remove '{"group":"sharers","name":"alice"}'
check_sh "Samba refuses a new session of alice after her removal" '! smb gated alice'
expect_ok "add bob, then rename the group to the other share's" M add '{"group":"sharers","name":"bob"}'
expect_ok "rename sharers to crew" G set '{"name":"sharers","new_name":"crew"}'
check "Samba admits bob to the share configured with the new name" smb renamed bob
check_sh "Samba refuses alice there" '! smb renamed alice'

# --- The admin page's change stream, in the confined front -----------------
# The front, as the service's unprivileged user, watches /etc and the event
# log's folder; a change made on the console reaches an open stream.
live_out=/tmp/live.out
: >"$live_out"
timeout 20 "${CURL[@]}" -N -H "Authorization: Bearer $token" "$base/api/live" >"$live_out" 2>/dev/null &
live_pid=$!
for _ in $(seq 100); do grep -q "event: ready" "$live_out" && break; sleep 0.1; done
check "the change stream opens for a logged-in administrator" grep -q "event: ready" "$live_out"
gpasswd -a carol crew >/dev/null
for _ in $(seq 100); do grep -q "event: change" "$live_out" && break; sleep 0.1; done
check "the stream tells of a change made with gpasswd on the console" grep -q "event: change" "$live_out"
kill "$live_pid" 2>/dev/null
wait "$live_pid" 2>/dev/null
check_sh "the journal does not say that live updates are off" \
  '! journalctl -u tavo --no-pager | grep -q "live updates are off"'

# --- The unit's life --------------------------------------------------------
. "$suite/unit_life.sh"

finish
