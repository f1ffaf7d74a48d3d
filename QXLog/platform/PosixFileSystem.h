// The system's files. A replace writes the bytes to a temporary file in the
// same directory, which then takes the path's place by exchanging the two
// names (the old contents are unlinked), or by a rename where there is
// nothing to exchange or the file system refuses. The new contents reach
// stable storage shortly after, off the caller's thread (DurableFlush), so
// that a power cut after that leaves the old file or the new one too.
#ifndef QXLOG_PLATFORM_POSIXFILESYSTEM_H_
#define QXLOG_PLATFORM_POSIXFILESYSTEM_H_

#include <memory>

#include "QXLog/QXLogExecutor.h"
#include "QXLog/platform/DurableFlush.h"
#include "QXLog/platform/FileSystem.h"

namespace qxlog::platform {

class PosixFileSystem : public FileSystem {
 public:
  struct Options {
    // Where replaced files are flushed to the disk; none, they are not.
    std::shared_ptr<Executor> flushExecutor{};
    // Whether a replace tries the exchange first; off, it always renames.
    bool renameExchange = true;
  };
  explicit PosixFileSystem(Options options);

  bool exists(const std::string& path) override;
  bool createEmpty(const std::string& path) override;
  bool createDirectories(const std::string& path) override;
  bool replaceAtomically(const std::string& path, std::string_view contents) override;
  int removeStaleTemporaries(const std::string& path) override;
  std::optional<std::string> read(const std::string& path) override;
  RegularFileRead readRegularFile(const std::string& path, std::size_t maxBytes) override;
  bool remove(const std::string& path) override;

  // Completed rounds of flushing, for tests and benchmarks.
  int flushRounds() const { return flush_ ? flush_->rounds() : 0; }

 protected:
  // The system calls that a replace makes and that can fail for want of room
  // or permission; tests override them to fail as a full or read-only disk
  // does, with errno set.
  virtual int createTemporary(char* pathPattern);
  virtual bool writeAll(int fd, std::string_view bytes);

 private:
  bool putInPlace(const char* temporary, const char* path);

  const bool renameExchange_;
  std::shared_ptr<DurableFlush> flush_;
};

}  // namespace qxlog::platform

#endif  // QXLOG_PLATFORM_POSIXFILESYSTEM_H_
