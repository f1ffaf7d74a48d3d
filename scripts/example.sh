#!/usr/bin/env bash
# Installs what is missing, builds, and runs the example host.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j "$(nproc 2>/dev/null || echo 2)" --target qxlog_minimal_host
documents="$(mktemp -d)"
trap 'rm -rf "$documents"' EXIT
build/examples/qxlog_minimal_host "$documents"
