#!/usr/bin/env bash
# Builds tarnview under ThreadSanitizer and runs the threaded list and export over every corpus store
# (with attachments, and with a header language whose RTF rows need fonts), four threads each. Any race
# report fails the script. Not part of the test run: it needs a build of its own.
set -euo pipefail
cd "$(dirname "$0")/.."
shared="${TARN_SHARED_DIR:-$PWD/../shared}"
build=build/tsan
cmake -G Ninja -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTARN_BUILD_TESTS=OFF \
  -DCMAKE_CXX_FLAGS=-fsanitize=thread -DCMAKE_C_FLAGS=-fsanitize=thread \
  -DCMAKE_EXE_LINKER_FLAGS=-fsanitize=thread -DCMAKE_SHARED_LINKER_FLAGS=-fsanitize=thread >/dev/null
cmake --build "$build" --target tarnview
out="$(mktemp -d)"
trap 'rm -rf "$out"' EXIT
export TSAN_OPTIONS="halt_on_error=1 exitcode=66"
for store in "$shared"/corpus/pst/*.pst; do
  name="$(basename "$store" .pst)"
  for run in "list --jobs 4 $store" "export --jobs 4 --attachments $store -o $out/$name" \
             "export --jobs 4 --lang 0x0411 $store -o $out/$name-ja"; do
    status=0
    # shellcheck disable=SC2086 # the words of `run` are the arguments
    "$build/tools/tarnview" $run >/dev/null 2>"$out/stderr" || status=$?
    if [[ $status -eq 66 ]] || grep -q ThreadSanitizer "$out/stderr"; then
      cat "$out/stderr" >&2
      echo "tsan-check: a race in: tarnview $run" >&2
      exit 1
    fi
  done
  echo "tsan-check: $name: no race"
done
