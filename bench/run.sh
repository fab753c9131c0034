#!/usr/bin/env bash
# Builds the release configuration and runs the benchmarks, each with the tools it is compared with,
# in one run so that the figures share the machine's state.
#
# Usage: bench/run.sh [NAME...]       NAME is a benchmark below (default: all of them).
#                                     eml also needs the npm oracles (scripts/oracles.sh, run here).
# Environment: BUILD_DIR (default build/release), JOBS (build parallelism, default 2).
#
# To add a benchmark: write a function bench_NAME that builds its target with `build_target` and runs
# it and its comparisons, and add NAME to `all`.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/deps.sh build bench

build="${BUILD_DIR:-build/release}"
jobs="${JOBS:-2}"
shared="$(cd .. && pwd)/shared"
# System Python: the Debian oracles (python3-olefile) are installed for it, not for any other python3.
python=/usr/bin/python3

# The same settings as the "release" preset, in a build directory of the caller's choosing; the tests
# are not needed to benchmark.
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DTARN_BUILD_BENCH=ON -DTARN_BUILD_TESTS=OFF >/dev/null

build_target() { cmake --build "$build" -j "$jobs" --target "$@" >/dev/null; }

largest() { ls -S "$1"/*."$2" | head -n 1; }

bench_cfb() {
  build_target cfb_bench
  local file
  file="$(largest "$shared/corpus/msg" msg)"
  echo "== cfb: open and read every stream of $(basename "$file") ($(stat -c %s "$file") bytes)"
  "$build/bench/cfb_bench" --benchmark_min_time=3
  "$python" bench/cfb_olefile.py "$file" 3
}

bench_ndb() {
  build_target ndb_bench
  local file
  file="$(largest "$shared/corpus/pst" pst)"
  echo "== ndb: open, walk the node B-tree, read every node of $(basename "$file") ($(stat -c %s "$file") bytes)"
  "$build/bench/ndb_bench" --benchmark_min_time=3
}

# Mean wall time of a command over $1 runs, in milliseconds; its output is discarded.
mean_ms() {
  local runs="$1" start end
  shift
  start=$(date +%s%N)
  for ((i = 0; i < runs; i++)); do "$@" >/dev/null 2>&1; done
  end=$(date +%s%N)
  echo $(( (end - start) / runs / 1000000 ))
}

bench_pst() {
  build_target pst_bench tarnview
  local file out
  file="$(largest "$shared/corpus/pst" pst)"
  out="$(mktemp -d)"
  echo "== pst: fltInfo + fltLoad of the last message of $(basename "$file") ($(stat -c %s "$file") bytes)"
  TARN_BENCH_PST="$file" "$build/bench/pst_bench" --benchmark_min_time=3
  echo "tarnview list:       $(mean_ms 5 "$build/tools/tarnview" list "$file") ms per run (mean of 5)"
  echo "readpst -D -r:       $(mean_ms 5 sh -c "rm -rf '$out/r' && mkdir '$out/r' && readpst -q -D -r -o '$out/r' '$file'") ms per run (mean of 5)"
  echo "pffexport -m items:  $(mean_ms 5 sh -c "rm -rf '$out/p'* && pffexport -q -f all -m items -t '$out/p' '$file'") ms per run (mean of 5)"
  rm -rf "$out"
}

bench_ltp() {
  build_target ltp_bench make-store
  local file dir
  file="$(largest "$shared/corpus/pst" pst)"
  dir="$(mktemp -d)"
  echo "== ltp: every property of every message of $(basename "$file"), and of a 1 GiB store from make-store"
  /usr/bin/time -f "make-store 1 GiB: %e s wall, %U s user, %S s sys" \
    "$build/tests/tools/make-store" --messages 56000 --folders 20 --body-bytes 8192 "$dir/made.pst"
  TARN_BENCH_LTP_STORE="$dir/made.pst" "$build/bench/ltp_bench" --benchmark_min_time=3
  "$python" bench/ltp_pypff.py "$file" 5
  "$python" bench/ltp_pypff.py "$dir/made.pst" 1
  rm -rf "$dir"
}

bench_header() {
  build_target header_bench
  local file
  file="$(largest "$shared/corpus/pst" pst)"
  echo "== header: compose every message of $(basename "$file") with and without its header block"
  TARN_BENCH_PST="$file" "$build/bench/header_bench" --benchmark_min_time=3
}

bench_eml() {
  build_target eml_bench
  scripts/oracles.sh
  local json
  json="$(mktemp)"
  echo "== eml: every corpus .eml through fltLoad, and the MIME reader alone in memory; mailparser over the same files"
  "$build/bench/eml_bench" --benchmark_min_time=3 --benchmark_out="$json" --benchmark_out_format=json
  local theirs ours
  theirs="$(NODE_PATH=tests/oracles/node_modules node bench/eml_mailparser.js 20 "$shared"/corpus/eml/*.eml)"
  echo "$theirs"
  ours="$("$python" -c 'import json,sys; b=json.load(open(sys.argv[1]))["benchmarks"]; print(next(x["real_time"] for x in b if x["name"]=="BM_LoadEveryCorpusEml"))' "$json")"
  "$python" -c 'import sys; o=float(sys.argv[1]); t=float(sys.argv[2].split()[1]); print(f"fltLoad of every file: {o:.2f} ms per pass; mailparser {t:.2f} ms: mailparser takes {t/o:.1f} times as long")' "$ours" "$theirs"
  rm -f "$json"
}

all=(cfb ndb pst ltp header eml)
for name in "${@:-${all[@]}}"; do
  "bench_$name"
done
