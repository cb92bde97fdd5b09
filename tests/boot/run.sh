#!/usr/bin/env bash
# The booted-system suite: boots Debian 12 with systemd as PID 1 in a
# container (systemd-nspawn over a debootstrap tree, see tree.sh), installs
# the freshly built package there with apt, and runs checks.sh inside it.
#   tests/boot/run.sh [DEB_DIR]     (default build-deb/)
# Each run boots the cached tree read-only under a throw-away overlay
# (--volatile=overlay), with a network of its own (only its loopback, with
# the appliance's address that the checks add), so nothing it does reaches the machine or
# the next run. Bounded: the boot 60 s, the checks 240 s.
# TAVO_BOOT_HOLD=FILE boots and waits, without the checks (see below).
# Where this machine cannot boot a container, it says why and fails when
# CI=true; elsewhere it says why and exits 0.
set -euo pipefail
top=$(cd "$(dirname "$0")/../.." && pwd)
debs=${1:-$top/build-deb}
case "$debs" in /*) ;; *) debs="$PWD/$debs" ;; esac
deb=$(ls "$debs"/tavo_*.deb)

cannot() {
  echo "boot suite: cannot run here: $*" >&2
  if [ "${CI:-}" = true ]; then exit 1; fi
  echo "boot suite: SKIPPED (outside CI)" >&2
  exit 0
}
[ "$(id -u)" = 0 ] || cannot "it needs root to boot a container"
command -v systemd-nspawn >/dev/null || cannot "systemd-nspawn is missing (Debian systemd-container)"
command -v debootstrap >/dev/null || cannot "debootstrap is missing"

started=$(date +%s)
tree=$("$top/tests/boot/tree.sh" "$deb")
booting=$(date +%s)
work=$(mktemp -d "${TMPDIR:-/tmp}/tavo-boot.XXXXXX")
nspawn_pid=
cleanup() {
  if [ -n "$nspawn_pid" ] && kill -0 "$nspawn_pid" 2>/dev/null; then
    [ -n "${leader:-}" ] && kill -s RTMIN+4 "$leader" 2>/dev/null  # systemd: power off
    for _ in $(seq 100); do kill -0 "$nspawn_pid" 2>/dev/null || break; sleep 0.1; done
    kill -9 "$nspawn_pid" 2>/dev/null || true
    wait "$nspawn_pid" 2>/dev/null || true
  fi
  rm -rf "$work"
}
trap cleanup EXIT

mkdir "$work/debs"
cp "$debs"/tavo_*.deb "$work/debs/"
# The machine name is the container's host name, which the certificate names.
systemd-nspawn --quiet --boot --directory="$tree" --volatile=overlay --private-network \
  --register=no --keep-unit --machine=tavo-appliance --console=passive \
  --bind-ro="$work/debs:/mnt/debs" --bind-ro="$top/tests/boot:/mnt/suite" \
  >"$work/console.log" 2>&1 &
nspawn_pid=$!

# The container's PID 1: the systemd below systemd-nspawn.
leader=
for _ in $(seq 100); do
  kill -0 "$nspawn_pid" 2>/dev/null || break
  for child in $(pgrep -P "$nspawn_pid" || true); do
    [ "$(cat "/proc/$child/comm" 2>/dev/null)" = systemd ] && leader=$child
  done
  [ -n "$leader" ] && break
  sleep 0.1
done
[ -n "$leader" ] || { cat "$work/console.log" >&2; cannot "systemd-nspawn did not boot the tree"; }
inside() {
  nsenter --target "$leader" --mount --uts --ipc --net --pid --cgroup -- \
    /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root TERM=dumb LANG=C.UTF-8 "$@"
}
# Booted: every unit started (or failed, which the checks would show).
state=
for _ in $(seq 600); do
  state=$(inside systemctl is-system-running 2>/dev/null || true)
  case "$state" in running | degraded) break ;; esac
  sleep 0.1
done
case "$state" in running | degraded) ;; *)
  cat "$work/console.log" >&2
  cannot "the container's systemd did not finish booting (state '$state')" ;;
esac
[ "$state" = running ] || inside systemctl --failed --no-legend >&2 || true
echo "boot suite: booted in $(($(date +%s) - booting)) s (tree $tree)"

if [ -n "${TAVO_BOOT_HOLD:-}" ]; then
  # For a developer: keep the booted system until the file named by
  # TAVO_BOOT_HOLD is removed; enter it with the command printed.
  touch "$TAVO_BOOT_HOLD"
  echo "boot suite: holding; enter with: nsenter -t $leader -m -u -i -n -p -C -- bash -l; rm $TAVO_BOOT_HOLD ends"
  while [ -e "$TAVO_BOOT_HOLD" ]; do sleep 1; done
  exit 0
fi
rc=0
inside timeout 240 bash /mnt/suite/checks.sh || rc=$?
[ "$rc" = 124 ] && echo "boot suite: the checks did not finish within 240 s" >&2
echo "boot suite: done in $(($(date +%s) - started)) s"
exit "$rc"
