// One play as a player tells it: the states it goes through, its renditions,
// an error and its end, turned into the play actions of QXLogPlayEvents.h and
// the measures of its summary. Not thread-safe: the owner locks.
#ifndef QXLOG_FORMAT_PLAYTIMELINE_H_
#define QXLOG_FORMAT_PLAYTIMELINE_H_

#include <cstdint>
#include <optional>
#include <vector>

#include "QXLog/QXLogPlayEvents.h"
#include "QXLog/format/PlayMeasures.h"

namespace qxlog::format {

// What the player is doing, as the host sees it (QXLogPlayerState).
enum class PlayerState { kStarting = 0, kPlaying = 1, kPaused = 2, kBuffering = 3, kSeeking = 4 };

// One play action: an instant (start, pause, resume, quality change, error,
// end) has equal start and end; a span (first frame, buffering, seek) has its
// duration as the play time; an end or an error has the ms played in all.
struct PlayAction {
  QXLogPlayOperation operation = QXLogPlayOperationStart;
  QXLogPlayStatus status = QXLogPlayStatusStopped;
  Span span;
  int64_t playTime = 0;
  // A quality change: the height shown before, and the rendition shown now.
  int fromHeight = 0;
  int toHeight = 0;
  int64_t bitrate = 0;
};

class PlayTimeline {
 public:
  // The play requested at `now`: a start action.
  explicit PlayTimeline(int64_t now);

  // Each call returns the actions it produced, in order; nothing once ended.
  std::vector<PlayAction> setState(PlayerState state, int64_t now, int64_t position);
  std::vector<PlayAction> rendition(int height, int64_t bitrate, int64_t now, int64_t position);
  // Playback failed: it ends here with an error action.
  std::vector<PlayAction> fail(int64_t now, int64_t position);
  // The host ended the play: an end action, unless an error ended it.
  std::vector<PlayAction> end(int64_t now, int64_t position);
  // The start action, produced by the constructor.
  std::vector<PlayAction> takeStart();

  bool ended() const { return summary_.has_value(); }
  // Set once ended.
  const std::optional<PlaySummary>& summary() const { return summary_; }
  std::optional<int64_t> startupMillis() const { return measures_.startupMillis(); }
  int height() const { return measures_.height(); }
  int64_t requestTime() const { return requestTime_; }

 private:
  QXLogPlayStatus status() const;
  void closeBuffering(std::vector<PlayAction>& out, int64_t now, int64_t position);
  void closeSeek(std::vector<PlayAction>& out, int64_t now, int64_t position);
  void finish(std::vector<PlayAction>& out, QXLogPlayOperation operation, int64_t now,
              int64_t position, bool failed);

  int64_t requestTime_;
  PlayMeasures measures_;
  PlayerState state_ = PlayerState::kStarting;
  bool paused_ = false;  // a pause reported and not yet resumed
  std::optional<PlaySummary> summary_;
  std::vector<PlayAction> start_;
};

}  // namespace qxlog::format

#endif  // QXLOG_FORMAT_PLAYTIMELINE_H_
