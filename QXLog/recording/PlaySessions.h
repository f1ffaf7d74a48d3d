// The plays of the play API that may still have actions on disk, listed in
// "QXLogPlays.plist" by id. The first play of each run (of each log center)
// first sends what the plays of an earlier run left: each play's file, as
// the header copy of that play with its actions. Thread-safe.
#ifndef QXLOG_RECORDING_PLAYSESSIONS_H_
#define QXLOG_RECORDING_PLAYSESSIONS_H_

#include <cstddef>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "QXLog/QXLogValue.h"

class QXLogCenter;

namespace qxlog::recording {

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
  // Unlists a play whose last actions were stored.
  void closed(const std::string& playId);

 private:
  // The leftover records, taken under the lock and sent after it.
  std::vector<std::pair<std::string, Dictionary>> recoverLocked(QXLogCenter& center);
  void writeIndexLocked(QXLogCenter& center);

  std::mutex mutex_;
  const QXLogCenter* recoveredFor_ = nullptr;
  std::vector<std::string> listed_;
  std::mt19937_64 random_{std::random_device{}()};
};

// Stores a play's folded record as an action record once the host's context
// is ready; the last part also removes the play's file and unlists it.
void storePlayPart(Dictionary record, std::string playId, bool last);

}  // namespace qxlog::recording

#endif  // QXLOG_RECORDING_PLAYSESSIONS_H_
