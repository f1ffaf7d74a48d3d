#!/usr/bin/env bash
# Fails on an include that points up a layer of the library. The layers, from
# the top: recording (the C interface and the reporting functions), center,
# format, support, platform (what talks to the operating system) and serial
# (the serialisers: JSON, property lists, text, form and percent encoding). A
# file may include its own layer and those below. Public headers belong to the layer of what they declare: QXLog.h and QXLogPlay.h to
# recording, QXLogCenter.h to center, QXLogMessageFormat.h to format,
# QXLogHelper.h to support, QXLogExecutor.h to platform, QXLogValue.h to serial.
set -euo pipefail
cd "$(dirname "$0")/.."

layer() {  # layer <path inside the repository>
  case "$1" in
    QXLog/recording/* | QXLog/QXLog.h | QXLog/QXLogPlay.h) echo 5 ;;
    QXLog/center/* | QXLog/QXLogCenter.h) echo 4 ;;
    QXLog/format/* | QXLog/QXLogMessageFormat.h) echo 3 ;;
    QXLog/support/* | QXLog/QXLogHelper.h) echo 2 ;;
    QXLog/platform/* | QXLog/QXLogExecutor.h) echo 1 ;;
    QXLog/serial/* | QXLog/QXLogValue.h) echo 0 ;;
    *) echo -1 ;;
  esac
}
name() {
  case "$1" in 5) echo recording ;; 4) echo center ;; 3) echo format ;; 2) echo support ;; 1) echo platform ;; *) echo serial ;; esac
}

violations=0
while IFS= read -r file; do
  from=$(layer "$file")
  while IFS= read -r included; do
    to=$(layer "$included")
    if ((to > from)); then
      echo "check-layers: $file ($(name "$from")) includes $included ($(name "$to"))"
      violations=$((violations + 1))
    fi
  done < <(sed -n 's|^#include "\(QXLog/[^"]*\)".*|\1|p' "$file")
done < <(git ls-files -co --exclude-standard 'QXLog/*.h' 'QXLog/*.cpp')

# Each public class has one home: its members are defined in its own
# layer's folder and nowhere else, so no layer defines what another declares
# (and none below the center can read the center through a member it defines).
home_violations=0
for pair in QXLogCenter:center QXLogMessageFormat:format QXLogHelper:support; do
  class=${pair%%:*}
  home=QXLog/${pair#*:}/
  while IFS= read -r hit; do
    echo "check-layers: ${hit%%:*} defines a member of $class outside $home"
    home_violations=$((home_violations + 1))
  done < <(git ls-files -co --exclude-standard 'QXLog/*.cpp' 'QXLog/*.h' | grep -v "^$home" \
    | xargs -r grep -HnE "^[A-Za-z_][^=]*(^|[ *&])$class::~?[A-Za-z_][A-Za-z0-9_]*\(" || true)
done

if ((violations > 0 || home_violations > 0)); then
  ((violations > 0)) && echo "check-layers: $violations includes point up a layer"
  ((home_violations > 0)) && echo "check-layers: $home_violations member definitions outside their class's folder"
  exit 1
fi
echo "check-layers: every include points down or sideways; every member is defined at home"
