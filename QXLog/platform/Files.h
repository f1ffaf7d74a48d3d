// Small file operations with the guarantees the queue files need.
#ifndef QXLOG_PLATFORM_FILES_H_
#define QXLOG_PLATFORM_FILES_H_

#include <optional>
#include <string>
#include <string_view>

namespace qxlog::platform {

bool fileExists(const std::string& path);
// Creates an empty file if none exists; an existing file is left alone.
bool createEmptyFile(const std::string& path);
// Replaces the file's contents all at once: the bytes go to a temporary file
// in the same directory, which then takes the path's place by exchanging the
// two names (the old contents are unlinked), or by a rename where there is
// nothing to exchange or the file system refuses. A process killed at any
// moment leaves either the old file or the new one. The new contents reach
// stable storage shortly after, off the caller's thread (DurableFlush), so
// that a power cut after that leaves the old file or the new one too.
bool writeFileAtomically(const std::string& path, std::string_view contents);
// Whether writeFileAtomically tries the exchange first (the default); off,
// it always renames.
void useRenameExchange(bool enabled);
// Removes the temporaries that writes of `path` left behind when their process
// died between creating and renaming them. Only safe while no write of `path`
// is under way; returns how many were removed.
int removeStaleTemporaries(const std::string& path);
std::optional<std::string> readFile(const std::string& path);
bool removeFile(const std::string& path);

}  // namespace qxlog::platform

#endif  // QXLOG_PLATFORM_FILES_H_
