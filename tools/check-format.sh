#!/usr/bin/env bash
# Checks that every tracked C++ file is as clang-format 14 writes it under the
# project's .clang-format; lists the files that are not and exits 1.
#   tools/check-format.sh          check
#   tools/check-format.sh --fix    rewrite them in place
set -euo pipefail
cd "$(dirname "$0")/.."
fmt=clang-format-14
mapfile -t files < <(git ls-files '*.cpp' '*.h')
if [ "${1:-}" = --fix ]; then
  "$fmt" -i "${files[@]}"
  exit 0
fi
# One process for all files; on a failure, a second pass names them.
if "$fmt" --dry-run --Werror "${files[@]}" 2>/dev/null; then
  echo "format: ${#files[@]} files as clang-format writes them"
  exit 0
fi
bad=()
for f in "${files[@]}"; do
  "$fmt" "$f" | cmp -s - "$f" || bad+=("$f")
done
if [ "${#bad[@]}" -gt 0 ]; then
  printf 'not formatted (tools/check-format.sh --fix):\n' >&2
  printf '  %s\n' "${bad[@]}" >&2
  exit 1
fi
