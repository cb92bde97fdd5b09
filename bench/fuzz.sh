#!/usr/bin/env bash
# The long fuzz run: builds the fuzz targets if needed (clang 14 comes from
# tools/install-deps.sh) and runs every target for the given time.
#   bench/fuzz.sh [SECONDS_PER_TARGET]   (default 600)
# Prints each target's executions, executions per second and coverage, and
# ends with "fuzz: T targets, E executions, C crashes". New coverage stays in
# build-fuzz/fuzz-work/NAME; copy what is worth keeping into
# tests/fuzz/corpus/NAME (after "fuzz_NAME -merge=1 CORPUS WORK").
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
secs=${1:-600}
"$top/tools/install-deps.sh"
CC=clang-14 CXX=clang++-14 cmake -S "$top" -B "$top/build-fuzz" -G Ninja \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTAVO_FUZZ=ON -DTAVO_BUILD_BENCH=OFF >/dev/null
cmake --build "$top/build-fuzz" --target fuzz_all -j "$(nproc)"
echo "machine: $(nproc) cores, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ //')"
exec "$top/tests/fuzz/run.sh" "$secs" "$top/build-fuzz"
