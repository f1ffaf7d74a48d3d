// The XML property list of a queue, kept one record at a time: records in a
// queue are never edited, so a store that appends one record serialises only
// that record and rewrites the file by concatenation.
#ifndef QXLOG_SUPPORT_QUEUEXML_H_
#define QXLOG_SUPPORT_QUEUEXML_H_

#include <string>
#include <string_view>
#include <vector>

#include "QXLog/QXLogValue.h"

namespace qxlog::support {

class QueueXml {
 public:
  // The whole file for `queue`. Records at positions already seen are taken
  // from the cache, so the owner calls invalidate() whenever it replaces the
  // queue or removes records from it.
  const std::string& documentFor(const Array& queue);
  void invalidate();
  // Records whose XML is cached.
  std::size_t cachedCount() const { return elements_.size(); }

 private:
  std::vector<std::string> elements_;
  std::string document_;
};

}  // namespace qxlog::support

#endif  // QXLOG_SUPPORT_QUEUEXML_H_
