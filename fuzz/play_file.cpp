// Any bytes as a play's file left by an earlier run: the read-back gives the
// play's record (and maybe its report) or nothing, never a crash; what it
// gives is of that play, within the bounds, never carries the report inside
// the record, and is read back again once written.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "QXLog/format/PlaySessionRecords.h"
#include "QXLog/serial/PropertyList.h"

namespace {
constexpr const char* kId = "0123456789abcdef0123456789abcdef";
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  namespace format = qxlog::format;
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  auto play = format::recoveredPlay(bytes, kId);
  if (!play) return 0;
  const qxlog::Value* actions = play->record.find("p");
  if (actions == nullptr || actions->asArray()->size() > format::kMaxPlayFileActions ||
      (actions->asArray()->empty() && !play->report) ||
      play->record.find(format::kRestartReportKey) != nullptr) {
    std::abort();
  }
  if (play->report) {
    const qxlog::Value* summary = play->report->find("play_summary");
    if (summary == nullptr ||
        *summary->asDictionary()->find(format::kPlayIdKey)->asString() != kId) {
      std::abort();
    }
  }
  qxlog::Dictionary file = play->record;
  if (play->report) file.set(format::kRestartReportKey, qxlog::Value(*play->report));
  auto again = format::recoveredPlay(qxlog::serial::toXmlPropertyList(qxlog::Value(file)), kId);
  // XML cannot hold every control character: texts, keys among them, may
  // change on the way, but the play and its report are still read back.
  if (!again || again->report.has_value() != play->report.has_value()) {
    std::abort();
  }
  return 0;
}
