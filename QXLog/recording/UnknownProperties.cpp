#include "QXLog/recording/UnknownProperties.h"

#include <mutex>
#include <set>
#include <string>

#include "QXLog/platform/Console.h"

namespace qxlog::recording {

void traceUnknownProperty(std::string_view name) {
  static std::mutex mutex;
  static auto* seen = new std::set<std::string, std::less<>>();
  {
    std::lock_guard lock(mutex);
    if (!seen->emplace(name).second) return;
  }
  platform::consoleWrite("QXLog: unknown property \"" + std::string(name) + "\" ignored");
}

}  // namespace qxlog::recording
