#!/usr/bin/env bash
# Installs the Debian packages the project builds, tests and benchmarks with.
# Idempotent: only what is missing is installed, and the script says what.
set -euo pipefail

packages=(
  build-essential cmake pkg-config
  zlib1g-dev libssl-dev libcurl4-openssl-dev libplist-dev nlohmann-json3-dev
  libgtest-dev libgmock-dev libbenchmark-dev libsqlite3-dev postgresql libpq-dev nginx
  python3 openssl valgrind
  libglib2.0-dev libmicrohttpd-dev libjs-chart.js chromium
  libgstreamer1.0-dev libgstreamer-plugins-base1.0-dev libmpv-dev
  gstreamer1.0-plugins-base gstreamer1.0-plugins-good
  gstreamer1.0-tools gstreamer1.0-plugins-bad gstreamer1.0-libav
)
if [[ "${QXLOG_WITH_FUZZ:-0}" == 1 ]]; then
  packages+=(clang libclang-rt-14-dev)
fi

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if ((${#missing[@]} == 0)); then
  echo "install-deps: all ${#packages[@]} packages present"
  exit 0
fi

echo "install-deps: installing ${missing[*]}"
sudo_cmd=()
if [[ $(id -u) -ne 0 ]]; then sudo_cmd=(sudo); fi
export DEBIAN_FRONTEND=noninteractive
"${sudo_cmd[@]}" apt-get update -qq
"${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
echo "install-deps: done"
