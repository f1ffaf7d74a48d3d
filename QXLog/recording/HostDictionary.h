// The dictionary handle of the C interface: a reference-counted, locked
// dictionary, so that a deferred report can keep the host's handle alive.
#ifndef QXLOG_RECORDING_HOSTDICTIONARY_H_
#define QXLOG_RECORDING_HOSTDICTIONARY_H_

#include <atomic>
#include <memory>
#include <mutex>

#include "QXLog/QXLog.h"
#include "QXLog/QXLogValue.h"

struct QXLogDictionary {
  std::atomic<int> references{1};
  mutable std::mutex mutex;
  qxlog::Dictionary contents;
};

namespace qxlog::recording {

// A counted reference to a host dictionary; empty for NULL.
class DictionaryHandle {
 public:
  explicit DictionaryHandle(QXLogDictionary* dictionary);
  DictionaryHandle(const DictionaryHandle& other);
  DictionaryHandle& operator=(const DictionaryHandle&) = delete;
  ~DictionaryHandle();

  bool isNull() const { return dictionary_ == nullptr; }
  // A copy of the contents, taken under the dictionary's lock.
  Dictionary snapshot() const;

 private:
  QXLogDictionary* dictionary_;
};

void retainDictionary(QXLogDictionary* dictionary);

}  // namespace qxlog::recording

#endif  // QXLOG_RECORDING_HOSTDICTIONARY_H_
