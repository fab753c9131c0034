#!/usr/bin/env bash
# Prints the lines of tests against the lines of product code they guard, and their ratio.
# Product: every tracked .cpp, .h, .py, .sh, .js and .pl file outside tests/, bench/, scripts/, docs/
# and samples/, less generated tables. Tests: the same kinds of file under tests/.
set -euo pipefail
cd "$(dirname "$0")/.."
kinds='\.(cpp|h|py|sh|js|pl)$'
count() { xargs -r cat | wc -l; }
product=$(git ls-files | grep -Ev '^(tests|bench|scripts|docs|samples)/' | grep -E "$kinds" |
  grep -v 'jisx0208_table\.cpp$' | count)
tests=$(git ls-files tests | grep -E "$kinds" | count)
awk -v p="$product" -v t="$tests" 'BEGIN { printf "product %d, tests %d, ratio %.3f\n", p, t, t / p }'
