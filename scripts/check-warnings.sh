#!/usr/bin/env bash
# Compiles every library source (syntax and front-end warnings only, no
# objects) with -Wshadow -Wconversion -Werror on top of the build's
# -Wall -Wextra. The build is configured as an embedding host would have it:
# no tests, tools or examples, so it also checks that the library alone
# configures without the collector's dependencies.
set -euo pipefail
cd "$(dirname "$0")/.."
build=build-warnings
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Debug -DCMAKE_EXPORT_COMPILE_COMMANDS=ON \
  -DQXLOG_BUILD_TESTS=OFF -DQXLOG_BUILD_TOOLS=OFF -DQXLOG_BUILD_EXAMPLES=OFF >/dev/null
python3 - "$build/compile_commands.json" <<'PY' | xargs -0 -n 1 -P "$(nproc 2>/dev/null || echo 2)" bash -c
import json, shlex, sys
for entry in json.load(open(sys.argv[1])):
    if "/QXLog/" not in entry["file"] or "/integrations/" in entry["file"]:
        continue
    words = shlex.split(entry["command"])
    if "-o" in words:
        at = words.index("-o")
        del words[at:at + 2]
    words += ["-fsyntax-only", "-Wshadow", "-Wconversion", "-Werror"]
    sys.stdout.write("cd %s && %s\0" % (shlex.quote(entry["directory"]), shlex.join(words)))
PY
echo "check-warnings: the library compiles with -Wshadow -Wconversion -Werror"
