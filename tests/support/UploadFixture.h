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

class UploadTest : public LibraryTest {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Runs every task due now: requests go out and their answers are handled.
  void settle() { dispatcher_->runDue(); }
  // The upload body the server received in request `index`, decoded.
  Value body(std::size_t index) const;
  // The records of request `index`.
  Array records(std::size_t index) const;
  // The "a_1" of each record of request `index`.
  std::vector<std::string> sentItems(std::size_t index) const;

  std::unique_ptr<TestServer> server_;
};

}  // namespace qxlog::testing

#endif  // QXLOG_TESTS_SUPPORT_UPLOADFIXTURE_H_
