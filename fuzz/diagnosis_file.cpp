// Any bytes as "QXLogDiagnoses.json": the reader keeps at most kMaxKept
// entries, each with an "envelope" dictionary, never crashes, and what it
// keeps is written back to a text that reads back the same. Read from the
// Documents directory, the file gives as many kept diagnoses as its text.
// Bounds: the file is read up to kMaxFileBytes (libFuzzer's -max_len stays
// below it), JSON nesting up to serial::kMaxJsonDepth.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "QXLog/QXLogCenter.h"
#include "QXLog/center/CenterRegistry.h"
#include "QXLog/center/DiagnosisQueue.h"
#include "QXLog/platform/Env.h"
#include "fuzz/FuzzDirectory.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  createFuzzCenter();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using qxlog::center::DiagnosisQueue;
  std::string bytes(reinterpret_cast<const char*>(data), size);
  auto kept = DiagnosisQueue::parseKept(bytes);
  if (kept.size() > DiagnosisQueue::kMaxKept) std::abort();
  for (const auto& entry : kept) {
    if (entry.find("envelope") == nullptr || !entry.find("envelope")->isDictionary()) std::abort();
  }
  const std::string written = DiagnosisQueue::encodeKept(kept);
  auto again = DiagnosisQueue::parseKept(written);
  if (again.size() != kept.size() || DiagnosisQueue::encodeKept(again) != written) std::abort();

  QXLogCenter& center = QXLogCenter::center();
  const qxlog::platform::Env& env = center.env();
  if (!env.files().replaceAtomically(env.documentsPath(qxlog::center::kDiagnosisQueueFile),
                                     bytes)) {
    std::abort();
  }
  DiagnosisQueue queue(center);
  if (queue.count() != kept.size()) std::abort();
  return 0;
}
