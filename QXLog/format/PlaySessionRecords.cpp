#include "QXLog/format/PlaySessionRecords.h"

#include <algorithm>

#include "QXLog/platform/Env.h"
#include "QXLog/serial/PropertyList.h"
#include "QXLog/serial/Text.h"
#include "QXLog/support/Time.h"

namespace qxlog::format {
namespace {

std::string decimal(int64_t value) {
  return serial::formatInteger(value);
}

std::string definitionOf(int height) {
  return height > 0 ? decimal(height) + "p" : "";
}

std::string orEmpty(const NullableString& text) {
  return text.value_or("");
}

bool isString(const Value* value, std::string_view text) {
  return value != nullptr && value->asString() != nullptr && *value->asString() == text;
}

bool allStrings(const Value* value) {
  if (value == nullptr || !value->isDictionary()) return false;
  const Dictionary& fields = *value->asDictionary();
  return std::all_of(fields.begin(), fields.end(),
                     [](const auto& field) { return field.second.asString() != nullptr; });
}

// A report as playSummaryReport writes it, of play `playId`.
bool isReportOf(const Value& report, std::string_view playId) {
  if (!report.isDictionary()) return false;
  const Dictionary& parts = *report.asDictionary();
  const Value* summary = parts.find("play_summary");
  return parts.size() == 2 && allStrings(parts.find("play_info")) && allStrings(summary) &&
         isString(summary->asDictionary()->find(kPlayIdKey), playId);
}

}  // namespace

Dictionary playSessionAction(const QXLogMessageFormat& format, const PlayAction& action) {
  const std::string recordTime =
      format.returnsSendTime(static_cast<double>(support::currentMillis(format.env().clock())));
  // The play time travels offset by 2000 ms and never below 0, as in every
  // play-action record.
  const int64_t total = std::max<int64_t>(action.playTime, -2000) + 2000;
  const bool change = action.operation == QXLogPlayOperationQualityChange;
  Dictionary record;
  record.reserve(change ? 12 : 9);
  record.setString("p_0", recordTime);
  record.setString("p_1", "1");
  record.setString("p_2", QXLogPlayOperationText(action.operation));
  record.setString("p_3", QXLogPlayStatusText(action.status));
  record.setString("p_4", decimal(action.span.startTime));
  record.setString("p_5", decimal(action.span.endTime));
  record.setString("p_6", decimal(action.span.startPosition));
  record.setString("p_7", decimal(action.span.endPosition));
  record.setString("p_8", decimal(total));
  if (change) {
    record.setString(kFromHeightKey, decimal(action.fromHeight));
    record.setString(kToHeightKey, decimal(action.toHeight));
    record.setString(kBitrateKey, decimal(action.bitrate));
  }
  return record;
}

PlayErrorReport playErrorReport(const PlayDescription& play, const PlayTimeline& timeline,
                                const std::string& cause, int64_t now) {
  const auto startup = timeline.startupMillis();
  return PlayErrorReport{orEmpty(play.url),
                         cause,
                         decimal(timeline.requestTime()),
                         decimal(now),
                         startup ? decimal(*startup) : "",
                         decimal(now - timeline.requestTime()),
                         definitionOf(timeline.height())};
}

Dictionary playSummaryReport(const PlayDescription& play, const PlayTimeline& timeline,
                             const std::string& cause, int64_t now, bool endedByRestart) {
  const PlaySummary summary = timeline.summary().value_or(PlaySummary{});
  const PlayErrorReport base = playErrorReport(play, timeline, summary.failed ? cause : "", now);
  Dictionary info = makeStringDictionary({{"playUrl", base.url},
                                          {"decodeType", "1"},
                                          {"definition", base.definition},
                                          {"isPlayOK", summary.failed ? "0" : "1"},
                                          {"causeOfFailure", base.cause},
                                          {"startTime", base.startTime},
                                          {"prepareTime", base.prepareTime},
                                          {"endTime", base.endTime},
                                          {"duration", base.duration}});
  Dictionary figures =
      makeStringDictionary({{kPlayIdKey, play.playId},
                            {"movie_id", orEmpty(play.movieId)},
                            {"video_type", play.videoType.value_or("1")},
                            {"view_source", orEmpty(play.viewSource)},
                            {"url", orEmpty(play.url)},
                            {"cause", base.cause},
                            {"startup_ms", decimal(summary.startupMillis)},
                            {"rebuffer_count", decimal(summary.rebufferCount)},
                            {"rebuffer_ms", decimal(summary.rebufferMillis)},
                            {"seek_count", decimal(summary.seekCount)},
                            {"seek_avg_ms", decimal(summary.seekAverageMillis)},
                            {"played_ms", decimal(summary.playedMillis)},
                            {"exit_before_start", summary.exitBeforeStart ? "1" : "0"},
                            {"failed", summary.failed ? "1" : "0"},
                            {"rendition_switches", decimal(summary.renditionSwitches)},
                            {"average_bitrate_bps", decimal(summary.averageBitrate)},
                            {"top_height", decimal(summary.topHeight)},
                            {"ended_by_restart", endedByRestart ? "1" : "0"}});
  Dictionary report;
  report.set("play_info", Value(std::move(info)));
  report.set("play_summary", Value(std::move(figures)));
  return report;
}

std::optional<RecoveredPlay> recoveredPlay(std::string_view bytes, std::string_view playId) {
  if (bytes.empty() || bytes.size() > kMaxPlayFileBytes) return std::nullopt;
  std::optional<Value> root = serial::parsePropertyList(bytes);
  if (!root || !root->isDictionary()) return std::nullopt;
  RecoveredPlay play{std::move(*root->asDictionary()), std::nullopt};
  if (!isString(play.record.find(kPlayIdKey), playId)) return std::nullopt;
  if (const Value* report = play.record.find(kRestartReportKey)) {
    if (isReportOf(*report, playId)) play.report = *report->asDictionary();
    play.record.erase(kRestartReportKey);
  }
  const Value* actions = play.record.find("p");
  if (actions == nullptr || !actions->isArray()) return std::nullopt;
  const Array& list = *actions->asArray();
  if (list.size() > kMaxPlayFileActions || (list.empty() && !play.report)) return std::nullopt;
  for (const Value& action : list) {
    if (!action.isDictionary()) return std::nullopt;
  }
  return play;
}

}  // namespace qxlog::format
