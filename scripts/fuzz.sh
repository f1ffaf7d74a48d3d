#!/usr/bin/env bash
# Builds the libFuzzer harnesses with clang and runs each for a given time.
#   scripts/fuzz.sh [SECONDS] [HARNESS...]     (default 10 s, every harness)
# Each harness starts from its seed corpus in fuzz/corpus/<harness>/ and works
# in build-fuzz/corpus/<harness>/; crashing inputs land in build-fuzz/crashes/.
# Prints one line per harness: executions reached and the outcome.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds="${1:-10}"
shift || true
harnesses=("$@")
if ((${#harnesses[@]} == 0)); then
  harnesses=(queue_file settings_answer upload_answer gzip_inflate collector_decode form_fields
    play_file client_address journal_file api_filter diagnosis_file)
fi

QXLOG_WITH_FUZZ=1 scripts/install-deps.sh >&2
cmake -S fuzz -B build-fuzz -DCMAKE_CXX_COMPILER=clang++ >/dev/null
cmake --build build-fuzz -j "$(nproc 2>/dev/null || echo 2)" >&2

export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
mkdir -p build-fuzz/crashes
status=0
printf '%-18s %12s  %s\n' harness executions outcome
for h in "${harnesses[@]}"; do
  work="build-fuzz/corpus/$h"
  mkdir -p "$work"
  log="build-fuzz/$h.log"
  outcome=clean
  if ! "build-fuzz/fuzz_$h" -max_total_time="$seconds" -print_final_stats=1 -max_len=65536 \
      -rss_limit_mb=2048 -timeout=10 -artifact_prefix="build-fuzz/crashes/$h-" \
      "$work" "fuzz/corpus/$h" >"$log" 2>&1; then
    outcome="FAILED (see $log and build-fuzz/crashes/)"
    status=1
  fi
  runs=$(grep -o 'stat::number_of_executed_units: *[0-9]*' "$log" | grep -o '[0-9]*$' || echo 0)
  printf '%-18s %12s  %s\n' "$h" "${runs:-0}" "$outcome"
done
exit $status
