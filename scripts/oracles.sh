#!/usr/bin/env bash
# Installs the npm programs that tests run as black-box oracles (tests/oracles/), when missing.
set -euo pipefail
cd "$(dirname "$0")/../tests/oracles"
if [ ! -d node_modules ] || [ package-lock.json -nt node_modules ]; then
  command -v npm >/dev/null || { echo "oracles.sh: npm is missing" >&2; exit 1; }
  npm ci --no-audit --no-fund --loglevel=error >/dev/null
fi
