#!/usr/bin/env bash
# Installs what is missing, builds, and runs the whole test suite.
#   scripts/test.sh            the default build
#   QXLOG_SANITIZE=address,undefined scripts/test.sh   (or =thread) a sanitizer build
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh

sanitize="${QXLOG_SANITIZE:-}"
build="build${sanitize:+-${sanitize//,/-}}"
jobs="$(nproc 2>/dev/null || echo 2)"

cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQXLOG_SANITIZE="$sanitize" >/dev/null
cmake --build "$build" -j "$jobs"
ctest --test-dir "$build" --output-on-failure -j "$jobs"
