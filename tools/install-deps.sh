#!/usr/bin/env bash
# Installs whatever tools/deps.txt lists that this machine is missing.
#   tools/install-deps.sh          build and test dependencies (Debian packages)
#   tools/install-deps.sh --browser  also the browser-test packages (chromium, playwright-core, axe-core)
#                                    and the npm packages of the e2e tests (the OpenAPI validator)
#   tools/install-deps.sh --bench    also what only the benchmarks use (nginx, wrk)
# Safe to run again: it installs only what is missing.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
top=$(dirname "$here")
want_browser=0
want_bench=0
for arg in "$@"; do
  case "$arg" in
    --browser) want_browser=1 ;;
    --bench) want_bench=1 ;;
    *) echo "install-deps: unknown option $arg" >&2; exit 2 ;;
  esac
done

sudo_cmd=()
[ "$(id -u)" -ne 0 ] && sudo_cmd=(sudo)

missing=()
while read -r kind name command; do
  case "$kind" in
    apt) ;;
    bench) [ $want_bench -eq 1 ] || continue ;;
    *) continue ;;
  esac
  if [ "$name" = chromium ] && [ $want_browser -eq 0 ]; then continue; fi
  if [ -n "$command" ] && command -v "$command" >/dev/null 2>&1; then continue; fi
  dpkg-query -W -f='${Status}' "$name" 2>/dev/null | grep -q 'install ok installed' || missing+=("$name")
done < <(grep -v '^#' "$here/deps.txt")

if [ ${#missing[@]} -gt 0 ]; then
  echo "install-deps: installing ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  # slapd is only started by the tests, on their own configuration: no
  # system-wide directory is configured or started on installation.
  echo "slapd slapd/no_configuration boolean true" | "${sudo_cmd[@]}" debconf-set-selections
  "${sudo_cmd[@]}" apt-get update -qq
  "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

if [ $want_browser -eq 1 ]; then
  npm_pkgs=$(awk '$1 == "npm" {print $2}' "$here/deps.txt")
  dir="$top/tests/browser"
  need=0
  for p in $npm_pkgs; do
    n=${p%@*}; v=${p##*@}
    have=$(node -p "try{require('$dir/node_modules/$n/package.json').version}catch(e){''}" 2>/dev/null || true)
    [ "$have" = "$v" ] || need=1
  done
  if [ $need -eq 1 ]; then
    echo "install-deps: npm install $npm_pkgs"
    (cd "$dir" && npm install --no-save --no-audit --no-fund --silent $npm_pkgs)
  fi
fi
