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
// renditions, all decimal texts).
Dictionary playSummaryReport(const PlayDescription& play, const PlayTimeline& timeline,
                             const std::string& cause, int64_t now);

// A play's file: its header copy with its pending actions under "p".
// Files larger than this, or with more actions, are not read back.
inline constexpr std::size_t kMaxPlayFileBytes = 4u << 20;
inline constexpr std::size_t kMaxPlayFileActions = 1000;
// The record a play's file holds, when it is one of play `playId` (a
// dictionary whose "play_id" is that id and whose "p" is a non-empty array of
// dictionaries, within the bounds above); nothing otherwise.
std::optional<Dictionary> recoveredPlay(std::string_view bytes, std::string_view playId);

}  // namespace qxlog::format

#endif  // QXLOG_FORMAT_PLAYSESSIONRECORDS_H_
