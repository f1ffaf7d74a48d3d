#!/usr/bin/env bash
# Checks the library's locking with clang's thread-safety analysis: every
# library source is compiled (syntax and analysis only, no objects) with
# -Wthread-safety -Werror. Needs clang (QXLOG_WITH_FUZZ=1 scripts/install-deps.sh).
set -euo pipefail
cd "$(dirname "$0")/.."
build=build-locks
CXX=clang++ cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Debug -DCMAKE_EXPORT_COMPILE_COMMANDS=ON \
  >/dev/null
python3 - "$build/compile_commands.json" <<'PY' | xargs -0 -n 1 -P "$(nproc 2>/dev/null || echo 2)" bash -c
import json, shlex, sys
for entry in json.load(open(sys.argv[1])):
    if "/QXLog/" not in entry["file"] or "/tests/" in entry["file"]:
        continue
    words = shlex.split(entry["command"])
    if "-o" in words:
        at = words.index("-o")
        del words[at:at + 2]
    words += ["-fsyntax-only", "-Wthread-safety", "-Werror"]
    sys.stdout.write("cd %s && %s\0" % (shlex.quote(entry["directory"]), shlex.join(words)))
PY
echo "check-locks: the library's locks pass clang's thread-safety analysis"
