#!/usr/bin/env bash
# Installs the library from a build tree into a temporary prefix, then builds
# and runs a small C program against it twice: through find_package(QXLog)
# and through pkg-config.
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

cmake --install "$build" --prefix "$prefix" --component library >/dev/null

cmake -S "$consumer" -B "$work/cmake" -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_C_FLAGS="$flags" -DCMAKE_EXE_LINKER_FLAGS="$flags" >/dev/null
cmake --build "$work/cmake" >/dev/null
"$work/cmake/consumer"

pc_dir="$(dirname "$(find "$prefix" -name qxlog.pc -print -quit)")"
export PKG_CONFIG_PATH="$pc_dir"
# shellcheck disable=SC2046,SC2086
cc -std=c11 $flags -o "$work/pkgconfig-consumer" "$consumer/consumer.c" \
  $(pkg-config --cflags --libs qxlog) -Wl,-rpath,"$(pkg-config --variable=libdir qxlog)"
"$work/pkgconfig-consumer"

# A C program on the static library, with the linker language left at C.
cmake -S "$consumer/static" -B "$work/cmake-static" -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_C_FLAGS="$flags" -DCMAKE_EXE_LINKER_FLAGS="$flags" >/dev/null
cmake --build "$work/cmake-static" >/dev/null
"$work/cmake-static/static-consumer"
# shellcheck disable=SC2046,SC2086
cc -std=c11 $flags -o "$work/pkgconfig-static-consumer" "$consumer/consumer.c" \
  $(pkg-config --cflags --libs qxlog-static)
"$work/pkgconfig-static-consumer"

# The C++ headers stand on their own in the installed tree.
printf '#include <QXLog/QXLogCenter.h>\n#include <QXLog/QXLogHelper.h>\n#include <QXLog/QXLogExecutor.h>\nint main() { return 0; }\n' \
  >"$work/headers.cpp"
c++ -std=c++20 -fsyntax-only $(pkg-config --cflags qxlog) "$work/headers.cpp"
# The GStreamer adapter's component, when it was built: its CMake component
# and its pkg-config file bring GStreamer and the library.
if [[ -e "$build/integrations/gstreamer/libqxlog-gst.so" ]]; then
  cmake --install "$build" --prefix "$prefix" --component gstreamer >/dev/null
  cmake -S "$consumer/gst" -B "$work/cmake-gst" -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_C_FLAGS="$flags" -DCMAKE_EXE_LINKER_FLAGS="$flags" >/dev/null
  cmake --build "$work/cmake-gst" >/dev/null
  # shellcheck disable=SC2046,SC2086
  cc -std=c11 $flags -o "$work/gst-consumer" "$consumer/gst_consumer.c" \
    $(pkg-config --cflags --libs qxlog-gst) -Wl,-rpath,"$(pkg-config --variable=libdir qxlog-gst)"
  # libqxlog-gst finds libqxlog beside itself, in any prefix.
  if [[ -z "$sanitize" ]]; then
    "$work/gst-consumer"
    "$work/cmake-gst/gst-consumer"
  fi
fi
# The libmpv adapter's component, likewise.
if [[ -e "$build/integrations/mpv/libqxlog-mpv.so" ]]; then
  cmake --install "$build" --prefix "$prefix" --component mpv >/dev/null
  cmake -S "$consumer/mpv" -B "$work/cmake-mpv" -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_C_FLAGS="$flags" -DCMAKE_EXE_LINKER_FLAGS="$flags" >/dev/null
  cmake --build "$work/cmake-mpv" >/dev/null
  # shellcheck disable=SC2046,SC2086
  cc -std=c11 $flags -o "$work/mpv-consumer" "$consumer/mpv_consumer.c" \
    $(pkg-config --cflags --libs qxlog-mpv) -Wl,-rpath,"$(pkg-config --variable=libdir qxlog-mpv)"
  if [[ -z "$sanitize" ]]; then
    "$work/mpv-consumer"
    "$work/cmake-mpv/mpv-consumer"
  fi
fi
echo "check_install: the installed package builds and links (CMake and pkg-config, shared and static)"
