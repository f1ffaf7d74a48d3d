// One pending queue and its queue file: the records in memory, loaded from the
// file on first use, and the XML and JSON kept per record beside them. Every
// change goes through this object, so the per-record caches stay in step with
// the records. Not synchronised: the center calls it under its lock.
#ifndef QXLOG_CENTER_PENDINGQUEUE_H_
#define QXLOG_CENTER_PENDINGQUEUE_H_

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "QXLog/QXLogValue.h"
#include "QXLog/platform/Env.h"
#include "QXLog/support/QueueJson.h"
#include "QXLog/support/QueueXml.h"

namespace qxlog::center {

class PendingQueue {
 public:
  // `keepsJson`: serialise each record's JSON as it is stored, so that the
  // upload envelope finds it ready.
  PendingQueue(const platform::Env& env, std::string_view fileName, bool keepsJson);

  // The records; a missing, empty, damaged or wrong-typed file reads as none.
  const Array& records() { return loaded(); }
  std::size_t size() { return loaded().size(); }
  bool empty() { return loaded().empty(); }

  // Appends the record and rewrites the file.
  void append(Dictionary record);
  // Drops the oldest records (memory only) until `room` more fit under
  // `limit`; returns how many were dropped.
  std::size_t makeRoom(std::size_t limit, std::size_t room = 1);
  // Replaces the records and rewrites the file.
  void rewrite(Array records);
  // Replaces the records in memory; the file is left as it is.
  void replace(Array records);
  // Takes the records out, leaving the queue empty in memory (file untouched).
  Array take();
  // Empties the queue and removes its file.
  void clear();
  // Removes the oldest `count` records and rewrites the file (or removes it
  // when nothing is left).
  void removeFirst(std::size_t count);

  // The JSON array of all records, or of the oldest `count`.
  const std::string& json();
  std::string jsonOfFirst(std::size_t count);

 private:
  Array& loaded();
  void writeFile();
  void forgetCaches();

  const platform::Env& env_;
  std::string_view fileName_;
  bool keepsJson_;
  std::optional<Array> records_;
  support::QueueXml xml_;
  support::QueueJson json_;
};

}  // namespace qxlog::center

#endif  // QXLOG_CENTER_PENDINGQUEUE_H_
