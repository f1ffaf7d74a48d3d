// Serving the main queue from a host's event loop: the descriptor that is
// readable exactly when a task is due, the host's own scheduler through the C
// interface, a GLib host run for real, and the console's routing.
#include <gtest/gtest.h>
#include <poll.h>

#include <chrono>
#include <filesystem>

#include "QXLog/QXLog.h"
#include "QXLog/QXLogCenter.h"
#include "QXLog/platform/Console.h"
#include "QXLog/platform/MainQueue.h"
#include "tests/support/TestPlatform.h"
#include "tests/support/TestServer.h"

namespace qxlog::testing {
namespace {

using namespace std::chrono_literals;
using Steady = std::chrono::steady_clock;

bool readableWithin(int fd, std::chrono::milliseconds wait) {
  pollfd watched{fd, POLLIN, 0};
  return ::poll(&watched, 1, static_cast<int>(wait.count())) == 1;
}

// Real clock, real descriptor: short delays only.
TEST(MainQueueDescriptorTest, IsReadableExactlyWhenATaskIsDueAndDrainRearmsIt) {
  platform::MainQueue queue;
  int fd = queue.fileDescriptor();
  ASSERT_GE(fd, 0);
  EXPECT_EQ(queue.fileDescriptor(), fd);
  EXPECT_FALSE(readableWithin(fd, 0ms));  // nothing scheduled

  int ran = 0;
  queue.async([&] { ++ran; });
  EXPECT_TRUE(readableWithin(fd, 0ms));
  EXPECT_EQ(queue.drain(), 1u);
  EXPECT_FALSE(readableWithin(fd, 0ms));

  // A later task first, then an earlier one: the earlier one re-arms it.
  queue.post([&] { ++ran; }, 2s);
  Steady::time_point posted = Steady::now();
  queue.post([&] { ++ran; }, 30ms);
  EXPECT_FALSE(readableWithin(fd, 10ms));
  ASSERT_TRUE(readableWithin(fd, 1000ms));
  EXPECT_GE(Steady::now() - posted, 30ms);
  EXPECT_EQ(queue.drain(), 1u);
  EXPECT_FALSE(readableWithin(fd, 0ms));  // armed again, for the 2 s task
  EXPECT_EQ(ran, 2);
  EXPECT_EQ(queue.pending(), 1u);
}

std::vector<uint64_t> g_delays;
std::vector<std::pair<void (*)(void*), void*>> g_posted;
void hostPost(void (*task)(void*), void* taskContext, uint64_t delayNanos, void* context) {
  ++*static_cast<int*>(context);
  g_delays.push_back(delayNanos);
  g_posted.emplace_back(task, taskContext);
}

class EventLoopTest : public LibraryTest {};

TEST_F(EventLoopTest, TheHostsSchedulerRunsDeferredReportsWhenItSays) {
  int posts = 0;
  QXLogSetMainQueueExecutor(hostPost, &posts);
  QXLogCenter::center().format().setLimitLogCount(100);
  recordActionLog("deferred", "");  // not ready: retried in 5 s on the main queue
  ASSERT_EQ(posts, 1);
  EXPECT_EQ(g_delays[0], 5000000000u);
  logEnvReady(true);
  g_posted[0].first(g_posted[0].second);
  EXPECT_EQ(items(QXLogCenter::center().actionLog()), std::vector<std::string>{"deferred"});
  QXLogSetMainQueueExecutor(nullptr, nullptr);
  logEnvReady(false);
  recordActionLog("later", "");
  EXPECT_EQ(posts, 1);  // back on the built-in queue
}

TEST(ConsoleRoutingTest, EnvironmentChoosesStderrSyslogOrNothing) {
  using platform::ConsoleDestination;
  EXPECT_EQ(platform::consoleDestinationFromEnvironment(nullptr), ConsoleDestination::kStderr);
  EXPECT_EQ(platform::consoleDestinationFromEnvironment("bogus"), ConsoleDestination::kStderr);
  EXPECT_EQ(platform::consoleDestinationFromEnvironment("syslog"), ConsoleDestination::kSyslog);
  EXPECT_EQ(platform::consoleDestinationFromEnvironment("off"), ConsoleDestination::kOff);
  // A process's trace lines with and without the variable: ToolsTest.
}

#ifdef QXLOG_TEST_GLIB_HOST
TEST(GlibHostTest, AGlibLoopServesTheMainQueueThroughItsDescriptorWithoutPolling) {
  TestServer server;
  char pattern[] = "/tmp/qxlog-glib-XXXXXX";
  ASSERT_NE(mkdtemp(pattern), nullptr);
  Finished host = run(std::string(QXLOG_TEST_GLIB_HOST) + " " + server.url("") + " " + pattern);
  EXPECT_EQ(host.status, 0) << host.output;
  // Each of the two uploads wakes the loop for its answer, and the answer for
  // the delivery report; a loop that polled would wake far more often.
  int confirmed = 0, milliseconds = 0, wakeups = 0;
  std::size_t at = host.output.rfind("\nconfirmed ");
  ASSERT_NE(at, std::string::npos) << host.output;
  ASSERT_EQ(std::sscanf(host.output.c_str() + at, "\nconfirmed %d records in %d ms, %d wake-ups",
                        &confirmed, &milliseconds, &wakeups),
            3);
  EXPECT_EQ(confirmed, 3);
  EXPECT_LE(wakeups, 8);
  EXPECT_EQ(server.requestCount(), 2u);
  std::filesystem::remove_all(pattern);
}
#endif

}  // namespace
}  // namespace qxlog::testing
