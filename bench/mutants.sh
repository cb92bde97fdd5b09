#!/usr/bin/env bash
# Mutation check of the test suite: applies each mutant of bench/mutants.txt
# in turn to a copy of the sources, rebuilds, runs ctest, and reports the
# mutants that no test notices (survivors).
#   bench/mutants.sh [ID...]        (default: every mutant)
# Work happens in build-mutants/ (a copy of the tracked files and its build);
# the checkout itself is never changed. About 30-60 s per mutant on 2 cores.
set -uo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
work="$top/build-mutants"
src="$work/src"
build="$work/build"
list="$top/bench/mutants.txt"

rm -rf "$src" && mkdir -p "$src"
(cd "$top" && git ls-files -z --cached --others --exclude-standard | tar --null -T - -cf - 2>/dev/null) | (cd "$src" && tar xf -)
cmake -S "$src" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTAVO_BUILD_BENCH=OFF >/dev/null
run_tests() { ctest --test-dir "$build" -j 2 --timeout 300 >"$work/ctest.log" 2>&1; }
if ! cmake --build "$build" -j 2 >"$work/build.log" 2>&1 || ! run_tests; then
  echo "mutants: the unmutated tree does not build or pass its tests; see $work/"
  exit 2
fi

total=0 killed=0 survived=() stale=()
while IFS= read -r line; do
  case "$line" in ''|'#'*) continue ;; esac
  id=${line%% | *}
  if [ $# -gt 0 ] && ! printf '%s\n' "$@" | grep -qx "$id"; then continue; fi
  file=$(printf '%s' "$line" | python3 -c 'import sys; print(sys.stdin.read().split(" | ", 3)[1])')
  total=$((total + 1))
  cp "$src/$file" "$work/original"
  if ! python3 - "$src/$file" "$line" <<'PY'
import sys
path, line = sys.argv[1], sys.argv[2]
_, _, text, repl = line.split(" | ", 3)
s = open(path).read()
if text not in s:
    sys.exit(1)
open(path, "w").write(s.replace(text, repl, 1))
PY
  then
    stale+=("$id")
    echo "mutant $id: STALE (its text is no longer in $file)"
    continue
  fi
  if ! cmake --build "$build" -j 2 >"$work/build.log" 2>&1; then
    result="killed (does not build)"
    killed=$((killed + 1))
  elif run_tests; then
    result="SURVIVED"
    survived+=("$id")
  else
    result="killed by $(grep -c '(Failed)\|(Timeout)\|(Subprocess' "$work/ctest.log") test(s)"
    killed=$((killed + 1))
  fi
  echo "mutant $id: $result"
  cp "$work/original" "$src/$file"
  touch "$src/$file"
done <"$list"
cmake --build "$build" -j 2 >/dev/null 2>&1 || true
echo "mutants: $total tried, $killed killed, ${#survived[@]} survived${survived:+: ${survived[*]}}, ${#stale[@]} stale"
[ ${#survived[@]} -eq 0 ] && [ ${#stale[@]} -eq 0 ]
