// Any bytes as a queue file: the loader gives a queue or nothing (an empty
// queue), never a crash; a queue it gives can be written and read again.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "QXLog/QXLogCenter.h"
#include "QXLog/QXLogHelper.h"
#include "QXLog/center/CenterRegistry.h"
#include "QXLog/platform/Env.h"
#include "fuzz/FuzzDirectory.h"

namespace {
constexpr const char* kQueue = "UserStatisticalLog.plist";
constexpr const char* kTable = "USERMovieStartTimeLog.plist";
}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  createFuzzCenter();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string bytes(reinterpret_cast<const char*>(data), size);
  const qxlog::platform::Env& env = QXLogCenter::center().env();
  for (const char* name : {kQueue, kTable}) {
    if (!env.files().replaceAtomically(env.documentsPath(name), bytes)) {
      std::abort();
    }
  }
  if (std::optional<QXLogHelper::Array> queue = QXLogHelper::store(nullptr, kQueue)) {
    QXLogHelper::store(*queue, kQueue);
    std::optional<QXLogHelper::Array> again = QXLogHelper::store(nullptr, kQueue);
    if (!again || again->size() != queue->size()) std::abort();
  }
  if (std::optional<QXLogHelper::Dictionary> table = QXLogHelper::storeDict(nullptr, kTable)) {
    QXLogHelper::storeDict(*table, kTable);
    std::optional<QXLogHelper::Dictionary> again = QXLogHelper::storeDict(nullptr, kTable);
    if (!again || again->size() != table->size()) std::abort();
  }
  return 0;
}
