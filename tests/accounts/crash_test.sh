#!/usr/bin/env bash
# Crash test of the account store: `tavo call` writers are SIGKILLed at random
# moments (and some kill themselves between their file renames) while gpasswd
# and groupadd write the same root. Afterwards `tavo check --repair` must leave
# files that grpck accepts, and every change that was answered as done must be
# there, the tools' changes included.
#   crash_test.sh TAVO_BIN [SECONDS]     (default 20 s of writing; root needed)
set -uo pipefail
tavo=${1:?usage: crash_test.sh TAVO_BIN [SECONDS]}
seconds=${2:-20}
if [ "$(id -u)" != 0 ]; then echo "skipped: the account tools need root"; exit 77; fi
for t in gpasswd groupadd grpck; do
  command -v $t >/dev/null || { echo "skipped: $t missing"; exit 77; }
done
work=$(mktemp -d)
trap 'kill $(jobs -p) 2>/dev/null; wait 2>/dev/null; rm -rf "$work"' EXIT
R=$work/root
"$tavo" init "$R" >/dev/null 2>&1 || { echo "FAIL: tavo init"; exit 1; }
for i in $(seq 0 29); do
  echo "u$i:x:$((2000 + i)):100::/home/u$i:/bin/sh" >>"$R/etc/passwd"
  echo "u$i:!:19000:0:99999:7:::" >>"$R/etc/shadow"
done
call() { "$tavo" call --root "$R" "$@" >/dev/null 2>&1; }
for k in 0 1 2 3 4 5; do call TAVO.Core.Group create name=g$k || { echo "FAIL: create g$k"; exit 1; }; done
for k in 0 1 2; do groupadd -P "$R" h$k || { echo "FAIL: groupadd h$k"; exit 1; }; done

end=$((SECONDS + seconds))
# A tavo writer: each call adds one member; some are killed after a random
# delay, some kill themselves between their renames. Answered adds are recorded.
tavo_writer() {
  local w=$1 n=0
  while [ $SECONDS -lt $end ]; do
    local g=g$((RANDOM % 6)) u=u$((RANDOM % 30)) mode=$((RANDOM % 4))
    if [ $mode = 0 ]; then
      (TAVO_TEST_KILL_AT=file.between "$tavo" call --root "$R" TAVO.Core.Group.Member add \
        group=$g "name=[\"$u\"]" >/dev/null 2>&1) 2>/dev/null
      continue
    fi
    "$tavo" call --root "$R" TAVO.Core.Group.Member add group=$g "name=[\"$u\"]" >/dev/null 2>&1 &
    local pid=$!
    if [ $mode = 1 ]; then
      sleep 0.0$((RANDOM % 10)); kill -9 $pid 2>/dev/null
      wait $pid 2>/dev/null
      continue
    fi
    if wait $pid; then echo "$g $u" >>"$work/acked.$w"; fi
    n=$((n + 1))
  done
}
tool_writer() {
  local n=0
  while [ $SECONDS -lt $end ]; do
    local u=u$((RANDOM % 30)) h=h$((RANDOM % 3))
    if gpasswd -Q "$R" -a $u $h >/dev/null 2>&1; then echo "$h $u" >>"$work/acked.tools"; fi
    if groupadd -P "$R" t$n >/dev/null 2>&1; then echo "t$n" >>"$work/tool_groups"; fi
    n=$((n + 1))
  done
}
tavo_writer 0 2>/dev/null & tavo_writer 1 2>/dev/null & tool_writer &
wait

"$tavo" check --root "$R" --repair >"$work/repair.out" 2>&1
rc=$?
fail=0
if [ $rc != 0 ]; then echo "FAIL: tavo check --repair exited $rc"; cat "$work/repair.out"; fail=1; fi
if ! grpck -r -R "$R" >"$work/grpck.out" 2>&1; then
  echo "FAIL: grpck -r after repair"; cat "$work/grpck.out"; fail=1
fi
if ! "$tavo" check --root "$R" >/dev/null 2>&1; then echo "FAIL: tavo check after repair"; fail=1; fi
# Every answered add is in etc/group (and, grpck being clean, in gshadow).
acked=0
for f in "$work"/acked.*; do
  [ -e "$f" ] || continue
  while read -r g u; do
    acked=$((acked + 1))
    grep -q "^$g:[^:]*:[^:]*:\(.*,\)\?$u\(,.*\)\?$" "$R/etc/group" || { echo "FAIL: $u missing from $g"; fail=1; }
  done <"$f"
done
tools=0
if [ -e "$work/tool_groups" ]; then
  while read -r t; do
    tools=$((tools + 1))
    grep -q "^$t:" "$R/etc/group" || { echo "FAIL: groupadd's $t missing"; fail=1; }
  done <"$work/tool_groups"
fi
repaired=$(grep -c '^repaired' "$work/repair.out")
echo "answered adds checked (tavo and gpasswd): $acked; groupadd groups checked: $tools; repairs: $repaired"
[ $acked -gt 0 ] && [ $tools -gt 0 ] || { echo "FAIL: too few changes to judge"; fail=1; }
exit $fail
