// Queue files in the Documents directory of an environment: whole collections
// mirrored in XML property lists. QXLogHelper's store methods are these, on
// the log center's environment.
#ifndef QXLOG_SUPPORT_QUEUEFILES_H_
#define QXLOG_SUPPORT_QUEUEFILES_H_

#include <cstddef>
#include <optional>
#include <string_view>

#include "QXLog/QXLogValue.h"
#include "QXLog/platform/Env.h"

namespace qxlog::support {

// The largest queue file that is read. A bigger file, or anything at the path
// that is not a regular file (a FIFO, a device, a directory, a link to one of
// them), reads as damaged with one console line, and the next store replaces
// it with a regular file. 50 000 short action records take about 17 MB.
inline constexpr std::size_t kMaxQueueFileBytes = std::size_t{64} << 20;

// Rewrites the queue file `plist` with `xml`, the file's whole new contents.
void writeQueueFile(const platform::Env& env, std::string_view xml, std::string_view plist);
// Rewrites the file from the collection.
void writeCollection(const platform::Env& env, const Array& root, std::string_view plist);
void writeCollection(const platform::Env& env, const Dictionary& root, std::string_view plist);
// Reads the file back: nothing when it is empty, damaged or holds no
// collection of that kind. Either way a missing file is first created empty
// (never through a symbolic link). Never blocks on the file, and holds at
// most kMaxQueueFileBytes of it before parsing.
std::optional<Array> readArray(const platform::Env& env, std::string_view plist);
std::optional<Dictionary> readDictionary(const platform::Env& env, std::string_view plist);
// Removes the file, and says so on the console when there was one.
void removeQueueFile(const platform::Env& env, std::string_view plist);

}  // namespace qxlog::support

#endif  // QXLOG_SUPPORT_QUEUEFILES_H_
