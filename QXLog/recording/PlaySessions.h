// The plays of the play API: those open in this run, and those that may still
// have actions on disk, listed in "QXLogPlays.plist" by id. Each log center,
// when the host starts it (logEnvReady(true)) or when its first play begins,
// first sends what the plays of an earlier run left: each play's pending
// actions as the header copy of that play, then the report that play would
// have ended with, marked as ended by the restart. Each time the push timer
// runs out, every open play sends its pending actions as a part of its own.
// Thread-safe.
#ifndef QXLOG_RECORDING_PLAYSESSIONS_H_
#define QXLOG_RECORDING_PLAYSESSIONS_H_

#include <cstddef>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "QXLog/QXLogValue.h"
#include "QXLog/format/PlaySessionRecords.h"

class QXLogCenter;

namespace qxlog::recording {

class PlaySession;

class PlaySessions {
 public:
  static constexpr const char* kIndexFile = "QXLogPlays.plist";
  // Plays read back from an earlier run, at most.
  static constexpr std::size_t kMaxRecovered = 256;

  static PlaySessions& instance();

  // A new random id, 32 hexadecimal digits.
  std::string newId();
  // Lists a new play, after sending what an earlier run left if this is the
  // first play on this center.
  void opened(const std::string& playId);
  // Follows an open play for the push timer, until it is freed.
  void track(const std::shared_ptr<PlaySession>& play);
  // Unlists a play whose last actions were stored.
  void closed(const std::string& playId);
  // The host started the library: sends what an earlier run left, once per
  // center, when a center exists (otherwise its first play does it).
  void started();
  // The push timer's work: each open play sends its part.
  void sendParts();

 private:
  struct Leftover {
    std::string id;
    format::RecoveredPlay play;
  };
  // Once per center: follows its push timer and takes the leftovers, under
  // the lock; they are sent after it.
  std::vector<Leftover> startLocked(QXLogCenter& center);
  std::vector<Leftover> recoverLocked(QXLogCenter& center);
  void writeIndexLocked(QXLogCenter& center);
  static void send(std::vector<Leftover> leftovers);

  std::mutex mutex_;
  const QXLogCenter* recoveredFor_ = nullptr;
  std::vector<std::string> listed_;
  std::vector<std::weak_ptr<PlaySession>> open_;
  std::mt19937_64 random_{std::random_device{}()};
};

// Stores a play's folded record as an action record once the host's context
// is ready; the last part also removes the play's file and unlists it.
void storePlayPart(Dictionary record, std::string playId, bool last);
// Posts a play's end-of-play report (a diagnosis, at once) once the host's
// context is ready.
void postPlayReport(Dictionary report);

}  // namespace qxlog::recording

#endif  // QXLOG_RECORDING_PLAYSESSIONS_H_
