#include "QXLog/center/PendingQueue.h"

#include <algorithm>
#include <utility>

#include "QXLog/serial/Json.h"
#include "QXLog/support/QueueFiles.h"

namespace qxlog::center {

PendingQueue::PendingQueue(const platform::Env& env, std::string_view fileName, bool keepsJson)
    : env_(env), fileName_(fileName), keepsJson_(keepsJson) {}

Array& PendingQueue::loaded() {
  if (!records_) records_ = support::readArray(env_, fileName_).value_or(Array());
  return *records_;
}

void PendingQueue::append(Dictionary record) {
  loaded().emplace_back(std::move(record));
  writeFile();
  if (keepsJson_) json_.textFor(*records_);
}

std::size_t PendingQueue::makeRoom(std::size_t limit, std::size_t room) {
  Array& queue = loaded();
  std::size_t keep = limit > room ? limit - room : 0;
  if (queue.size() <= keep) return 0;
  std::size_t dropped = queue.size() - keep;
  queue.erase(queue.begin(), queue.begin() + static_cast<std::ptrdiff_t>(dropped));
  forgetCaches();
  return dropped;
}

void PendingQueue::rewrite(Array records) {
  replace(std::move(records));
  writeFile();
}

void PendingQueue::replace(Array records) {
  records_ = std::move(records);
  forgetCaches();
}

Array PendingQueue::take() {
  Array taken = std::move(loaded());
  records_->clear();
  forgetCaches();
  return taken;
}

void PendingQueue::clear() {
  loaded().clear();
  forgetCaches();
  support::removeQueueFile(env_, fileName_);
}

void PendingQueue::removeFirst(std::size_t count) {
  Array& queue = loaded();
  count = std::min(count, queue.size());
  if (count == 0) return;
  if (count == queue.size()) return clear();
  queue.erase(queue.begin(), queue.begin() + static_cast<std::ptrdiff_t>(count));
  forgetCaches();
  writeFile();
}

const std::string& PendingQueue::json() {
  return json_.textFor(loaded());
}

std::string PendingQueue::jsonOfFirst(std::size_t count) {
  const Array& queue = loaded();
  if (count >= queue.size()) return json();
  std::string text = "[";
  for (std::size_t i = 0; i < count; ++i) {
    if (i > 0) text += ',';
    serial::appendJson(text, queue[i]);
  }
  text += ']';
  return text;
}

void PendingQueue::writeFile() {
  support::writeQueueFile(env_, xml_.documentFor(*records_), fileName_);
}

void PendingQueue::forgetCaches() {
  xml_.invalidate();
  json_.invalidate();
}

}  // namespace qxlog::center
