#!/usr/bin/env bash
# Installs what is missing, builds, and shows the bundled sample store as the toolkit would see it:
# its messages, the description of one, and the document the toolkit's loader receives for it.
# Usage: scripts/demo.sh [debug|release] [FILE]   (default: release, samples/sample.pst)
set -euo pipefail
cd "$(dirname "$0")/.."

preset="${1:-release}"
case "$preset" in
  debug|release) ;;
  *) echo "demo.sh: preset must be 'debug' or 'release', not '$preset'" >&2; exit 2 ;;
esac
sample="${2:-samples/sample.pst}"

scripts/deps.sh build
# A build directory of its own, without tests and benchmarks: their packages are not needed here.
build="build/demo-$preset"
cmake --preset "$preset" -B "$build" -DTARN_BUILD_TESTS=OFF -DTARN_BUILD_BENCH=OFF >/dev/null
cmake --build "$build" --target tarnview

[ -f "$sample" ] || { echo "demo.sh: $sample: no such file" >&2; exit 1; }
tarnview="$build/tools/tarnview"

if [ "$(head -c 4 "$sample")" = '!BDN' ]; then
  echo "\$ tarnview list $sample"
  "$tarnview" list "$sample"
  echo
fi

# info lays the document out to count its pages when the browser and poppler are there
# (scripts/deps.sh layout); without them it keeps to the recording loaders' one-page answer.
layout=()
command -v chromium >/dev/null && command -v pdfinfo >/dev/null || layout=(--no-layout)
echo "\$ tarnview info $sample ${layout[*]}"
# tarnview exits 1 both when the filter declines the source and when it cannot do its own work; only
# the first prints a report with the filter's status, and only that one is an honest demo result.
status=0
report="$("$tarnview" info "$sample" "${layout[@]}" 2>&1)" || status=$?
printf '%s\n' "$report"
if [ "$status" -eq 1 ] && grep -q '^status ' <<<"$report"; then
  echo "(the filter produced no document for this source; the status line says why)"
  exit 0
elif [ "$status" -ne 0 ]; then
  echo "demo.sh: tarnview failed with exit status $status" >&2
  exit "$status"
fi

# The first message's document, exactly as the toolkit's loader is handed it, under the name tarnview
# gives it (its extension says the format: .html, .rtf or .txt).
out_dir="$build/demo-documents"
mkdir -p "$out_dir"
sample_path="$(cd "$(dirname "$sample")" && pwd)/$(basename "$sample")"
tarnview_path="$(pwd)/$tarnview"
echo
echo "\$ tarnview render $sample --message 1"
line="$(cd "$out_dir" && "$tarnview_path" render "$sample_path" --message 1)"
printf '%s\n' "$line"
written="$out_dir/${line%%: format *}"
echo "--- $written"
cat "$written"
echo
