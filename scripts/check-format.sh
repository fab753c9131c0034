#!/usr/bin/env bash
# Fails when clang-format would change any C++ source or header that git tracks. The version is
# pinned: another clang-format release formats some constructs differently, so a check run with it
# would disagree with the tree for reasons of its own. Only tracked files are checked, so build
# trees, installed npm oracles and scratch files never are.
# Usage: scripts/check-format.sh            list the files that need formatting, exit 1 if any
#        scripts/check-format.sh --fix      reformat them in place
set -euo pipefail
cd "$(dirname "$0")/.."

readonly tool=clang-format-14
readonly major=14

if ! command -v "$tool" >/dev/null 2>&1; then
  echo "check-format.sh: $tool not found (scripts/deps.sh test installs it)" >&2
  exit 2
fi
version=$("$tool" --version)
if ! [[ "$version" =~ clang-format\ version\ ${major}\. ]]; then
  echo "check-format.sh: $tool reports '$version', expected clang-format $major" >&2
  exit 2
fi

fix=false
case "${1:-}" in
  "") ;;
  --fix) fix=true ;;
  *) echo "usage: scripts/check-format.sh [--fix]" >&2; exit 2 ;;
esac

# Tracked files deleted in the work tree but not yet in the index are left out.
files=()
while IFS= read -r -d '' file; do
  [ -f "$file" ] && files+=("$file")
done < <(git ls-files -z -- '*.cpp' '*.h')
if [ ${#files[@]} -eq 0 ]; then
  echo "check-format.sh: git lists no C++ files here" >&2
  exit 2
fi

if $fix; then
  "$tool" -i --style=file -- "${files[@]}"
  exit 0
fi

unformatted=()
for file in "${files[@]}"; do
  if ! "$tool" --dry-run -Werror --style=file -- "$file" >/dev/null 2>&1; then
    unformatted+=("$file")
  fi
done
if [ ${#unformatted[@]} -ne 0 ]; then
  printf '%s\n' "${unformatted[@]}" >&2
  echo "check-format.sh: ${#unformatted[@]} of ${#files[@]} files are not formatted as .clang-format says;" \
    "scripts/check-format.sh --fix reformats them with $tool" >&2
  exit 1
fi
echo "check-format.sh: ${#files[@]} files formatted" >&2
