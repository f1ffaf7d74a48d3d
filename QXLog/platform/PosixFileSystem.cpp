#include "QXLog/platform/PosixFileSystem.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <limits>
#include <random>
#include <vector>

namespace qxlog::platform {
namespace {

constexpr std::string_view kTemporarySuffix = ".tmp-XXXXXX";

}  // namespace

PosixFileSystem::PosixFileSystem(Options options)
    : renameExchange_(options.renameExchange),
      flush_(options.flushExecutor ? std::make_shared<DurableFlush>(options.flushExecutor)
                                   : nullptr) {}

// Like mkostemp, but created with the mode of the queue files (0644 less the
// umask) instead of 0600, which spares every store a chmod: a metadata change
// of its own in the file system's journal.
int PosixFileSystem::createTemporary(char* pathPattern) {
  static constexpr std::string_view kLetters =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
  thread_local std::mt19937_64 random(std::random_device{}());
  char* name = pathPattern + std::strlen(pathPattern) - 6;
  for (int attempt = 0; attempt < 100; ++attempt) {
    uint64_t bits = random();
    for (int i = 0; i < 6; ++i, bits /= kLetters.size()) name[i] = kLetters[bits % kLetters.size()];
    int fd = ::open(pathPattern, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd >= 0 || errno != EEXIST) return fd;
  }
  return -1;
}

bool PosixFileSystem::writeAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    ssize_t written = ::write(fd, bytes.data(), bytes.size());
    if (written < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

// Puts the new file in place. Exchanging the two names and unlinking the old
// contents is as atomic as a rename for readers and for a process killed at
// any moment, and spares the writer the flush that ext4 starts when a rename
// replaces a file. (Unlinking later, off this thread, was measured slower:
// the unlinks contend with the writes for the directory.) Where there is
// nothing to exchange, or the kernel or the file system refuses the flag, a
// plain rename does it.
bool PosixFileSystem::putInPlace(const char* temporary, const char* path) {
  if (renameExchange_ && ::renameat2(AT_FDCWD, temporary, AT_FDCWD, path, RENAME_EXCHANGE) == 0) {
    ::unlink(temporary);  // now the old contents
  } else if (::rename(temporary, path) != 0) {
    return false;
  }
  if (flush_) flush_->written(path);
  return true;
}

bool PosixFileSystem::exists(const std::string& path) {
  struct stat info;
  return ::stat(path.c_str(), &info) == 0;
}

bool PosixFileSystem::createEmpty(const std::string& path) {
  // Exclusive creation never follows a symbolic link: a link left at the
  // path, even one that leads nowhere, is not used to create its target.
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0644);
  if (fd < 0) return errno == EEXIST;
  ::close(fd);
  return true;
}

bool PosixFileSystem::replaceAtomically(const std::string& path, std::string_view contents) {
  std::vector<char> temporary(path.begin(), path.end());
  temporary.insert(temporary.end(), kTemporarySuffix.begin(), kTemporarySuffix.end());
  temporary.push_back('\0');
  int fd = createTemporary(temporary.data());
  if (fd < 0) return false;
  bool ok = writeAll(fd, contents);
  ok = (::close(fd) == 0) && ok;
  if (ok && putInPlace(temporary.data(), path.c_str())) return true;
  ::unlink(temporary.data());
  return false;
}

int PosixFileSystem::removeStaleTemporaries(const std::string& path) {
  std::size_t slash = path.rfind('/');
  std::string directory = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  std::string prefix = (slash == std::string::npos ? path : path.substr(slash + 1)) + ".tmp-";
  const std::size_t nameLength = prefix.size() + kTemporarySuffix.size() - 5;
  DIR* listing = ::opendir(directory.c_str());
  if (listing == nullptr) return 0;
  std::vector<std::string> stale;
  while (const dirent* entry = ::readdir(listing)) {
    std::string_view name(entry->d_name);
    if (name.size() == nameLength && name.substr(0, prefix.size()) == prefix) {
      stale.emplace_back(name);
    }
  }
  ::closedir(listing);
  int removed = 0;
  for (const std::string& name : stale) {
    std::string stalePath = slash == std::string::npos ? name : directory + name;
    removed += ::unlink(stalePath.c_str()) == 0;
  }
  return removed;
}

std::optional<std::string> PosixFileSystem::read(const std::string& path) {
  RegularFileRead got = readRegularFile(path, std::numeric_limits<std::size_t>::max() - 1);
  if (got.outcome != RegularFileRead::Outcome::kRead) return std::nullopt;
  return std::move(got.contents);
}

// The path is looked at before it is opened, so that a device or a FIFO is
// never opened at all (opening some devices has effects, and opening a FIFO
// for reading waits for a writer). The descriptor is checked again, since
// the path may have changed in between, and is opened without blocking in
// case it became a FIFO.
RegularFileRead PosixFileSystem::readRegularFile(const std::string& path, std::size_t maxBytes) {
  using Outcome = RegularFileRead::Outcome;
  RegularFileRead result;
  auto kind = [&](const struct stat& info) {
    if (!S_ISREG(info.st_mode)) return Outcome::kNotRegular;
    result.size = static_cast<uint64_t>(info.st_size);
    return result.size > maxBytes ? Outcome::kTooLarge : Outcome::kRead;
  };
  struct stat info;
  if (::stat(path.c_str(), &info) != 0) {
    result.outcome = errno == ENOENT || errno == ENOTDIR ? Outcome::kMissing : Outcome::kFailed;
    return result;
  }
  if ((result.outcome = kind(info)) != Outcome::kRead) return result;
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  if (fd < 0) {
    result.outcome = errno == ENOENT ? Outcome::kMissing : Outcome::kFailed;
    return result;
  }
  if (::fstat(fd, &info) != 0) {
    result.outcome = Outcome::kFailed;
  } else if ((result.outcome = kind(info)) == Outcome::kRead) {
    // One byte past the bound tells a file that grew beyond it.
    const std::size_t most = maxBytes + 1;
    result.contents.resize(std::min<uint64_t>(result.size + 1, most));
    std::size_t held = 0;
    for (;;) {
      if (held == result.contents.size()) {
        if (held == most) break;
        result.contents.resize(
            std::min<std::size_t>(most, held + std::max<std::size_t>(held, 65536)));
      }
      ssize_t got = ::read(fd, result.contents.data() + held, result.contents.size() - held);
      if (got < 0 && errno == EINTR) continue;
      if (got < 0) result.outcome = Outcome::kFailed;
      if (got <= 0) break;
      held += static_cast<std::size_t>(got);
    }
    result.contents.resize(held);
    if (held > maxBytes) {
      result.outcome = Outcome::kTooLarge;
      result.size = held;
    }
    if (result.outcome != Outcome::kRead) std::string().swap(result.contents);
  }
  ::close(fd);
  return result;
}

bool PosixFileSystem::remove(const std::string& path) {
  return ::unlink(path.c_str()) == 0;
}

bool PosixFileSystem::createDirectories(const std::string& path) {
  std::error_code error;
  std::filesystem::create_directories(path, error);
  return !error;
}

}  // namespace qxlog::platform
