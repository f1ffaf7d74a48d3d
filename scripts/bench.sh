#!/usr/bin/env bash
# Builds in Release, runs the benchmark suite and the loopback host, and prints
# one table: each figure's median, each ratio computed from medians of the same
# run, its goal and whether it is met.
#   scripts/bench.sh
# Environment:
#   QXLOG_BENCH_DIR          where queue files go (default build-release/bench-data);
#                            must be on a disk file system, not tmpfs
#   QXLOG_BENCH_REPETITIONS  repetitions of each benchmark (default 5)
#   QXLOG_BENCH_RECORDS      reports of the memory run (default 100000)
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
build=build-release
jobs="$(nproc 2>/dev/null || echo 2)"
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DQXLOG_BUILD_BENCH=ON -DQXLOG_BUILD_TESTS=OFF \
  >/dev/null
cmake --build "$build" -j "$jobs" --target qxlog_bench qxlog_bench_host qxlog_bench_journal \
  qxlog_bench_c_report qxlog \
  >/dev/null

data="${QXLOG_BENCH_DIR:-$PWD/$build/bench-data}"
mkdir -p "$data"
fstype="$(findmnt -n -o FSTYPE -T "$data" 2>/dev/null || stat -f -c %T "$data")"
if [[ "$fstype" == tmpfs || "$(stat -f -c %T "$data")" == tmpfs ]]; then
  echo "bench: $data is on tmpfs; set QXLOG_BENCH_DIR to a directory on a disk" >&2
  exit 1
fi
echo "bench: queue files in $data ($fstype)"

out="$build/bench-results"
rm -rf "$out"
mkdir -p "$out"
reps="${QXLOG_BENCH_REPETITIONS:-5}"
records="${QXLOG_BENCH_RECORDS:-100000}"

# A fixed heap trim threshold: without it glibc may hand the top of the heap
# back and fault it in again on every call, depending on where zlib's 256 KiB
# state happens to land, which blurs the envelope and gzip figures alike.
echo "bench: benchmark suite, $reps repetitions"
GLIBC_TUNABLES=glibc.malloc.trim_threshold=268435456 QXLOG_BENCH_DIR="$data" \
  "$build/bench/qxlog_bench" --benchmark_repetitions="$reps" \
  --benchmark_report_aggregates_only=true --benchmark_out="$out/suite.json" \
  --benchmark_out_format=json >/dev/null

host() {  # host <file> <records> <batch>
  QXLOG_BENCH_DIR="$data/host" "$build/bench/qxlog_bench_host" "$2" "$3" >>"$out/$1"
}
echo "bench: loopback host, throughput at batch 1, 20, 100"
host throughput.jsonl 2000 1
host throughput.jsonl 5000 20
host throughput.jsonl 5000 100
echo "bench: loopback host, peak memory at $((records / 10)) and $records reports, batch 20"
host memory.jsonl "$((records / 10))" 20
host memory.jsonl "$records" 20

echo "bench: at least once, reports at backlogs 1 to 50 000 and at batch size 20"
QXLOG_BENCH_DIR="$data" "$build/bench/qxlog_bench_journal" >"$out/journal.jsonl"

echo "bench: one report from C and from Python, at least once, server unreachable"
rm -rf "$data/c-report" "$data/python-report"
QXLOG_CONSOLE=off "$build/bench/qxlog_bench_c_report" "$data/c-report" >>"$out/languages.jsonl"
QXLOG_CONSOLE=off python3 bench/python_report_cost.py "$(ls "$build"/libqxlog.so.1)" \
  "$data/python-report" >>"$out/languages.jsonl"

leaks() {  # leaks <records>
  QXLOG_BENCH_DIR="$data/valgrind" valgrind --leak-check=full --show-leak-kinds=definite \
    --log-file="$out/valgrind-$1.log" "$build/bench/qxlog_bench_host" "$1" 20 0 >/dev/null
}
if command -v valgrind >/dev/null; then
  echo "bench: valgrind leak check at 200 and 2000 reports"
  leaks 200
  leaks 2000
fi

echo
echo "Machine: $(nproc) cores, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | xargs)," \
  "$(uname -sr), queue files on $fstype"
python3 scripts/bench_table.py "$out"
echo
python3 scripts/bench_journal_table.py "$out/journal.jsonl"
