#!/usr/bin/env bash
# Installs what is missing, builds, and runs the demo host against a local
# collector that prints, decoded, everything it receives. Extra arguments go
# to qxlog-demo (--server URL, --key KEY, --db PATH, --trace, ...).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
# Everything `cmake --install build` installs: the libraries and the tools.
cmake --build build -j "$(nproc 2>/dev/null || echo 2)" --target qxlog qxlog_static qxlog-demo \
  qxlog-collector qxlog-decode
build/examples/qxlog-demo "$@"
