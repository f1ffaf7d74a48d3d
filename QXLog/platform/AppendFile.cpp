#include "QXLog/platform/AppendFile.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace qxlog::platform {
namespace {

// O_NONBLOCK keeps a FIFO from stalling the open; O_NOFOLLOW refuses a link.
int openRegular(const std::string& path, int flags, struct stat& info) {
  int fd = ::open(path.c_str(), flags | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC, 0644);
  if (fd < 0) return -1;
  if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
    ::close(fd);
    return -1;
  }
  return fd;
}

}  // namespace

std::unique_ptr<AppendFile> AppendFile::open(const std::string& path) {
  struct stat info;
  int fd = openRegular(path, O_WRONLY | O_CREAT | O_APPEND, info);
  if (fd < 0) return nullptr;
  return std::unique_ptr<AppendFile>(new AppendFile(fd, path, static_cast<uint64_t>(info.st_size)));
}

AppendFile::~AppendFile() {
  ::close(fd_);
}

bool AppendFile::append(std::string_view bytes) {
  std::string_view rest = bytes;
  while (!rest.empty()) {
    ssize_t written = ::write(fd_, rest.data(), rest.size());
    if (written < 0) {
      if (errno == EINTR) continue;
      if (rest.size() != bytes.size()) truncate(size_);
      return false;
    }
    rest.remove_prefix(static_cast<std::size_t>(written));
  }
  size_ += bytes.size();
  return true;
}

bool AppendFile::truncate(uint64_t size) {
  if (::ftruncate(fd_, static_cast<off_t>(size)) != 0) return false;
  size_ = size;
  return true;
}

std::optional<BoundedRead> readRegularFile(const std::string& path, std::size_t maxBytes) {
  struct stat info;
  int fd = openRegular(path, O_RDONLY, info);
  if (fd < 0) return std::nullopt;
  BoundedRead read;
  std::size_t want = std::min<std::size_t>(static_cast<std::size_t>(info.st_size), maxBytes);
  read.bytes.resize(want);
  std::size_t have = 0;
  while (have < want) {
    ssize_t got = ::read(fd, read.bytes.data() + have, want - have);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    have += static_cast<std::size_t>(got);
  }
  read.bytes.resize(have);
  read.truncated = static_cast<uint64_t>(info.st_size) > maxBytes;
  ::close(fd);
  return read;
}

bool overwriteRegularFile(const std::string& path, uint64_t offset, std::string_view bytes) {
  struct stat info;
  int fd = openRegular(path, O_WRONLY, info);
  if (fd < 0) return false;
  bool done = true;
  while (!bytes.empty()) {
    ssize_t written = ::pwrite(fd, bytes.data(), bytes.size(), static_cast<off_t>(offset));
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) {
      done = false;
      break;
    }
    bytes.remove_prefix(static_cast<std::size_t>(written));
    offset += static_cast<uint64_t>(written);
  }
  ::close(fd);
  return done;
}

std::vector<std::string> listDirectory(const std::string& directory, std::string_view prefix,
                                       std::size_t maxNames) {
  std::vector<std::string> names;
  DIR* dir = ::opendir(directory.c_str());
  if (dir == nullptr) return names;
  while (names.size() < maxNames) {
    struct dirent* entry = ::readdir(dir);
    if (entry == nullptr) break;
    std::string_view name(entry->d_name);
    if (name.substr(0, prefix.size()) == prefix) names.emplace_back(name);
  }
  ::closedir(dir);
  return names;
}

}  // namespace qxlog::platform
