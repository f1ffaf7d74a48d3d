// The compact JSON of a queue's records, kept one record at a time beside the
// queue: records in a queue are never edited, so the upload envelope takes the
// records' text from here instead of serialising the queue again.
#ifndef QXLOG_SUPPORT_QUEUEJSON_H_
#define QXLOG_SUPPORT_QUEUEJSON_H_

#include <cstddef>
#include <string>

#include "QXLog/QXLogValue.h"

namespace qxlog::support {

class QueueJson {
 public:
  // The JSON array "[...]" of `queue`, as serial::appendJson writes it.
  // Records at positions already seen are taken from the cache, so the owner
  // calls invalidate() whenever it replaces the queue or removes records.
  const std::string& textFor(const Array& queue);
  void invalidate();
  // Records whose JSON is cached.
  std::size_t cachedCount() const { return count_; }

 private:
  std::size_t count_ = 0;
  std::string text_ = "[]";
};

}  // namespace qxlog::support

#endif  // QXLOG_SUPPORT_QUEUEJSON_H_
