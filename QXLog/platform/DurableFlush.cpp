#include "QXLog/platform/DurableFlush.h"

#include <fcntl.h>
#include <unistd.h>

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

void DurableFlush::written(const std::string& path) {
  std::lock_guard lock(mutex_);
  dirty_.insert(path);
  if (inFlight_) return;
  inFlight_ = true;
  executor_->post([self = shared_from_this()] { self->flushUntilClean(); }, kGathering);
}

int DurableFlush::rounds() const {
  std::lock_guard lock(mutex_);
  return rounds_;
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
