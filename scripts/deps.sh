#!/usr/bin/env bash
# Installs the Debian packages the project needs, skipping those already installed.
# Usage: scripts/deps.sh [build|test|bench|fuzz|python|layout]...   (default: build)
set -euo pipefail

build=(cmake ninja-build g++ pkg-config libicu-dev libboost-iostreams-dev libfontconfig-dev libssl-dev zlib1g-dev)
test=(libgtest-dev libgmock-dev g++-multilib python3-olefile python3-pypff libgsf-bin pst-utils pff-tools
      clang-format-14 unrtf chromium  # independent readers of the documents
      fonts-liberation fonts-noto-cjk fonts-noto-core)  # the fonts the glyph test resolves Windows faces to
bench=(libbenchmark-dev python3-olefile python3-pypff pst-utils pff-tools
       libemail-outlook-message-perl)  # msgconvert, beside the message-file benchmark
fuzz=(clang-14 libclang-rt-14-dev)
# The Python module, its offline build and install into a venv, Dask and pytest: Debian's, as PyPI is not reached.
python=(python3-dev pybind11-dev python3-pybind11 python3-venv python3-pip python3-setuptools python3-wheel
        python3-distributed python3-pytest)
# The layout loader: a browser for HTML and text, an office suite for RTF, poppler for page counts and
# pictures, and fonts metric-compatible with Calibri and Cambria so that page counts do not depend on a
# fallback font.
layout=(chromium libreoffice-writer-nogui poppler-utils fonts-crosextra-carlito
        fonts-crosextra-caladea fonts-noto-core fonts-noto-cjk)

wanted=("${build[@]}")
for set in "$@"; do
  case "$set" in
    build) ;;
    test) wanted+=("${test[@]}") ;;
    bench) wanted+=("${bench[@]}") ;;
    fuzz) wanted+=("${fuzz[@]}") ;;
    python) wanted+=("${python[@]}") ;;
    layout) wanted+=("${layout[@]}") ;;
    *) echo "deps.sh: unknown set '$set'" >&2; exit 2 ;;
  esac
done

missing=()
for pkg in "${wanted[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$pkg")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=""
[ "$(id -u)" -ne 0 ] && sudo="sudo"
echo "deps.sh: installing ${missing[*]}" >&2
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
