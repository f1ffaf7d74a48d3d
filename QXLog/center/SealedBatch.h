// An at-least-once batch as it was cut and sealed: the posted "log_data" and
// "token", how many of the journal's oldest records it carries and where the
// last of them ends. It is kept in "QXLogJournal.inflight" (replaced whole)
// until it is confirmed or dropped, so that every attempt, also after a
// restart, posts the same bytes.
#ifndef QXLOG_CENTER_SEALEDBATCH_H_
#define QXLOG_CENTER_SEALEDBATCH_H_

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "QXLog/center/Journal.h"

namespace qxlog::center {

struct SealedBatch {
  // The file is at most this long; a longer one is damaged.
  static constexpr std::size_t kMaxFileBytes = 64 << 20;

  JournalPosition end;
  std::size_t records = 0;
  std::string logData;
  std::string token;

  std::string encode() const;
  // Nothing when the bytes are not one whole, undamaged sealed batch.
  static std::optional<SealedBatch> decode(std::string_view bytes);
};

}  // namespace qxlog::center

#endif  // QXLOG_CENTER_SEALEDBATCH_H_
