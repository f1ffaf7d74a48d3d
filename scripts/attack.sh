#!/usr/bin/env bash
# Replays attacks on a real qxlog-collector and prints one table (see
# scripts/attack.py): bombs and oversized structures, connections that try to
# hold every place, the Host check and the API token, the dashboard logging in.
#   scripts/attack.sh        about a minute (QXLOG_ATTACK_SECONDS per connection attack, 10)
set -euo pipefail
cd "$(dirname "$0")/.."
if [[ "${QXLOG_ATTACK_NO_BUILD:-}" != 1 ]]; then
  scripts/install-deps.sh >&2
  cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
  cmake --build build -j "$(nproc 2>/dev/null || echo 2)" --target qxlog-collector qxlog_tests >&2
fi
exec python3 scripts/attack.py build/collector/qxlog-collector build/tests/qxlog_tests
