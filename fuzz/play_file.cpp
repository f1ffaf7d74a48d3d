// Any bytes as a play's file left by an earlier run: the read-back gives the
// play's record or nothing, never a crash; a record it gives is of that play,
// within the bounds, and survives being written and read again.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "QXLog/format/PlaySessionRecords.h"
#include "QXLog/serial/PropertyList.h"

namespace {
constexpr const char* kId = "0123456789abcdef0123456789abcdef";
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  auto record = qxlog::format::recoveredPlay(bytes, kId);
  if (!record) return 0;
  const qxlog::Value* actions = record->find("p");
  if (actions == nullptr || actions->asArray()->empty() ||
      actions->asArray()->size() > qxlog::format::kMaxPlayFileActions) {
    std::abort();
  }
  const std::string again = qxlog::serial::toXmlPropertyList(qxlog::Value(*record));
  if (!qxlog::format::recoveredPlay(again, kId)) std::abort();
  return 0;
}
