#!/usr/bin/env bash
# Measures the GStreamer adapter against independent ground truth: the video
# sink's frames, the media server's log of its stall and the host's marks
# (bench/PlayTruth.cpp). Plays a generated clip from
# disk, the same clip over a media server that stalls for 2.5 s, and an HLS
# stream of two renditions, in real time, and prints one row per figure and
# run, then whether every goal was met in every run.
#   scripts/play-truth.sh            3 runs (about a minute)
#   scripts/play-truth.sh --short    1 run
# Goals: startup within max(100 ms, 25 %), rebuffer count exact and duration
# within 40 %, played time within max(300 ms, 10 %), the rendition switch
# reported with both heights.
set -euo pipefail
cd "$(dirname "$0")/.."

runs=3
if [[ "${1:-}" == "--short" ]]; then runs=1; fi

scripts/install-deps.sh >&2
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQXLOG_BUILD_BENCH=ON >/dev/null
cmake --build build -j 2 --target qxlog_gst_truth >&2
if [[ ! -x build/bench/qxlog_gst_truth ]]; then
  echo "play truth: skipped (built without GStreamer)"
  exit 0
fi

status=0
printf '%-4s %-6s %-16s %10s %10s  %-16s %s\n' run case figure reported truth goal outcome
for run in $(seq 1 "$runs"); do
  log=$(build/bench/qxlog_gst_truth 2>&1) || status=1
  grep '^truth: ' <<<"$log" | while read -r _ name figure rest; do
    if [[ "$figure" == server-held_ms || "$figure" == request-blocked_ms || "$figure" == playing-reached_ms ]]; then
      printf '%-4s %-6s %-16s %10s\n' "$run" "$name" "$figure" "${rest%% *}"
      continue
    fi
    read -r _ reported _ truth _ goal outcome <<<"$rest"
    printf '%-4s %-6s %-16s %10s %10s  %-16s %s\n' "$run" "$name" "$figure" "$reported" "$truth" \
      "$goal" "$outcome"
  done
done
if ((status)); then echo "play truth: a goal was not met (rows marked NOT MET)"; else
  echo "play truth: every goal met in $runs run(s)"; fi
exit $status
