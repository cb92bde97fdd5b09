# Sourced by the benchmark scripts: make_root DIR USERS GROUPS makes a root
# with USERS local users (user000000..., locked passwords) and GROUPS groups
# (group000000...) of 10 members each, in gshadow too, each with a
# description; GID and UID ranges wide enough and no group limit. The
# administrator "admin" gets the password in $TAVO_ADMIN_PASSWORD, if set.
# Needs $tavo (the tavo program).
make_root() {
  local R=$1 users=$2 groups=$3
  "$tavo" init "$R" >/dev/null
  awk -v n="$users" -v p="$R/etc/passwd" -v s="$R/etc/shadow" 'BEGIN {
    for (i = 0; i < n; i++) {
      printf "user%06d:x:%d:100:User %d:/home/u:/bin/sh\n", i, 2000 + i, i >>p
      printf "user%06d:!:19000:0:99999:7:::\n", i >>s
    } }'
  awk -v n="$groups" -v u="$users" -v out="$R/etc/group" -v gs="$R/etc/gshadow" \
      -v d="$R/etc/tavo/group_desc" 'BEGIN {
    for (i = 0; i < n; i++) {
      m = ""
      for (k = 0; k < 10; k++) m = m (k ? "," : "") sprintf("user%06d", (i * 7 + k * 13) % u)
      printf "group%06d:x:%d:%s\n", i, 3000 + i, m >>out
      printf "group%06d:!::%s\n", i, m >>gs
      printf "group%06d:description of group %d\n", i, i >>d
    } }'
  echo "maxgroups = 10000000" >>"$R/etc/tavo/tavo.conf"
  printf 'GID_MIN 1000\nGID_MAX 900000\nUID_MIN 1000\nUID_MAX 900000\n' >"$R/etc/login.defs"
}
