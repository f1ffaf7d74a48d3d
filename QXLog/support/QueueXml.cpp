#include "QXLog/support/QueueXml.h"

#include "QXLog/serial/PropertyList.h"

namespace qxlog::support {

const std::string& QueueXml::documentFor(const Array& queue) {
  // A queue shorter than the cache cannot be the one it was made from.
  if (elements_.size() > queue.size()) invalidate();
  elements_.reserve(queue.size());
  for (std::size_t i = elements_.size(); i < queue.size(); ++i) {
    std::string element;
    serial::appendXmlRootArrayElement(element, queue[i]);
    elements_.push_back(std::move(element));
  }
  document_.clear();
  serial::appendXmlPropertyListOfElements(document_, elements_);
  return document_;
}

void QueueXml::invalidate() {
  elements_.clear();
  document_.clear();
}

}  // namespace qxlog::support
