// Where the per-application Documents directory, which holds the queue files,
// lies when the host has not chosen one.
#ifndef QXLOG_PLATFORM_DOCUMENTSDIRECTORY_H_
#define QXLOG_PLATFORM_DOCUMENTSDIRECTORY_H_

#include <string>

namespace qxlog::platform {

// $QXLOG_DOCUMENTS_DIR; otherwise
// ${XDG_DATA_HOME:-$HOME/.local/share}/<program name>/Documents.
std::string documentsDirectoryFromEnvironment();

}  // namespace qxlog::platform

#endif  // QXLOG_PLATFORM_DOCUMENTSDIRECTORY_H_
