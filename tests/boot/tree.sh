#!/usr/bin/env bash
# Prints the path of a Debian 12 tree, made with debootstrap, that can boot
# under systemd-nspawn and holds everything the booted-system suite needs
# except Tavo itself: systemd, the account tools, nscd, Samba and its client,
# curl, openssl and the libraries that the tavo package depends on.
#   tests/boot/tree.sh DEB       (DEB: the tavo_*.deb whose dependencies to include)
# The tree is made once and kept outside the clone, in
# ${TAVO_BOOT_CACHE:-/var/tmp/tavo-boot}/KEY/tree, KEY being a hash of the
# package list; a tree whose making was cut off is made again. Trees of other
# keys are removed, so the cache holds one tree. Nothing in the tree is
# changed afterwards: each run boots it with a throw-away overlay on top.
set -euo pipefail
deb=$1
cache=${TAVO_BOOT_CACHE:-/var/tmp/tavo-boot}
mirror=${TAVO_BOOT_MIRROR:-http://deb.debian.org/debian}

# The package's own dependencies, without versions (the first of alternatives).
deps=$(dpkg-deb -f "$deb" Depends | tr ',' '\n' | sed 's/|.*//; s/(.*)//; s/[[:space:]]//g' | grep -v '^$')
# What the suite runs in the booted system.
extra="systemd systemd-sysv dbus libpam-systemd passwd login adduser curl ca-certificates openssl
nscd samba smbclient iproute2 procps jq"
list=$(printf '%s\n' $deps $extra | sort -u | tr '\n' ',' | sed 's/,$//')
key=$(printf 'bookworm minbase %s' "$list" | sha256sum | cut -c1-16)
dir=$cache/$key

if [ ! -e "$dir/complete" ]; then
  mkdir -p "$cache"
  for old in "$cache"/*/; do
    [ -d "$old" ] && [ "$old" != "$dir/" ] && rm -rf "$old"
  done
  rm -rf "$dir"
  mkdir -p "$dir"
  echo "boot tree: making a Debian 12 tree in $dir (once; packages: $list)" >&2
  start=$(date +%s)
  if ! debootstrap --variant=minbase --include="$list" bookworm "$dir/tree" "$mirror" \
      >"$dir/debootstrap.log" 2>&1; then
    tail -20 "$dir/debootstrap.log" >&2
    echo "boot tree: debootstrap failed (log: $dir/debootstrap.log)" >&2
    exit 1
  fi
  t=$dir/tree
  # No services the suite does not use, and no waiting for a network.
  rm -f "$t"/etc/systemd/system/multi-user.target.wants/{nmbd,samba-ad-dc}.service
  ln -sf /dev/null "$t/etc/systemd/system/samba-ad-dc.service"
  ln -sf /dev/null "$t/etc/systemd/system/nmbd.service"
  ln -sf /dev/null "$t/etc/systemd/system/systemd-networkd-wait-online.service"
  # nscd keeps group entries until it is told to forget them: only a flush
  # can make a change visible through it.
  sed -i 's/^\([[:space:]]*check-files[[:space:]]\+group[[:space:]]\+\)yes/\1no/' "$t/etc/nscd.conf"
  grep -Eq '^[[:space:]]*check-files[[:space:]]+group[[:space:]]+no' "$t/etc/nscd.conf" ||
    { echo "boot tree: cannot set check-files group no in nscd.conf" >&2; exit 1; }
  # The appliance's name, which its certificate will carry.
  echo tavo-appliance >"$t/etc/hostname"
  printf '127.0.0.1 localhost\n192.0.2.10 tavo-appliance\n' >"$t/etc/hosts"
  : >"$t/etc/machine-id"
  apt-get clean -o RootDir="$t" 2>/dev/null || rm -f "$t"/var/cache/apt/archives/*.deb
  touch "$dir/complete"
  echo "boot tree: made in $(( $(date +%s) - start )) s" >&2
fi
echo "$dir/tree"
