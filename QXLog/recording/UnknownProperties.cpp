#include "QXLog/recording/UnknownProperties.h"

#include <mutex>
#include <set>
#include <string>

#include "QXLog/QXLogCenter.h"
#include "QXLog/platform/Env.h"

namespace qxlog::recording {

void traceUnknownProperty(std::string_view name) {
  static std::mutex mutex;
  static auto* seen = new std::set<std::string, std::less<>>();
  {
    std::lock_guard lock(mutex);
    if (!seen->emplace(name).second) return;
  }
  QXLogCenter::center().env().consoleWrite("QXLog: unknown property \"" + std::string(name) +
                                           "\" ignored");
}

}  // namespace qxlog::recording
