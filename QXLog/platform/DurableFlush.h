// Makes replaced files durable without the writer waiting for the disk: after
// a replace, the new file's data and its directory are flushed on an executor
// (the global queue unless set), coalesced: at most one flush is in flight,
// and it runs again when files were replaced meanwhile. A replace is on
// stable storage within about a second of its return.
#ifndef QXLOG_PLATFORM_DURABLEFLUSH_H_
#define QXLOG_PLATFORM_DURABLEFLUSH_H_

#include <chrono>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "QXLog/QXLogExecutor.h"

namespace qxlog::platform {

class DurableFlush {
 public:
  // How long a flush waits for more replaces to join it.
  static constexpr std::chrono::milliseconds kGathering{250};

  static DurableFlush& instance();

  // Called after `path` was replaced.
  void written(const std::string& path);
  // Where flushes run; nullptr returns to the global queue.
  void setExecutor(std::shared_ptr<Executor> executor);
  // Off, replaces are not flushed (tests that count scheduled tasks).
  void setEnabled(bool enabled);
  // Completed rounds of flushing, for tests and benchmarks.
  int rounds() const;

 private:
  void flushUntilClean();
  std::shared_ptr<Executor> executor() const;

  mutable std::mutex mutex_;
  std::shared_ptr<Executor> executor_;
  std::set<std::string> dirty_;
  bool inFlight_ = false;
  bool enabled_ = true;
  int rounds_ = 0;
};

}  // namespace qxlog::platform

#endif  // QXLOG_PLATFORM_DURABLEFLUSH_H_
