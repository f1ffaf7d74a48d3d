#!/usr/bin/env bash
# Runs the suite under AddressSanitizer with UndefinedBehaviorSanitizer, then
# under ThreadSanitizer.
set -euo pipefail
cd "$(dirname "$0")/.."
export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
export TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1"
QXLOG_SANITIZE=address,undefined scripts/test.sh
QXLOG_SANITIZE=thread scripts/test.sh
