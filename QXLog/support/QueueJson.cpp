#include "QXLog/support/QueueJson.h"

#include "QXLog/serial/Json.h"

namespace qxlog::support {

const std::string& QueueJson::textFor(const Array& queue) {
  // A queue shorter than the cache cannot be the one it was made from.
  if (count_ > queue.size()) invalidate();
  if (count_ == queue.size()) return text_;
  // The closing bracket is taken off and put back after the new records.
  text_.pop_back();
  try {
    for (; count_ < queue.size(); ++count_) {
      if (count_ > 0) text_ += ',';
      serial::appendJson(text_, queue[count_]);
    }
    text_ += ']';
  } catch (...) {
    invalidate();  // a half-written record must not be taken for a whole one
    throw;
  }
  return text_;
}

void QueueJson::invalidate() {
  count_ = 0;
  text_.assign("[]");
}

}  // namespace qxlog::support
