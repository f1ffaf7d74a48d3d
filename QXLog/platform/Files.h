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
// in the same directory, which is then renamed over the path. A process killed
// at any moment leaves either the old file or the new one.
bool writeFileAtomically(const std::string& path, std::string_view contents);
// Removes the temporaries that writes of `path` left behind when their process
// died between creating and renaming them. Only safe while no write of `path`
// is under way; returns how many were removed.
int removeStaleTemporaries(const std::string& path);
std::optional<std::string> readFile(const std::string& path);
bool removeFile(const std::string& path);

}  // namespace qxlog::platform

#endif  // QXLOG_PLATFORM_FILES_H_
