// Queue files in the Documents directory, written whole. (Reading them back,
// and writing whole collections, are QXLogHelper's store methods.)
#ifndef QXLOG_SUPPORT_QUEUEFILES_H_
#define QXLOG_SUPPORT_QUEUEFILES_H_

#include <string_view>

namespace qxlog::support {

// Rewrites the queue file `plist` with `xml`, the file's whole new contents.
void writeQueueFile(std::string_view xml, std::string_view plist);

}  // namespace qxlog::support

#endif  // QXLOG_SUPPORT_QUEUEFILES_H_
