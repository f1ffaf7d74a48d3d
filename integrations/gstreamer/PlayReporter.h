// Reports one play through the library's C interface, in the play-event
// vocabulary: the play header, its actions, the error diagnosis and the
// end-of-play summary.
#ifndef QXLOG_INTEGRATIONS_GSTREAMER_PLAYREPORTER_H_
#define QXLOG_INTEGRATIONS_GSTREAMER_PLAYREPORTER_H_

#include <cstdint>
#include <optional>
#include <string>

#include "QXLog/QXLogPlayEvents.h"
#include "integrations/gstreamer/PlayMeasures.h"

namespace qxlog::gst {

// The host's strings, copied; nothing stays nothing (NULL), apart from "".
struct PlayIdentity {
  std::optional<std::string> movieId;
  std::optional<std::string> viewSource;
  std::optional<std::string> videoType;  // "1" when not given
  bool isDownload = false;
  std::optional<std::string> isPcdn;
};

// What the diagnoses say about the play as a whole. Times in ms since 1970.
struct PlayOutcome {
  std::string url;
  int64_t startTime = 0;
  int64_t endTime = 0;
  std::optional<int64_t> prepareMillis;  // time to the first frame
  std::string definition;                // "" while unknown
};

class PlayReporter {
 public:
  explicit PlayReporter(PlayIdentity identity) : identity_(std::move(identity)) {}

  void start(const std::string& url) const;
  void instant(QXLogPlayOperation operation, QXLogPlayStatus status, int64_t time, int64_t position,
               int64_t playTime = 0);
  void span(QXLogPlayOperation operation, QXLogPlayStatus status, const Span& span);
  // recordDiagnosLog with the error's message as the cause.
  void error(const PlayOutcome& outcome, const std::string& cause) const;
  // One diagnosis with "play_info" and "play_summary" (decimal texts).
  void summary(const PlayOutcome& outcome, const PlaySummary& summary) const;

 private:
  void action(QXLogPlayOperation operation, QXLogPlayStatus status, Span span, int64_t playTime);

  PlayIdentity identity_;
  std::optional<int64_t> lastStartTime_;  // of the last play action reported
};

}  // namespace qxlog::gst

#endif  // QXLOG_INTEGRATIONS_GSTREAMER_PLAYREPORTER_H_
