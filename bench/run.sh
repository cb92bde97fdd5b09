#!/usr/bin/env bash
# Builds and runs the account-store benchmark:
#   bench/run.sh [BUILD_DIR]   (default: build)
# Prints the Google Benchmark table, how each cost grows from 1,000 to 100,000
# groups and users, and one saved membership change beside gpasswd.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
dir=${1:-build}
case "$dir" in /*) ;; *) dir="$top/$dir" ;; esac
cmake -S "$top" -B "$dir" -G Ninja -DTAVO_BUILD_BENCH=ON >/dev/null
cmake --build "$dir" -j2 --target tavo_bench
exec "$dir/bin/tavo_bench" "${@:2}"
