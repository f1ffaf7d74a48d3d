#include "QXLog/platform/Documents.h"

#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <system_error>

#include "QXLog/platform/Console.h"

namespace qxlog::platform {
namespace {

std::mutex g_mutex;
std::string& resolved() {
  static auto* path = new std::string();
  return *path;
}

std::string fromEnvironment() {
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

}  // namespace

std::string documentsDirectory() {
  std::lock_guard lock(g_mutex);
  if (resolved().empty()) {
    resolved() = fromEnvironment();
    std::error_code ignored;
    std::filesystem::create_directories(resolved(), ignored);
  }
  return resolved();
}

void setDocumentsDirectory(std::string path) {
  std::lock_guard lock(g_mutex);
  resolved() = std::move(path);
  if (!resolved().empty()) {
    std::error_code ignored;
    std::filesystem::create_directories(resolved(), ignored);
  }
}

std::string documentsPath(std::string_view fileName) {
  std::string path = documentsDirectory();
  if (!path.empty() && path.back() != '/') path += '/';
  path += fileName;
  return path;
}

}  // namespace qxlog::platform
