// Any bytes as a journal segment, a position file and a sealed batch: the
// journal reads back only whole records, cuts a damaged tail so that a record
// appended afterwards reads back whole, and never crashes. The sealed batch
// decodes to something that encodes to the same bytes, or to nothing.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "QXLog/center/Journal.h"
#include "QXLog/center/SealedBatch.h"
#include "QXLog/platform/Env.h"
#include "fuzz/FuzzDirectory.h"

namespace {
std::shared_ptr<qxlog::platform::Env> g_env;
}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  g_env = std::make_shared<qxlog::platform::Env>(
      qxlog::platform::Env::Parts{.documents = makeFuzzDirectory()});
  g_env->setConsoleSink([](const std::string&) {});
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string bytes(reinterpret_cast<const char*>(data), size);
  using qxlog::center::Journal;
  if (auto batch = qxlog::center::SealedBatch::decode(bytes)) {
    if (qxlog::center::SealedBatch::decode(batch->encode())->encode() != batch->encode()) {
      std::abort();
    }
  }
  {
    Journal cleared(*g_env, nullptr);
    cleared.removeAll();
  }
  // The first bytes, when short, may also stand for the position file.
  if (size > 0 && size < 40) {
    g_env->files().replaceAtomically(g_env->documentsPath(qxlog::center::kJournalPositionFile),
                                     bytes);
  }
  g_env->files().replaceAtomically(g_env->documentsPath("QXLogJournal.0000000001"), bytes);
  std::size_t records = 0;
  std::size_t damaged = 0;
  {
    Journal journal(*g_env, nullptr);
    damaged = journal.open();
    records = journal.pending().size();
    if (!journal.append(R"({"a_1":"appended"})")) std::abort();
  }
  Journal again(*g_env, nullptr);
  // Damage was cut or padded where there was room: never more the second time.
  if (again.open() > damaged) std::abort();
  if (again.pending().size() != records + 1 ||
      *again.pending().back().payload != R"({"a_1":"appended"})") {
    std::abort();
  }
  return 0;
}
