// The system's files, except that replaces fail on demand as they do on a
// read-only file system (the temporary cannot be made: EROFS) or on a full
// one (the bytes stop half-way: ENOSPC), so that disk trouble needs neither
// root nor a small mount.
#ifndef QXLOG_TESTS_SUPPORT_FAULTYFILESYSTEM_H_
#define QXLOG_TESTS_SUPPORT_FAULTYFILESYSTEM_H_

#include <atomic>
#include <cerrno>

#include "QXLog/platform/PosixFileSystem.h"

namespace qxlog::testing {

class FaultyFileSystem final : public platform::PosixFileSystem {
 public:
  enum class Fault { kNone, kReadOnly, kFull };

  FaultyFileSystem() : PosixFileSystem(Options{}) {}
  void setFault(Fault fault) { fault_.store(fault); }

 protected:
  int createTemporary(char* pathPattern) override {
    if (fault_.load() != Fault::kReadOnly) return PosixFileSystem::createTemporary(pathPattern);
    errno = EROFS;
    return -1;
  }
  bool writeAll(int fd, std::string_view bytes) override {
    if (fault_.load() != Fault::kFull) return PosixFileSystem::writeAll(fd, bytes);
    PosixFileSystem::writeAll(fd, bytes.substr(0, bytes.size() / 2));
    errno = ENOSPC;
    return false;
  }

 private:
  std::atomic<Fault> fault_{Fault::kNone};
};

}  // namespace qxlog::testing

#endif  // QXLOG_TESTS_SUPPORT_FAULTYFILESYSTEM_H_
