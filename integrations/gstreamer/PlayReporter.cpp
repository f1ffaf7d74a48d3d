#include "integrations/gstreamer/PlayReporter.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "QXLog/QXLog.h"

namespace qxlog::gst {
namespace {

const char* orNull(const std::optional<std::string>& text) {
  return text ? text->c_str() : nullptr;
}

std::string decimal(int64_t value) {
  return std::to_string(value);
}

nlohmann::json playInfo(const PlayOutcome& outcome, bool ok, const std::string& cause) {
  return {{"playUrl", outcome.url},
          {"decodeType", "1"},
          {"definition", outcome.definition},
          {"isPlayOK", ok ? "1" : "0"},
          {"causeOfFailure", cause},
          {"startTime", decimal(outcome.startTime)},
          {"prepareTime", outcome.prepareMillis ? decimal(*outcome.prepareMillis) : ""},
          {"endTime", decimal(outcome.endTime)},
          {"duration", decimal(outcome.endTime - outcome.startTime)}};
}

nlohmann::json summaryObject(const PlaySummary& summary) {
  return {{"startup_ms", decimal(summary.startupMillis)},
          {"rebuffer_count", decimal(summary.rebufferCount)},
          {"rebuffer_ms", decimal(summary.rebufferMillis)},
          {"seek_count", decimal(summary.seekCount)},
          {"seek_avg_ms", decimal(summary.seekAverageMillis)},
          {"played_ms", decimal(summary.playedMillis)},
          {"exit_before_start", summary.exitBeforeStart ? "1" : "0"},
          {"failed", summary.failed ? "1" : "0"}};
}

}  // namespace

void PlayReporter::start(const std::string& url) const {
  recordPlayLog(orNull(identity_.movieId), url.c_str(), orNull(identity_.viewSource),
                identity_.isDownload, orNull(identity_.isPcdn),
                identity_.videoType ? identity_.videoType->c_str() : "1");
}

// The library drops a buffering record whose start time repeats the previous
// record's, as the repeat of one span. A span that began in the millisecond
// of the previous record (a first frame, say) is another span: it is
// reported as beginning one millisecond later.
void PlayReporter::action(QXLogPlayOperation operation, QXLogPlayStatus status, Span span,
                          int64_t playTime) {
  if (operation == QXLogPlayOperationBuffering && lastStartTime_ == span.startTime) {
    ++span.startTime;
    span.endTime = std::max(span.endTime, span.startTime);
  }
  lastStartTime_ = span.startTime;
  recordPlayActionLog(QXLogPlayOperationText(operation), QXLogPlayStatusText(status),
                      decimal(span.startTime).c_str(), decimal(span.endTime).c_str(),
                      decimal(span.startPosition).c_str(), decimal(span.endPosition).c_str(),
                      decimal(playTime).c_str());
}

void PlayReporter::instant(QXLogPlayOperation operation, QXLogPlayStatus status, int64_t time,
                           int64_t position, int64_t playTime) {
  action(operation, status, Span{time, time, position, position}, playTime);
}

void PlayReporter::span(QXLogPlayOperation operation, QXLogPlayStatus status, const Span& span) {
  action(operation, status, span, span.millis());
}

void PlayReporter::error(const PlayOutcome& outcome, const std::string& cause) const {
  const std::string prepare = outcome.prepareMillis ? decimal(*outcome.prepareMillis) : "";
  recordDiagnosLog(outcome.url.c_str(), cause.c_str(), decimal(outcome.startTime).c_str(),
                   decimal(outcome.endTime).c_str(), prepare.c_str(),
                   decimal(outcome.endTime - outcome.startTime).c_str(), "0",
                   outcome.definition.c_str());
}

void PlayReporter::summary(const PlayOutcome& outcome, const PlaySummary& summary) const {
  const nlohmann::json report = {{"play_info", playInfo(outcome, !summary.failed, "")},
                                 {"play_summary", summaryObject(summary)}};
  QXLogDictionary* dictionary = QXLogDictionaryCreateWithJSON(
      report.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
  recordDiagnosCompleteLog(dictionary);
  QXLogDictionaryRelease(dictionary);
}

}  // namespace qxlog::gst
