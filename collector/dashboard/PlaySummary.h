// The end-of-play summary that a player adapter sends as a diagnosis: one
// object under "play_summary" in the diagnosis report. These are the keys the
// dashboard reads; all values are decimal texts, times in milliseconds.
#ifndef QXLOG_COLLECTOR_DASHBOARD_PLAYSUMMARY_H_
#define QXLOG_COLLECTOR_DASHBOARD_PLAYSUMMARY_H_

namespace qxlog::collector::play_summary {

inline constexpr const char* kObject = "play_summary";
inline constexpr const char* kStartupMillis = "startup_ms";      // request to first frame
inline constexpr const char* kRebufferCount = "rebuffer_count";  // buffering spans
inline constexpr const char* kRebufferMillis = "rebuffer_ms";    // their total
inline constexpr const char* kSeekCount = "seek_count";
inline constexpr const char* kSeekAverageMillis = "seek_avg_ms";
inline constexpr const char* kPlayedMillis = "played_ms";             // time frames were shown
inline constexpr const char* kExitBeforeStart = "exit_before_start";  // "1" or "0"
inline constexpr const char* kFailed = "failed";                      // "1" or "0"

}  // namespace qxlog::collector::play_summary

#endif  // QXLOG_COLLECTOR_DASHBOARD_PLAYSUMMARY_H_
