// The file operations the queue files need, as one part of the library's
// environment (Env): PosixFileSystem is the system's, and tests put in one
// that fails on demand.
#ifndef QXLOG_PLATFORM_FILESYSTEM_H_
#define QXLOG_PLATFORM_FILESYSTEM_H_

#include <optional>
#include <string>
#include <string_view>

namespace qxlog::platform {

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
  virtual std::optional<std::string> read(const std::string& path) = 0;
  virtual bool remove(const std::string& path) = 0;
};

}  // namespace qxlog::platform

#endif  // QXLOG_PLATFORM_FILESYSTEM_H_
