#!/usr/bin/env bash
# Configures and builds the project with CMake and Ninja.
#   tools/build.sh [BUILD_DIR] [extra cmake args...]   (default BUILD_DIR: build)
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
dir=${1:-build}
shift || true
case "$dir" in /*) ;; *) dir="$top/$dir" ;; esac
cmake -S "$top" -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=${BUILD_TYPE:-RelWithDebInfo} "$@" >/dev/null
cmake --build "$dir" -j "$(nproc)"
