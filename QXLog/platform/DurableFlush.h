// Makes replaced files durable without the writer waiting for the disk: after
// a replace, the new file's data and its directory are flushed on an executor,
// coalesced: at most one flush is in flight,
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

class DurableFlush : public std::enable_shared_from_this<DurableFlush> {
 public:
  // How long a flush waits for more replaces to join it.
  static constexpr std::chrono::milliseconds kGathering{250};

  explicit DurableFlush(std::shared_ptr<Executor> executor) : executor_(std::move(executor)) {}

  // Called after `path` was replaced.
  void written(const std::string& path);
  // Completed rounds of flushing.
  int rounds() const;

 private:
  void flushUntilClean();

  const std::shared_ptr<Executor> executor_;
  mutable std::mutex mutex_;
  std::set<std::string> dirty_;
  bool inFlight_ = false;
  int rounds_ = 0;
};

}  // namespace qxlog::platform

#endif  // QXLOG_PLATFORM_DURABLEFLUSH_H_
