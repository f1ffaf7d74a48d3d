// One play of the play API: its timeline, its header copy carrying its id,
// and the actions not yet sent, mirrored in the play's own file together with
// the report the play would end with, so that a crash leaves both for the
// next run. Every method may be called from any thread; the play's lock
// serialises them.
#ifndef QXLOG_RECORDING_PLAYSESSION_H_
#define QXLOG_RECORDING_PLAYSESSION_H_

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>

#include "QXLog/QXLogValue.h"
#include "QXLog/format/PlaySessionRecords.h"
#include "QXLog/format/PlayTimeline.h"

namespace qxlog::recording {

class PlaySession {
 public:
  // Actions sent as one part of a long play, and the most kept while the
  // host's context is not ready (later ones are dropped).
  static constexpr std::size_t kPartActions = 100;
  static constexpr std::size_t kMaxPendingActions = format::kMaxPlayFileActions;

  // Builds the header (the play-header record plus the id) and reports the start.
  explicit PlaySession(format::PlayDescription description);
  PlaySession(const PlaySession&) = delete;
  PlaySession& operator=(const PlaySession&) = delete;

  const std::string& id() const { return description_.playId; }

  void setState(format::PlayerState state, int64_t position);
  void rendition(int height, int64_t bitrate);
  void fail(const std::string& cause);
  // Ends the play, sends its last actions and its summary; nothing after it.
  void end();
  // The push timer ran out: the pending actions go as a part, under the
  // play's header, once the host's context is ready; the file is rewritten
  // either way, so that its report ends the play now. Nothing once ended.
  void sendPart();

  // The name of a play's file in the Documents directory.
  static std::string fileName(const std::string& playId);

 private:
  // Ms since 1970: the wall clock at the begin plus the monotonic time since.
  int64_t now() const;
  // Under the lock: turns actions into records, keeps them, sends a full part
  // and rewrites the file.
  void addLocked(const std::vector<format::PlayAction>& actions);
  void writeFileLocked();
  // The report of the play ended now by the end of its run.
  Dictionary restartReportLocked();
  // The header copy with the pending actions under "p"; they are taken.
  Dictionary takePartLocked();

  const format::PlayDescription description_;
  const int64_t wallAnchor_;
  const int64_t monotonicAnchor_;
  const std::string path_;
  std::mutex mutex_;
  Dictionary header_;
  format::PlayTimeline timeline_;
  Array pending_;
  int64_t position_ = 0;
  std::string cause_;
  std::size_t dropped_ = 0;
};

}  // namespace qxlog::recording

#endif  // QXLOG_RECORDING_PLAYSESSION_H_
