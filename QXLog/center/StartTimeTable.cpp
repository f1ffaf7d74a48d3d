// The start-time table: item key to the millisecond time its start was marked.
// Entries are never removed; the table grows with every new key.
#include "QXLog/QXLogCenter.h"
#include "QXLog/center/CenterState.h"
#include "QXLog/center/QueueFileNames.h"
#include "QXLog/platform/Env.h"
#include "QXLog/support/QueueFiles.h"
#include "QXLog/support/Time.h"

void QXLogCenter::saveActionStartTime(const std::string& key) {
  std::string now = qxlog::support::currentMillisText(env().clock());
  qxlog::platform::MutexLock lock(state_->mutex);
  Dictionary& table = state_->startTimeTableLocked();
  table.set(key, qxlog::Value(std::move(now)));
  qxlog::support::writeCollection(env(), table, qxlog::center::kStartTimeFile);
}

QXLogCenter::NullableString QXLogCenter::getActionStartTime(const std::string& key) {
  qxlog::platform::MutexLock lock(state_->mutex);
  const qxlog::Value* entry = state_->startTimeTableLocked().find(key);
  if (entry == nullptr || entry->asString() == nullptr) return std::nullopt;
  return *entry->asString();
}
