// The described delivery: action records wait in "UserStatisticalLog.plist",
// rewritten on every store; a batch leaves the queue when its upload starts,
// is repeated once after a transport failure and is otherwise confirmed or
// dropped (Submission.cpp). A thin policy over the center's own queue code.
#ifndef QXLOG_CENTER_DESCRIBEDDELIVERY_H_
#define QXLOG_CENTER_DESCRIBEDDELIVERY_H_

#include <cstddef>

#include "QXLog/QXLogCenter.h"
#include "QXLog/center/DeliveryPolicy.h"

namespace qxlog::center {

class DescribedDelivery final : public DeliveryPolicy {
 public:
  explicit DescribedDelivery(QXLogCenter& center) : center_(center) {}

  void storeAction(Dictionary record) override;
  std::size_t actionCount() override;
  Array actionRecords() override;
  void submit() override;
  // One submitAllLog now.
  void flush() override;
  // The records queued and those in uploads not yet answered.
  std::size_t unconfirmed() override;

 private:
  QXLogCenter& center_;
};

}  // namespace qxlog::center

#endif  // QXLOG_CENTER_DESCRIBEDDELIVERY_H_
