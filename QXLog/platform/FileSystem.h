// The file operations the queue files need, as one part of the library's
// environment (Env): PosixFileSystem is the system's, and tests put in one
// that fails on demand.
#ifndef QXLOG_PLATFORM_FILESYSTEM_H_
#define QXLOG_PLATFORM_FILESYSTEM_H_

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace qxlog::platform {

// What a bounded read of a regular file found (FileSystem::readRegularFile).
struct RegularFileRead {
  enum class Outcome {
    kRead,        // `contents` holds the whole file
    kMissing,     // nothing at the path, or a link that leads nowhere
    kNotRegular,  // a directory, FIFO, socket or device, or a link to one
    kTooLarge,    // more bytes than the bound; `size` is what was found
    kFailed,      // the file could not be opened or read
  };
  Outcome outcome = Outcome::kFailed;
  std::string contents;
  uint64_t size = 0;
};

class FileSystem {
 public:
  virtual ~FileSystem() = default;

  virtual bool exists(const std::string& path) = 0;
  // Creates an empty file if none exists; an existing file is left alone.
  virtual bool createEmpty(const std::string& path) = 0;
  // Creates the directory and its parents where missing.
  virtual bool createDirectories(const std::string& path) = 0;
  // Replaces the file's contents all at once: a process killed at any moment
  // leaves either the old file or the new one, and a failed replace leaves the
  // old one and nothing beside it.
  virtual bool replaceAtomically(const std::string& path, std::string_view contents) = 0;
  // Removes the temporaries that replaces of `path` left behind when their
  // process died before finishing. Only safe while no replace of `path` is
  // under way; returns how many were removed.
  virtual int removeStaleTemporaries(const std::string& path) = 0;
  // The whole file, when it is a regular file (read as readRegularFile does,
  // without a bound); nothing otherwise.
  virtual std::optional<std::string> read(const std::string& path) = 0;
  // Reads a regular file of at most `maxBytes` bytes. Never blocks on a FIFO
  // or a device and never opens one; a symbolic link is followed only when it
  // ends at a regular file. At most `maxBytes` + 1 bytes are ever held, also
  // for a file that grows while it is read. Safe from any thread.
  virtual RegularFileRead readRegularFile(const std::string& path, std::size_t maxBytes) = 0;
  virtual bool remove(const std::string& path) = 0;
};

}  // namespace qxlog::platform

#endif  // QXLOG_PLATFORM_FILESYSTEM_H_
