# Helpers of the booted-system checks (sourced by checks.sh).
passed=0
failed=0
ok() { echo "ok - $*"; passed=$((passed + 1)); }
bad() { echo "not ok - $*"; failed=$((failed + 1)); }
# check NAME COMMAND...: ok when COMMAND succeeds.
check() {
  local name=$1
  shift
  if "$@" >/dev/null 2>&1; then ok "$name"; else bad "$name"; fi
}
# check_sh NAME EXPRESSION: ok when the shell expression (evaluated in a
# subshell that has this script's variables and functions) succeeds. Without
# pipefail: "journalctl | grep -q" must not fail when grep stops reading early.
check_sh() {
  if (set +o pipefail && eval "$2") >/dev/null 2>&1; then ok "$1"; else bad "$1"; fi
}
finish() {
  echo "boot: $passed passed, $failed failed"
  [ "$failed" = 0 ]
  exit $?
}
# wait_active UNIT: waits up to 30 s for UNIT to be active.
wait_active() {
  for _ in $(seq 300); do
    systemctl is-active -q "$1" && return 0
    sleep 0.1
  done
  return 1
}
wait_port() {
  for _ in $(seq 300); do
    (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null && return 0
    sleep 0.1
  done
  return 1
}
# login ACCOUNT PASSWORD: sets $token.
login() {
  token=$("${CURL[@]}" -H 'Content-Type: application/json' \
    -d "{\"account\":\"$1\",\"password\":\"$2\"}" "$base/api/auth/login" | jq -r '.data.token // empty')
  [ -n "$token" ]
}
# api G|M|E METHOD PARAMS: one call through the service; sets $answer.
api() {
  local name
  case $1 in G) name=TAVO.Core.Group ;; M) name=TAVO.Core.Group.Member ;; E) name=TAVO.Core.EventLog ;; esac
  answer=$("${CURL[@]}" -H "Authorization: Bearer $token" -H 'Content-Type: application/json' \
    -d "{\"api\":\"$name\",\"version\":1,\"method\":\"$2\",\"params\":$3}" "$base/api")
}
# expect_ok NAME G|M|E METHOD PARAMS: the call succeeds.
expect_ok() {
  local name=$1
  shift
  api "$@"
  if [ "$(jq -r .success <<<"$answer" 2>/dev/null)" = true ]; then ok "$name"; else bad "$name: $answer"; fi
}
# expect_code NAME CODE G|M|E METHOD PARAMS: the call fails with CODE.
expect_code() {
  local name=$1 code=$2
  shift 2
  api "$@"
  if [ "$(jq -r .error.code <<<"$answer" 2>/dev/null)" = "$code" ]; then ok "$name"; else bad "$name: $answer"; fi
}
