#!/usr/bin/env bash
# Installs what is missing, builds, creates the demo root on the first run, and
# starts the server on it in the foreground.
#   TAVO_DEMO_ROOT (default /tmp/tavo-demo-root), TAVO_PORT (default 8780),
#   TAVO_ADMIN_PASSWORD (the administrator's password on the first run; generated if unset)
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
"$top/tools/install-deps.sh"
"$top/tools/build.sh" build
root=${TAVO_DEMO_ROOT:-/tmp/tavo-demo-root}
port=${TAVO_PORT:-8780}
login_note="$root/var/lib/tavo/demo-login.txt"
if [ ! -f "$root/etc/group" ]; then
  note=$("$top/build/bin/tavo" init "$root" --demo)
  # Keep the demo's login line (only the demo root's own password) for later runs.
  (umask 077 && printf '%s\n' "$note" | sed "s/:8780\//:$port\//" > "$login_note")
  echo "Created the demo root $root (remove it to start afresh)."
else
  echo "Using the existing demo root $root (remove it to start afresh)."
fi
[ -f "$login_note" ] && grep -i 'log in' "$login_note" | sed "s/ after .*//"
exec "$top/build/bin/tavo" serve --root "$root" --listen "127.0.0.1:$port"
