#!/usr/bin/env bash
# Installs the library from a build tree into a temporary prefix, then builds
# and runs small C programs against it: through find_package(QXLog) and
# through pkg-config, on the shared and the static library, and on each
# adapter's component that was built.
#   check_install.sh BUILD-DIR CONSUMER-SOURCE-DIR [SANITIZERS]
set -euo pipefail
build="$1"
consumer="$2"
sanitize="${3:-}"
flags=""
if [[ -n "$sanitize" ]]; then flags="-fsanitize=$sanitize -fno-omit-frame-pointer"; fi

work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
prefix="$work/prefix"

# Builds the CMake project in `consumer/$1` and runs its program `$2` (unless $3 is "no-run").
through_cmake() {
  cmake -S "$consumer/$1" -B "$work/cmake-$2" -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_C_FLAGS="$flags" -DCMAKE_EXE_LINKER_FLAGS="$flags" >/dev/null
  cmake --build "$work/cmake-$2" >/dev/null
  if [[ "${3:-}" != no-run ]]; then "$work/cmake-$2/$2"; fi
}
# Builds `consumer/$1` with the flags of pkg-config package `$2` and runs it
# (unless $3 is "no-run"); a shared library is found through its rpath.
through_pkg_config() {
  local rpath=""
  if [[ "$2" != *-static ]]; then rpath="-Wl,-rpath,$(pkg-config --variable=libdir "$2")"; fi
  # shellcheck disable=SC2046,SC2086
  cc -std=c11 $flags -o "$work/pc-$2" "$consumer/$1" $(pkg-config --cflags --libs "$2") $rpath
  if [[ "${3:-}" != no-run ]]; then "$work/pc-$2"; fi
}

cmake --install "$build" --prefix "$prefix" --component library >/dev/null
PKG_CONFIG_PATH="$(dirname "$(find "$prefix" -name qxlog.pc -print -quit)")"
export PKG_CONFIG_PATH
through_cmake . consumer
through_pkg_config consumer.c qxlog
# A C program on the static library, with the linker language left at C.
through_cmake static static-consumer
through_pkg_config consumer.c qxlog-static

# The C++ headers stand on their own in the installed tree.
printf '#include <QXLog/QXLogCenter.h>\n#include <QXLog/QXLogHelper.h>\n#include <QXLog/QXLogExecutor.h>\nint main() { return 0; }\n' \
  >"$work/headers.cpp"
# shellcheck disable=SC2046
c++ -std=c++20 -fsyntax-only $(pkg-config --cflags qxlog) "$work/headers.cpp"

# Each adapter's component, when it was built: its CMake component and its
# pkg-config file bring the player library and QXLog, which the adapter finds
# beside itself in any prefix. Sanitizer builds only link them: the players'
# own libraries are not instrumented.
run=""
if [[ -n "$sanitize" ]]; then run=no-run; fi
for adapter in gst mpv; do
  dir=$([[ $adapter == gst ]] && echo gstreamer || echo mpv)
  if [[ -e "$build/integrations/$dir/libqxlog-$adapter.so" ]]; then
    cmake --install "$build" --prefix "$prefix" --component "$dir" >/dev/null
    through_cmake "$adapter" "$adapter-consumer" $run
    through_pkg_config "${adapter}_consumer.c" "qxlog-$adapter" $run
  fi
done
echo "check_install: the installed package builds and links (CMake and pkg-config, shared and static)"
