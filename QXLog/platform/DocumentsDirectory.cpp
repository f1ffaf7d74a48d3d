#include "QXLog/platform/DocumentsDirectory.h"

#include <cstdlib>

#include "QXLog/platform/Console.h"

namespace qxlog::platform {

std::string documentsDirectoryFromEnvironment() {
  if (const char* dir = std::getenv("QXLOG_DOCUMENTS_DIR"); dir != nullptr && *dir != '\0') {
    return dir;
  }
  std::string dataHome;
  if (const char* xdg = std::getenv("XDG_DATA_HOME"); xdg != nullptr && *xdg != '\0') {
    dataHome = xdg;
  } else {
    const char* home = std::getenv("HOME");
    dataHome = std::string(home != nullptr ? home : ".") + "/.local/share";
  }
  return dataHome + "/" + programName() + "/Documents";
}

}  // namespace qxlog::platform
