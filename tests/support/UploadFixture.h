// A library test with a real log server on 127.0.0.1 that the format object
// points at, and the means to read back what the server received.
#ifndef QXLOG_TESTS_SUPPORT_UPLOADFIXTURE_H_
#define QXLOG_TESTS_SUPPORT_UPLOADFIXTURE_H_

#include <memory>

#include "QXLog/QXLogCenter.h"
#include "tests/support/TestPlatform.h"
#include "tests/support/TestServer.h"

namespace qxlog::testing {

inline constexpr const char* kTestKey = "0123456789abcdef";

using Items = std::vector<std::string>;
// "first" .. "first + count - 1".
Items numbers(int first, int count);

class UploadTest : public LibraryTest {
 protected:
  struct Report {
    QXLogCenter::BatchOutcome outcome;
    std::size_t records;
    std::string reason;
  };

  void SetUp() override;
  void TearDown() override;

  // Runs every task due now: requests go out and their answers are handled.
  void settle() { dispatcher_->runDue(); }
  // Points the format object at the server, as after a settings answer.
  void pointAtServer();
  void atLeastOnce() { center().setDelivery(QXLogCenter::Delivery::kAtLeastOnce); }
  // A new process over the same files, pointed at the server, watched, at least once.
  void restartAtLeastOnce();
  // Collects the delivery handler's reports in reports_, from empty.
  void watchDeliveries();
  // Action records with the given "a_1"; with a settle after them, the server's request count.
  void report(const Items& items);
  void report(int first, int count) { report(numbers(first, count)); }
  std::size_t reportAndSettle(const Items& items) {
    report(items);
    settle();
    return server_->requestCount();
  }
  std::size_t reportAndSettle(int first, int count) {
    return reportAndSettle(numbers(first, count));
  }

  // The upload body the server received in request `index`, decoded.
  Value body(std::size_t index) const;
  // The records of request `index`.
  Array records(std::size_t index) const;
  // The "a_1" of each record of request `index`, and of every request.
  Items sentItems(std::size_t index) const { return items(records(index)); }
  Items allSentItems() const;
  // Each report as "C2 D1 " (confirmed, repeated, dropped; records).
  std::string outcomes() const;
  // The records of each settled outcome summed: "C19 D1 ".
  std::string totals() const;

  std::unique_ptr<TestServer> server_;
  std::vector<Report> reports_;
};

}  // namespace qxlog::testing

#endif  // QXLOG_TESTS_SUPPORT_UPLOADFIXTURE_H_
