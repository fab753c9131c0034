#!/usr/bin/env bash
# Compiles the toolkit record layouts for a 32-bit (ILP32) target: their static_asserts pin every
# field to its byte offset there. Nothing is linked or run.
set -euo pipefail
cd "$(dirname "$0")/.."
g++ -m32 -std=c++20 -Wall -Wextra -Wpedantic -Werror -fsyntax-only -I. tests/common/toolkit_records_ilp32_check.cpp
echo "ILP32 record layout: ok"
