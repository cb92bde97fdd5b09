#!/usr/bin/env bash
# Whole-process costs on roots of N groups x 10 members and N users, each
# beside the system's own tool doing the same on the same root in the same run:
#   tavo call Member add          vs  gpasswd -Q ROOT -a
#   tavo call Group create        vs  groupadd -P ROOT
#   tavo call Group list (50, with descriptions)  vs  getent group via nss_wrapper
# and, beside the add, durable_floor: the file work of such a change alone
# (write, fsync and rename both files, a folder fsync, one log record) in a
# static program, which shows how low any whole process can go here.
#   bench/process_bench.sh [TAVO_BIN] [ROUNDS] [SIZES...]   (root needed for the tools)
# Prints the median of ROUNDS (default 5) for each, in ms, and the ratios;
# then how each grows from the smallest root to the largest.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
tavo=${1:-$top/build/bin/tavo}
floor=$(dirname "$tavo")/durable_floor
rounds=${2:-5}
shift $(( $# > 2 ? 2 : $# )) || true
sizes=${*:-1000 10000 100000}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

. "$top/bench/make_root.sh"

# ms of one command run (wall clock, whole process).
ms() {
  local t0=$EPOCHREALTIME
  "$@" >/dev/null 2>&1 || { echo "failed: $*" >&2; return 1; }
  local t1=$EPOCHREALTIME
  awk -v a="$t0" -v b="$t1" 'BEGIN { printf "%.3f\n", (b - a) * 1000 }'
}
median() { sort -g | awk '{ v[NR] = $1 } END { printf "%.1f", (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }

printf "%8s  %26s  %26s  %26s  %13s\n" groups "member add: tavo/gpasswd" "create: tavo/groupadd" "list 50: tavo/getent" "floor/gpasswd"
for n in $sizes; do
  R=$work/r$n
  make_root "$R" "$n" "$n"
  g=group$(printf %06d $((n / 2)))
  : >"$work/a"; : >"$work/b"; : >"$work/c"; : >"$work/d"; : >"$work/e"; : >"$work/f"; : >"$work/z"
  for k in $(seq 1 "$rounds"); do
    u=user$(printf %06d $(( (n / 3 + k) % n )))
    ms "$tavo" call --root "$R" TAVO.Core.Group.Member add group=$g "name=[\"$u\"]" >>"$work/a"
    gpasswd -Q "$R" -d "$u" "$g" >/dev/null  # undo, untimed
    ms gpasswd -Q "$R" -a "$u" "$g" >>"$work/b"
    gpasswd -Q "$R" -d "$u" "$g" >/dev/null
    ms "$floor" "$R/etc" >>"$work/z"
    ms "$tavo" call --root "$R" TAVO.Core.Group create name=bench$k >>"$work/c"
    "$tavo" call --root "$R" TAVO.Core.Group delete "name=[\"bench$k\"]" >/dev/null
    ms groupadd -P "$R" tool$k >>"$work/d"
    groupdel -P "$R" tool$k
    ms "$tavo" call --root "$R" TAVO.Core.Group list limit=50 name_only=false >>"$work/e"
    ms env NSS_WRAPPER_PASSWD="$R/etc/passwd" NSS_WRAPPER_GROUP="$R/etc/group" \
      LD_PRELOAD=libnss_wrapper.so getent group >>"$work/f"
  done
  a=$(median <"$work/a"); b=$(median <"$work/b"); c=$(median <"$work/c")
  d=$(median <"$work/d"); e=$(median <"$work/e"); f=$(median <"$work/f"); z=$(median <"$work/z")
  awk -v n="$n" -v a="$a" -v b="$b" -v c="$c" -v d="$d" -v e="$e" -v f="$f" -v z="$z" 'BEGIN {
    printf "%8d  %8.1f/%-8.1f = %5.2f  %8.1f/%-8.1f = %5.2f  %8.1f/%-8.1f = %5.2f  %6.1f = %4.2f\n",
           n, a, b, a / b, c, d, c / d, e, f, e / f, z, z / b }'
  echo "$n $a $b $c $d $e $f" >>"$work/medians"
  rm -rf "$R"
done
# How each figure grows from the smallest root to the largest.
sort -n "$work/medians" | awk 'NR == 1 { split($0, lo) } { split($0, hi) } END {
  if (NR < 2) exit
  printf "growth from %d to %d groups: member add x%.1f (gpasswd x%.1f), create x%.1f (groupadd x%.1f), list x%.1f (getent x%.1f)\n",
         lo[1], hi[1], hi[2] / lo[2], hi[3] / lo[3], hi[4] / lo[4], hi[5] / lo[5], hi[6] / lo[6], hi[7] / lo[7] }'
