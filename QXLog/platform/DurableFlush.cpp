#include "QXLog/platform/DurableFlush.h"

#include <fcntl.h>
#include <unistd.h>

#include "QXLog/platform/Dispatch.h"

namespace qxlog::platform {
namespace {

std::string directoryOf(const std::string& path) {
  std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

// fdatasync for a file, fsync for a directory; a path that is gone is fine.
void flushPath(const std::string& path, bool directory) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | (directory ? O_DIRECTORY : 0));
  if (fd < 0) return;
  if (directory) {
    ::fsync(fd);
  } else {
    ::fdatasync(fd);
  }
  ::close(fd);
}

}  // namespace

DurableFlush& DurableFlush::instance() {
  // Never destroyed: a flush may still run on a worker during exit.
  static auto* flush = new DurableFlush();
  return *flush;
}

void DurableFlush::written(const std::string& path) {
  std::lock_guard lock(mutex_);
  if (!enabled_) return;
  dirty_.insert(path);
  if (inFlight_) return;
  inFlight_ = true;
  executor()->post([this] { flushUntilClean(); }, kGathering);
}

void DurableFlush::setExecutor(std::shared_ptr<Executor> executor) {
  std::lock_guard lock(mutex_);
  executor_ = std::move(executor);
}

void DurableFlush::setEnabled(bool enabled) {
  std::lock_guard lock(mutex_);
  enabled_ = enabled;
}

int DurableFlush::rounds() const {
  std::lock_guard lock(mutex_);
  return rounds_;
}

std::shared_ptr<Executor> DurableFlush::executor() const {
  return executor_ ? executor_ : globalQueue();
}

void DurableFlush::flushUntilClean() {
  for (;;) {
    std::set<std::string> files;
    {
      std::lock_guard lock(mutex_);
      if (dirty_.empty()) {
        inFlight_ = false;
        return;
      }
      files.swap(dirty_);
    }
    std::set<std::string> directories;
    for (const std::string& file : files) {
      flushPath(file, false);
      directories.insert(directoryOf(file));
    }
    for (const std::string& directory : directories) flushPath(directory, true);
    std::lock_guard lock(mutex_);
    ++rounds_;
  }
}

}  // namespace qxlog::platform
