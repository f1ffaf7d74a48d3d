// What the test host processes share: the acknowledgement of each report, its
// number as 8 bytes on standard output, written once the report returned.
#ifndef QXLOG_TESTS_RELIABILITY_TOOLS_ACKNOWLEDGE_H_
#define QXLOG_TESTS_RELIABILITY_TOOLS_ACKNOWLEDGE_H_

#include <unistd.h>

#include <cstddef>
#include <cstdint>

namespace qxlog::testing {

// False when standard output is gone (the parent stopped reading).
inline bool acknowledge(uint64_t number) {
  const char* bytes = reinterpret_cast<const char*>(&number);
  std::size_t left = sizeof number;
  while (left > 0) {
    ssize_t written = ::write(STDOUT_FILENO, bytes, left);
    if (written <= 0) return false;
    bytes += written;
    left -= static_cast<std::size_t>(written);
  }
  return true;
}

inline void ignoreConsole(const char*, void*) {}

}  // namespace qxlog::testing

#endif  // QXLOG_TESTS_RELIABILITY_TOOLS_ACKNOWLEDGE_H_
