// The per-application Documents directory that holds the queue files.
#ifndef QXLOG_PLATFORM_DOCUMENTS_H_
#define QXLOG_PLATFORM_DOCUMENTS_H_

#include <string>
#include <string_view>

namespace qxlog::platform {

// The directory set by the host; otherwise $QXLOG_DOCUMENTS_DIR; otherwise
// ${XDG_DATA_HOME:-$HOME/.local/share}/<program name>/Documents. It is created,
// with its parents, the first time it is resolved.
std::string documentsDirectory();
// An empty path returns to the environment's choice.
void setDocumentsDirectory(std::string path);
// The Documents directory with a file name appended.
std::string documentsPath(std::string_view fileName);

}  // namespace qxlog::platform

#endif  // QXLOG_PLATFORM_DOCUMENTS_H_
