// Any bytes through gzipInflate, and what compresses must come back whole.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "QXLog/QXLogHelper.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string input(reinterpret_cast<const char*>(data), size);
  (void)QXLogHelper::gzipInflate(input);
  QXLogHelper::Data packed = QXLogHelper::gzipDeflate(input);
  if (!input.empty()) {
    QXLogHelper::Data unpacked = packed ? QXLogHelper::gzipInflate(*packed) : std::nullopt;
    if (!unpacked || *unpacked != input) std::abort();
  }
  return 0;
}
