// Append-only files for the journal: a segment opened once and appended to
// with write(2), so that a record is in the kernel's hands (and survives the
// process being killed) when the append returns; and a bounded read of such a
// file. Both open without blocking and refuse anything but a regular file, a
// symbolic link included.
#ifndef QXLOG_PLATFORM_APPENDFILE_H_
#define QXLOG_PLATFORM_APPENDFILE_H_

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qxlog::platform {

class AppendFile {
 public:
  // Opens `path` for appending, creating it (0644) when missing; nothing when
  // it cannot be opened or is not a regular file.
  static std::unique_ptr<AppendFile> open(const std::string& path);
  ~AppendFile();
  AppendFile(const AppendFile&) = delete;
  AppendFile& operator=(const AppendFile&) = delete;

  // Writes all of `bytes` at the end. A failed append is taken back: the
  // file is cut to its size before it, so nothing half-written stays.
  bool append(std::string_view bytes);
  // Cuts the file to `size` bytes.
  bool truncate(uint64_t size);
  uint64_t size() const { return size_; }
  const std::string& path() const { return path_; }

 private:
  AppendFile(int fd, std::string path, uint64_t size)
      : fd_(fd), path_(std::move(path)), size_(size) {}

  int fd_;
  std::string path_;
  uint64_t size_;
};

// What a regular file at `path` holds, up to `maxBytes`; `truncated` tells
// whether there was more. Nothing when it is missing, not a regular file, or
// cannot be read.
struct BoundedRead {
  std::string bytes;
  bool truncated = false;
};
std::optional<BoundedRead> readRegularFile(const std::string& path, std::size_t maxBytes);

// Writes `bytes` over the regular file at `path` from `offset` on.
bool overwriteRegularFile(const std::string& path, uint64_t offset, std::string_view bytes);

// The names in `directory` that start with `prefix`; at most `maxNames`.
std::vector<std::string> listDirectory(const std::string& directory, std::string_view prefix,
                                       std::size_t maxNames);

}  // namespace qxlog::platform

#endif  // QXLOG_PLATFORM_APPENDFILE_H_
