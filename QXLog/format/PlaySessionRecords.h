// The records of a play reported through the play API (QXLogPlay.h): its
// actions, in the play-action record's keys, and the end-of-play report with
// the figures a team groups plays by.
#ifndef QXLOG_FORMAT_PLAYSESSIONRECORDS_H_
#define QXLOG_FORMAT_PLAYSESSIONRECORDS_H_

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "QXLog/QXLogMessageFormat.h"
#include "QXLog/QXLogValue.h"
#include "QXLog/format/PlayTimeline.h"

namespace qxlog::format {

// The key that carries a play's id, in each copy of its header and in its
// end-of-play report.
inline constexpr const char* kPlayIdKey = "play_id";
// The extra keys of a quality-change action: the height shown before, the
// height and the bitrate (bits/s) shown now; "0" when unknown.
inline constexpr const char* kFromHeightKey = "from_height";
inline constexpr const char* kToHeightKey = "to_height";
inline constexpr const char* kBitrateKey = "bitrate_bps";

// What the host said about the play when it began.
struct PlayDescription {
  std::string playId;
  NullableString movieId;
  NullableString url;
  NullableString viewSource;
  NullableString videoType;  // nil: "1"
  bool isDownload = false;
  NullableString isPcdn;
};

// "p_0" to "p_8" as recordPlayActionLog writes them (the record time, "1",
// operation, status, times, positions, play time + 2000 never below 0), plus
// the rendition of a quality change.
Dictionary playSessionAction(const QXLogMessageFormat& format, const PlayAction& action);

// An error report's nine figures, in recordDiagnosLog's order: the play URL,
// the cause, its start, end, prepare time, duration, "0" and the definition.
struct PlayErrorReport {
  std::string url, cause, startTime, endTime, prepareTime, duration, definition;
};
PlayErrorReport playErrorReport(const PlayDescription& play, const PlayTimeline& timeline,
                                const std::string& cause, int64_t now);

// The end-of-play report of an ended timeline: "play_info" (the diagnosis's
// fields) and "play_summary" (id, what was played, the measures and the
// renditions, all decimal texts). `endedByRestart`: the play's run stopped
// before the play ended, and the next run sends the report
// ("ended_by_restart" "1").
Dictionary playSummaryReport(const PlayDescription& play, const PlayTimeline& timeline,
                             const std::string& cause, int64_t now, bool endedByRestart = false);

// A play's file: its header copy with its pending actions under "p" (maybe
// none), and under kRestartReportKey the report its play would end with if
// its run stopped now. Files larger than this, or with more actions, are not
// read back.
inline constexpr std::size_t kMaxPlayFileBytes = 4u << 20;
inline constexpr std::size_t kMaxPlayFileActions = 1000;
inline constexpr const char* kRestartReportKey = "report_if_restarted";

struct RecoveredPlay {
  Dictionary record;                 // the header copy with its actions, the report taken out
  std::optional<Dictionary> report;  // "play_info" and "play_summary" of the same play
};
// What a play's file holds, when it is one of play `playId`: a dictionary
// whose "play_id" is that id and whose "p" is an array of dictionaries within
// the bounds above, with at least one action or a report. A report whose
// "play_summary" is not of that play, or holds anything but strings, is left
// out. Nothing otherwise.
std::optional<RecoveredPlay> recoveredPlay(std::string_view bytes, std::string_view playId);

}  // namespace qxlog::format

#endif  // QXLOG_FORMAT_PLAYSESSIONRECORDS_H_
