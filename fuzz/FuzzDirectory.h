// Where a fuzzing process keeps its files: a new directory under /tmp.
#ifndef QXLOG_FUZZ_FUZZDIRECTORY_H_
#define QXLOG_FUZZ_FUZZDIRECTORY_H_

#include <stdlib.h>

#include <cstdlib>
#include <memory>
#include <string>

#include "QXLog/center/CenterRegistry.h"
#include "QXLog/platform/Env.h"

inline std::string makeFuzzDirectory() {
  char pattern[] = "/tmp/qxlog-fuzz-XXXXXX";
  if (::mkdtemp(pattern) == nullptr) std::abort();
  return pattern;
}

// The log center on the system's environment, its Documents directory new.
inline void createFuzzCenter() {
  qxlog::center::CenterRegistry::createWithEnv(std::make_shared<qxlog::platform::Env>(
      qxlog::platform::Env::Parts{.documents = makeFuzzDirectory()}));
}

#endif  // QXLOG_FUZZ_FUZZDIRECTORY_H_
