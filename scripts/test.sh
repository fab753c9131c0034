#!/usr/bin/env bash
# Builds everything under AddressSanitizer and UndefinedBehaviorSanitizer and runs the whole test suite.
# Installs what is missing first. Usage: scripts/test.sh [ctest arguments...]
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/deps.sh build test python layout
scripts/oracles.sh

# Every tracked source must be formatted as .clang-format says, by the pinned clang-format.
scripts/check-format.sh

# The toolkit's records must sit at their byte offsets in a 32-bit build; this compiles the static
# checks with -m32 (nothing is linked or run).
scripts/check-ilp32.sh

cmake --preset sanitize >/dev/null
cmake --build --preset sanitize
export ASAN_OPTIONS="detect_leaks=1:abort_on_error=0:${ASAN_OPTIONS:-}"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1:${UBSAN_OPTIONS:-}"
cd build/sanitize
ctest --output-on-failure -j "$(nproc)" "$@"
