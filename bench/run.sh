#!/usr/bin/env bash
# Builds the release configuration and runs the benchmarks, each with the tools it is compared with,
# in one run so that the figures share the machine's state.
#
# Usage: bench/run.sh [NAME...]       NAME is a benchmark below (default: all of them).
#                                     pages also needs scripts/deps.sh layout (run here).
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

bench_deencapsulate() {
  build_target deencapsulate_bench
  scripts/oracles.sh
  local dir
  dir="$(mktemp -d)"
  echo "== deencapsulate: HTML recovered from a \\fromhtml body, and from one that is a single hex-escape run (10 MiB, 1 MiB)"
  TARN_BENCH_BODY_DIR="$dir" "$build/bench/deencapsulate_bench" --benchmark_min_time=3
  # rtf-stream-parser's time grows faster than its input (a 10 MiB body takes many minutes), so it is
  # timed on the 1 MiB bodies only.
  local body
  for body in message hex-run; do
    echo "rtf-stream-parser, $body-1MiB.rtf: $(mean_ms 1 node tests/oracles/deencapsulate.js "$dir/$body-1MiB.rtf" "$dir/$body.html") ms (one run, process)"
  done
  rm -rf "$dir"
}


bench_msg() {
  build_target msg_bench
  local files=("$shared"/corpus/msg/*.msg) out ours reader convert
  out="$(mktemp -d)"
  echo "== msg: render every message file of the corpus (${#files[@]} files, $(cat "${files[@]}" | wc -c) bytes)"
  scripts/oracles.sh
  "$build/bench/msg_bench" --benchmark_min_time=3 --benchmark_out="$out/msg.json" --benchmark_out_format=json
  ours="$("$python" -c 'import json, sys
print([b["real_time"] for b in json.load(open(sys.argv[1]))["benchmarks"] if b["name"] == "BM_RenderEveryCorpusMessage"][0])' \
    "$out/msg.json")"
  reader="$(node bench/msg_msgreader.js 5 "${files[@]}")"
  convert="$(perl bench/msg_msgconvert.pl 2 "${files[@]}")"
  printf '%s\n%s\n' "$reader" "$convert"
  reader="$(grep -o '[0-9.]* ms per pass' <<<"$reader" | cut -d' ' -f1)"
  convert="$(grep -o '[0-9.]* ms per pass' <<<"$convert" | cut -d' ' -f1)"
  awk -v o="$ours" -v r="$reader" -v c="$convert" 'BEGIN {
    printf "wall time per pass, relative to ours (%.1f ms): msgreader %.1fx, msgconvert %.0fx\n", o, r / o, c / o }'
  rm -rf "$out"
}

# Wall time, CPU time (user + system) and peak memory of one run of a command: "WALL CPU MIB", the
# times in seconds. Its output is discarded; a run that fails or is stopped by `timeout` still reports.
time_and_peak() {
  local report
  report="$(mktemp)"
  /usr/bin/time -o "$report" -f '%e %U %S %M' "$@" >/dev/null 2>&1 || true
  awk '/^[0-9.]+ [0-9.]+ [0-9.]+ [0-9]+$/ { printf "%s %.2f %.0f\n", $1, $2 + $3, $4 / 1024 }' "$report"
  rm -f "$report"
}

# TARN_BENCH_STORE names a store made before by the same make-store command, to skip making it again.
bench_export() {
  build_target tarnview make-store
  local dir file out
  dir="$(mktemp -d /tmp/tarn-export-bench.XXXXXX)"
  file="${TARN_BENCH_STORE:-$dir/made.pst}"
  # The documents go to memory (tmpfs) where there is one: creating 56 000 files on a shared virtual
  # disk costs milliseconds each and would time the disk, not the programs.
  out="$dir"
  if [[ -d /dev/shm && -w /dev/shm ]]; then out="$(mktemp -d /dev/shm/tarn-export-bench.XXXXXX)"; fi
  echo "== export: a 1 GiB store from make-store, every message out, beside readpst and pffexport"
  [[ -f "$file" ]] || "$build/tests/tools/make-store" --messages 56000 --folders 20 --body-bytes 8192 "$file" >/dev/null
  echo "store: $(stat -c %s "$file") bytes; load before: $(cut -d' ' -f1-3 /proc/loadavg)"
  cat "$file" >/dev/null  # warm: every figure below reads the file from the page cache
  local -A t
  run() {
    local name="$1"
    shift
    t[$name]="$(time_and_peak "$@")"
    printf '%-36s %8s s wall %8s s CPU %6s MiB\n' "$name" ${t[$name]}
  }
  run "cat" cat "$file"
  run "tarnview list" "$build/tools/tarnview" list "$file"
  run "tarnview list --jobs 1" "$build/tools/tarnview" list --jobs 1 "$file"
  run "tarnview info --message 56000" "$build/tools/tarnview" info "$file" --message 56000
  run "tarnview export" "$build/tools/tarnview" export "$file" -o "$out/export"
  run "tarnview export --jobs 1" "$build/tools/tarnview" export --jobs 1 "$file" -o "$out/export-1"
  run "tarnview export --attachments" "$build/tools/tarnview" export "$file" -o "$out/export-attachments" --attachments
  mkdir "$out/readpst"
  run "readpst -D -r" readpst -q -D -r -o "$out/readpst" "$file"
  # pffexport writes a folder of files per item; it is stopped after 15 minutes.
  run "pffexport -f all -m items" timeout 900 pffexport -q -f all -m items -t "$out/pffexport" "$file"
  echo "documents written: $(find "$out/export" -type f ! -name manifest.jsonl | wc -l)"
  if diff -r "$out/export" "$out/export-1" >/dev/null; then
    echo "one thread and several write the same files"
  else
    echo "one thread and several write DIFFERENT files"
  fi
  echo "load after: $(cut -d' ' -f1-3 /proc/loadavg)"
  read -r ew ec _ <<<"${t[tarnview export]}"
  read -r rw rc _ <<<"${t[readpst -D -r]}"
  read -r lw lc _ <<<"${t[tarnview list]}"
  read -r cw cc _ <<<"${t[cat]}"
  read -r e1w e1c _ <<<"${t[tarnview export --jobs 1]}"
  read -r l1w _ _ <<<"${t[tarnview list --jobs 1]}"
  awk -v ew="$ew" -v ec="$ec" -v rw="$rw" -v rc="$rc" -v lw="$lw" -v cw="$cw" -v e1w="$e1w" -v e1c="$e1c" \
    -v l1w="$l1w" 'BEGIN {
    printf "readpst / export: %.2f wall, %.2f CPU; list / cat: %.2f wall\n", rw / ew, rc / ec, lw / cw
    printf "on one thread: readpst / export: %.2f wall, %.2f CPU; list / cat: %.2f wall\n", rw / e1w, rc / e1c, l1w / cw }'
  rm -rf "$dir" "$out"
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

# The Python module on Dask: 8 copies of a 256 MiB make-store store through one process and through a
# 2-worker LocalCluster (python3-distributed); copies and documents in memory (tmpfs) where there is one.
bench_dask() {
  scripts/deps.sh python
  build_target _tarnpst make-store
  local dir base
  dir="$(mktemp -d /tmp/tarn-dask-bench.XXXXXX)"
  base="$dir"
  if [[ -d /dev/shm && -w /dev/shm ]]; then base="$(mktemp -d /dev/shm/tarn-dask-bench.XXXXXX)"; fi
  "$build/tests/tools/make-store" --messages 14000 --folders 5 --body-bytes 8192 "$dir/made.pst" >/dev/null
  PYTHONPATH="$build/python" "$python" bench/dask_export.py "$dir/made.pst" 8 2 "$base"
  rm -rf "$dir" "$base"
}

bench_pages() {
  scripts/deps.sh layout
  build_target pages_bench tarnview
  local dir f tarnview
  dir="$(mktemp -d)"
  tarnview="$(cd "$build" && pwd)/tools/tarnview"
  # The documents the toolkit's loader gets for twelve corpus Internet messages (HTML and text); RTF
  # goes through LibreOffice either way, so it is left out of this comparison of browser starts.
  for f in $(ls "$shared"/corpus/eml/*.eml | head -n 12); do
    (cd "$dir" && "$tarnview" render "$f" >/dev/null 2>&1) || true
  done
  echo "== pages: the documents of $(ls "$dir" | wc -l) corpus messages laid out as PDF"
  "$build/bench/pages_bench" "$dir"/*.html "$dir"/*.txt
  rm -rf "$dir"
}

# Inputs whose cost once grew with the square of their size, each at four sizes doubling: the release
# tarnview render of each is timed once, and the growth per doubling printed. A growth above 2.2 or a
# largest size above 1 s is flagged. Every run is stopped after TIMEOUT seconds (default 120).
bench_hostile() {
  build_target tarnview make_hostile
  local dir kind n i file seconds mib previous flag
  dir="$(mktemp -d)"
  # kind, its base size, and what the size counts
  local -a kinds=(
    "meta 5000 <meta-without->-in-a-message-file"
    "tree 1000 attachment-storages-in-a-chained-directory"
    "chain 32 attachments-sharing-one-chain-of-N*8KiB"
    "images 2000 images-in-an-Internet-message"
    "words 9000 unclosed-encoded-words-in-a-subject"
    "header 9000 =?-in-a-subject"
  )
  echo "== hostile: release tarnview render, one run per size; x = growth per doubling (flagged: > 2.2x, or > 1 s at the largest)"
  for entry in "${kinds[@]}"; do
    read -r kind n what <<<"$entry"
    previous=""
    printf '%-7s %s\n' "$kind" "${what//-/ }"
    for i in 1 2 3 4; do
      case "$kind" in meta | tree | chain) file="$dir/$kind-$n.msg" ;; *) file="$dir/$kind-$n.eml" ;; esac
      "$build/bench/make_hostile" "$kind" "$n" "$file"
      read -r seconds _ mib <<<"$(time_and_peak timeout "${TIMEOUT:-120}" "$build/tools/tarnview" render "$file" -o "$dir/out")"
      flag=""
      if [[ -n "$previous" ]]; then
        flag="$(awk -v a="$previous" -v b="$seconds" 'BEGIN {
          g = a > 0 ? b / a : 0; printf "%5.2fx", g; if (g > 2.2 && b > 0.05) printf "  FLAG: grows faster than 2.2x" }')"
      fi
      if [[ $i == 4 ]] && awk -v s="$seconds" 'BEGIN { exit !(s >= 1) }'; then flag="$flag  FLAG: over 1 s"; fi
      printf '  N=%-7s %9s bytes %8s s %6s MiB  %s\n' "$n" "$(stat -c %s "$file")" "$seconds" "$mib" "$flag"
      previous="$seconds"
      rm -f "$file" "$dir/out"
      n=$((n * 2))
    done
  done
  rm -rf "$dir"
}

all=(cfb ndb pst ltp header deencapsulate msg eml export hostile dask pages)
for name in "${@:-${all[@]}}"; do
  "bench_$name"
done
