// Uploads under real concurrency: the built-in main and global queues, the
// system clock, several host threads and a loopback log server. (The demo and
// the GLib host, run by other tests, answer uploads one by one on real queues.)
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <set>
#include <thread>

#include "QXLog/QXLog.h"
#include "QXLog/QXLogCenter.h"
#include "QXLog/center/CenterRegistry.h"
#include "QXLog/platform/BuiltInQueues.h"
#include "QXLog/platform/Env.h"
#include "QXLog/serial/PropertyList.h"
#include "collector/decode/EnvelopeDecoder.h"
#include "tests/support/TestPlatform.h"
#include "tests/support/TestServer.h"

namespace qxlog::testing {
namespace {

using std::chrono::milliseconds;

constexpr const char* kKey = "stress-key-16byt";

class UploadStressTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/qxlog-stress-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    documents_ = pattern;
    env_ = std::make_shared<platform::Env>(
        platform::Env::Parts{.console = [](const std::string&) {}, .documents = documents_});
    QXLogMessageFormat& format = center::CenterRegistry::replaceForTesting(env_).format();
    format.setPushLogUrl(server_.url("/log"));
    format.setLogEncryptionKey(kKey);
    format.setUid("1");
    format.setPush_interval_time(Value("60000"));
    logEnvReady(true);
  }
  void TearDown() override { std::filesystem::remove_all(documents_); }

  // Every "a_1" the server received, in arrival order.
  std::vector<std::string> received() const {
    std::vector<std::string> all;
    for (const ReceivedRequest& request : server_.requests()) {
      auto body = collector::decodeLogData(request.param("log_data"), kKey);
      EXPECT_TRUE(body) << body.error;
      const Value* records = body ? body.value->asDictionary()->find("a") : nullptr;
      const std::vector<std::string> sent = items(records ? *records->asArray() : Array());
      all.insert(all.end(), sent.begin(), sent.end());
    }
    return all;
  }

  // Waits until the server has seen no request for a while.
  void waitForQuiet() const {
    std::size_t seen = SIZE_MAX;
    while (seen != server_.requestCount()) {
      seen = server_.requestCount();
      std::this_thread::sleep_for(milliseconds(300));
    }
  }

  TestServer server_;
  std::string documents_;
  std::shared_ptr<platform::Env> env_;
};

TEST_F(UploadStressTest, ConcurrentReportsAreNeverDuplicatedOrInvented) {
  QXLogCenter::center().format().setLimitLogCount(20);
  std::thread mainThread([] { QXLogMainQueueRun(); });
  constexpr int kThreads = 4;
  constexpr int kPerThread = 400;
  std::vector<std::thread> hosts;
  for (int t = 0; t < kThreads; ++t) {
    hosts.emplace_back([t] {
      for (int i = 0; i < kPerThread; ++i) {
        std::string item = std::to_string(t) + "-" + std::to_string(i);
        recordActionLog(item.c_str(), "0");
      }
    });
  }
  for (std::thread& host : hosts) host.join();
  waitForQuiet();
  QXLogMainQueueStop();
  mainThread.join();

  std::set<std::string> reported;
  for (int t = 0; t < kThreads; ++t) {
    for (int i = 0; i < kPerThread; ++i)
      reported.insert(std::to_string(t) + "-" + std::to_string(i));
  }
  const std::vector<std::string> items = received();
  const std::set<std::string> unique(items.begin(), items.end());
  EXPECT_EQ(unique.size(), items.size()) << "a record was received twice";
  EXPECT_TRUE(std::includes(reported.begin(), reported.end(), unique.begin(), unique.end()));
  EXPECT_GT(items.size(), 0u);
  // The queue file is empty or whole.
  const std::string bytes =
      env_->files().read(env_->documentsPath("UserStatisticalLog.plist")).value_or("");
  EXPECT_TRUE(bytes.empty() || serial::parsePropertyList(bytes).value_or(Value()).isArray());
}

}  // namespace
}  // namespace qxlog::testing
