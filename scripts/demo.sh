#!/usr/bin/env bash
# Installs what is missing, builds, and describes the bundled sample with tarnview, as the toolkit
# would see it. Usage: scripts/demo.sh [debug|release] [FILE]   (default: release, samples/hello.eml)
set -euo pipefail
cd "$(dirname "$0")/.."

preset="${1:-release}"
case "$preset" in
  debug|release) ;;
  *) echo "demo.sh: preset must be 'debug' or 'release', not '$preset'" >&2; exit 2 ;;
esac
sample="${2:-samples/hello.eml}"

scripts/deps.sh build
# A build directory of its own, without tests and benchmarks: their packages are not needed here.
build="build/demo-$preset"
cmake --preset "$preset" -B "$build" -DTARN_BUILD_TESTS=OFF -DTARN_BUILD_BENCH=OFF >/dev/null
cmake --build "$build" --target tarnview

[ -f "$sample" ] || { echo "demo.sh: $sample: no such file" >&2; exit 1; }
echo "\$ tarnview info $sample"
# tarnview exits 1 both when the filter declines the source and when it cannot do its own work; only
# the first prints a report with the filter's status, and only that one is an honest demo result.
status=0
report="$("$build/tools/tarnview" info "$sample" 2>&1)" || status=$?
printf '%s\n' "$report"
if [ "$status" -eq 1 ] && grep -q '^status ' <<<"$report"; then
  echo "(the filter produced no document for this source yet; the status line says why)"
elif [ "$status" -ne 0 ]; then
  echo "demo.sh: tarnview failed with exit status $status" >&2
  exit "$status"
fi
