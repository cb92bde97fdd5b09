#!/usr/bin/env bash
# Installs what is missing, builds, creates the demo root on the first run, and
# starts the server on it in the foreground.
#   TAVO_DEMO_ROOT (default: a folder under /tmp), TAVO_PORT (default 8780)
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
"$top/tools/install-deps.sh"
"$top/tools/build.sh" build
root=${TAVO_DEMO_ROOT:-/tmp/tavo-demo-root}
port=${TAVO_PORT:-8780}
if [ ! -f "$root/etc/group" ]; then
  "$top/build/bin/tavo" init "$root" --demo
else
  echo "Using the existing demo root $root (remove it to start afresh)."
fi
exec "$top/build/bin/tavo" serve --root "$root" --listen "127.0.0.1:$port"
