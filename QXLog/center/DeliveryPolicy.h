// How the log center's action records travel. The center hands each stored
// action record, each submission and each flush to its policy:
// DescribedDelivery sends and clears as existing log servers expect;
// AtLeastOnceDelivery keeps every record in a journal until an answer "200"
// confirms it. Both post through the same envelope, upload and settings code.
#ifndef QXLOG_CENTER_DELIVERYPOLICY_H_
#define QXLOG_CENTER_DELIVERYPOLICY_H_

#include <cstddef>
#include <string>

#include "QXLog/QXLogValue.h"

namespace qxlog::center {

class DeliveryPolicy {
 public:
  virtual ~DeliveryPolicy() = default;

  // Keeps a stored action record; runs on the reporting thread and returns
  // once the record is kept. The count check follows, in the center.
  virtual void storeAction(Dictionary record) = 0;
  // The action records kept and not yet sent or confirmed.
  virtual std::size_t actionCount() = 0;
  virtual Array actionRecords() = 0;
  // submitAllLog: sends what the policy sends at the batch size.
  virtual void submit() = 0;
  // Starts sending everything kept, whatever the batch size.
  virtual void flush() = 0;
  // Records kept or out that no answer has confirmed yet.
  virtual std::size_t unconfirmed() = 0;
  // Takes over a diagnosis upload (its envelope, resolved URL and whether it
  // announces gzip) to deliver it itself; false leaves it to the center,
  // which posts it once.
  virtual bool keepDiagnosis(const Dictionary& /*envelope*/, const std::string& /*url*/,
                             bool /*announceGzip*/) {
    return false;
  }
};

}  // namespace qxlog::center

#endif  // QXLOG_CENTER_DELIVERYPOLICY_H_
