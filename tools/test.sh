#!/usr/bin/env bash
# Installs what is missing, builds, and runs every test:
#   0. the C++ sources as clang-format writes them (tools/check-format.sh)
#   1. unit and integration tests (GoogleTest under CTest) in build/
#   2. the same unit tests built with ASan and UBSan in build-asan/
#   3. the HTTP end-to-end tests (node's test runner) against build/bin/tavo
#   4. the browser tests (playwright-core driving Debian's chromium)
#   5. the fuzz targets (clang 14, libFuzzer, ASan and UBSan) in build-fuzz/,
#      each for TAVO_FUZZ_SECONDS (default 30) from its checked-in corpus
#   6. the Debian packages: built (tools/package.sh, with lintian), checked
#      unpacked (tests/package/run.sh), then installed with apt on Debian 12
#      booted under systemd in a container and used as shipped (tests/boot/run.sh)
#   7. the concurrency tests, and the HTTP tests against the server, built with
#      ThreadSanitizer in build-tsan/
# Set TAVO_SKIP_BROWSER=1 to skip step 4, TAVO_SKIP_ASAN=1 to skip step 2,
# TAVO_SKIP_FUZZ=1 to skip step 5, TAVO_SKIP_PACKAGE=1 to skip step 6,
# TAVO_SKIP_TSAN=1 to skip step 7, TAVO_SKIP_BOOT=1 to skip the booted system of step 6.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
cd "$top"

# The account-tool tests run groupadd -P, gpasswd -Q and grpck -R, which
# chroot into temporary roots: that needs root, as in CI.
if [ "$(id -u)" -ne 0 ]; then
  echo "test.sh: the tests need root (the account tools chroot into test roots); re-running with sudo"
  exec sudo --preserve-env=TAVO_SKIP_BROWSER,TAVO_SKIP_ASAN,TAVO_SKIP_FUZZ,TAVO_FUZZ_SECONDS,TAVO_SKIP_TSAN,TAVO_SKIP_PACKAGE,TAVO_SKIP_BOOT,CI "$0" "$@"
fi

"$top/tools/install-deps.sh" --browser

echo "== format"
"$top/tools/check-format.sh"
echo "== build"
"$top/tools/build.sh" build
echo "== unit and integration tests"
ctest --test-dir build --output-on-failure -j 2

if [ "${TAVO_SKIP_ASAN:-0}" != 1 ]; then
  echo "== unit tests under ASan and UBSan"
  "$top/tools/build.sh" build-asan -DTAVO_SANITIZE=ON -DTAVO_BUILD_BENCH=OFF
  ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
    ctest --test-dir build-asan --output-on-failure -j 2
fi

echo "== end-to-end tests over HTTP"
TAVO_BIN="$top/build/bin/tavo" node --test "$top"/tests/e2e/*.test.mjs

if [ "${TAVO_SKIP_BROWSER:-0}" != 1 ]; then
  echo "== browser tests"
  TAVO_BIN="$top/build/bin/tavo" node --test "$top"/tests/browser/*.test.mjs
fi

if [ "${TAVO_SKIP_FUZZ:-0}" != 1 ]; then
  echo "== fuzz targets, ${TAVO_FUZZ_SECONDS:-30} s each"
  CC=clang-14 CXX=clang++-14 cmake -S "$top" -B "$top/build-fuzz" -G Ninja \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTAVO_FUZZ=ON -DTAVO_BUILD_BENCH=OFF >/dev/null
  cmake --build "$top/build-fuzz" --target fuzz_all -j 2
  "$top/tests/fuzz/run.sh" "${TAVO_FUZZ_SECONDS:-30}" "$top/build-fuzz"
fi

if [ "${TAVO_SKIP_PACKAGE:-0}" != 1 ]; then
  echo "== Debian packages"
  "$top/tools/package.sh" "$top/build-deb"
  "$top/tests/package/run.sh" "$top/build-deb"
  if [ "${TAVO_SKIP_BOOT:-0}" != 1 ]; then
    echo "== the package on a booted Debian 12 under systemd"
    "$top/tests/boot/run.sh" "$top/build-deb"
  fi
fi

if [ "${TAVO_SKIP_TSAN:-0}" != 1 ]; then
  echo "== concurrency tests and the server under ThreadSanitizer"
  cmake -S "$top" -B "$top/build-tsan" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DTAVO_TSAN=ON -DTAVO_BUILD_BENCH=OFF >/dev/null
  cmake --build "$top/build-tsan" -j 2 --target tavo_accounts_tests tavo_platform_tests \
    tavo_server_tests tavo_cli tavo_group_module
  # No suppressions: a report fails the step.
  export TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1"
  ctest --test-dir "$top/build-tsan" --output-on-failure -j 2 \
    -R 'Concurrency|Concurrent|ProcessesWriteTogether|HandlerLockTest|EventProbe'
  TAVO_BIN="$top/build-tsan/bin/tavo" node --test "$top"/tests/e2e/*.test.mjs
  unset TSAN_OPTIONS
fi
