#!/usr/bin/env bash
# Builds the Python module tarnpst (release) and installs it into .venv at the repository's root, a venv
# of Debian's Python that sees Debian's modules (pybind11, Dask, pytest), since PyPI cannot be reached.
# Installs what is missing first. Then: .venv/bin/python -c 'import tarnpst'
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/deps.sh build python
[ -x .venv/bin/python ] || /usr/bin/python3 -m venv --system-site-packages .venv
.venv/bin/python -m pip install --no-build-isolation --no-index --force-reinstall --no-deps ./python
.venv/bin/python -c 'import tarnpst; print("tarnpst installed in", tarnpst.__path__[0])'
