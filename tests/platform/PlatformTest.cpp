// Platform edge cases no library test reaches, and the main queue served from a host's loop: the
// descriptor readable when a task is due, the host's scheduler, a real GLib host, console routing.
#include <gtest/gtest.h>
#include <poll.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <latch>
#include <limits>
#include <vector>

#include "QXLog/QXLog.h"
#include "QXLog/QXLogCenter.h"
#include "QXLog/platform/Console.h"
#include "QXLog/platform/GlobalQueue.h"
#include "QXLog/platform/MainQueue.h"
#include "QXLog/platform/PosixFileSystem.h"
#include "QXLog/serial/Json.h"
#include "QXLog/serial/Text.h"
#include "tests/support/TestPlatform.h"
#include "tests/support/TestServer.h"

namespace qxlog::platform {
namespace {

using namespace qxlog::serial;  // the serialisers are tested here too

using namespace std::chrono_literals;
using std::chrono::seconds;
using Steady = std::chrono::steady_clock;
const std::string kReplacement = "\xEF\xBF\xBD";

TEST(TextTest, IntegersSaturateNonFiniteNumbersReadLowerCaseCodePointsEndAtU10FFFF) {
  EXPECT_EQ(longLongValue("99999999999999999999"), std::numeric_limits<int64_t>::max());
  EXPECT_EQ(longLongValue("-99999999999999999999"), std::numeric_limits<int64_t>::min());
  EXPECT_EQ(intValue("-2147483649"), std::numeric_limits<int32_t>::min());
  volatile double zero = 0.0;
  EXPECT_EQ(formatFixed(zero / zero, 2), "nan");  // a negative NaN on x86
  EXPECT_EQ(formatFixed(-1.0 / zero, 2), "-inf");
  EXPECT_EQ(validUtf8("\xF4\x90\x80\x80").substr(0, 3), kReplacement);  // past U+10FFFF
}

TEST(JsonTest, AppendsAfterWhatTheStringHoldsAcrossGrowthSteps) {
  // Several growth steps, with escapes at the end where the worst-case reserve matters most.
  const std::string text = std::string(10000, 'x') + "\"\x01";
  std::string out = "prefix:";
  appendJson(out,
             Value(Array{Value(text), Value(int64_t{-9223372036854775807 - 1}), Value(1e300)}));
  EXPECT_EQ(out,
            "prefix:[\"" + std::string(10000, 'x') + "\\\"\\u0001\",-9223372036854775808,1e+300]");
}

TEST(MainQueueTest, DrainRunsOnlyWhatIsDueInDueOrder) {
  auto clock = std::make_shared<testing::VirtualClock>();
  MainQueue queue(clock);
  std::vector<int> ran;
  for (auto [tag, due] : {std::pair{5, 5}, {1, 1}, {0, 0}, {10, 1}}) {
    queue.post([&ran, tag] { ran.push_back(tag); }, seconds(due));
  }
  EXPECT_EQ(queue.drain(), 1u);
  clock->advance(seconds(4));
  EXPECT_EQ(queue.drain(), 2u);
  EXPECT_EQ(ran, (std::vector<int>{0, 1, 10}));
  EXPECT_EQ(queue.pending(), 1u);
}

TEST(GlobalQueueTest, RunsTasksConcurrently) {
  // Two tasks that each wait for the other finish only if both run at once.
  std::latch bothRunning(2);
  std::promise<void> done[2];
  GlobalQueue queue(2);
  for (std::promise<void>& finished : done) {
    queue.async([&] {
      bothRunning.arrive_and_wait();
      finished.set_value();
    });
  }
  for (std::promise<void>& finished : done) {
    EXPECT_EQ(finished.get_future().wait_for(seconds(10)), std::future_status::ready);
  }
}

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

// What the host's scheduler was handed: each task with its delay.
struct Posted {
  std::vector<uint64_t> delays;
  std::vector<std::pair<void (*)(void*), void*>> tasks;
};
void hostPost(void (*task)(void*), void* taskContext, uint64_t delayNanos, void* context) {
  static_cast<Posted*>(context)->delays.push_back(delayNanos);
  static_cast<Posted*>(context)->tasks.emplace_back(task, taskContext);
}

class EventLoopTest : public testing::LibraryTest {};

TEST_F(EventLoopTest, TheHostsSchedulerRunsDeferredReportsWhenItSays) {
  Posted posted;
  QXLogSetMainQueueExecutor(hostPost, &posted);
  QXLogCenter::center().format().setLimitLogCount(100);
  recordActionLog("deferred", "");  // not ready: retried in 5 s on the main queue
  ASSERT_EQ(posted.delays, std::vector<uint64_t>{5000000000u});
  logEnvReady(true);
  posted.tasks[0].first(posted.tasks[0].second);
  EXPECT_EQ(testing::items(QXLogCenter::center().actionLog()),
            std::vector<std::string>{"deferred"});
  QXLogSetMainQueueExecutor(nullptr, nullptr);
  logEnvReady(false);
  recordActionLog("later", "");
  EXPECT_EQ(posted.tasks.size(), 1u);  // back on the built-in queue
}

// A process's trace lines with and without the variable: ToolsTest.
TEST(ConsoleRoutingTest, EnvironmentChoosesStderrSyslogOrNothing) {
  EXPECT_EQ(platform::consoleDestinationFromEnvironment(nullptr), ConsoleDestination::kStderr);
  EXPECT_EQ(platform::consoleDestinationFromEnvironment("bogus"), ConsoleDestination::kStderr);
  EXPECT_EQ(platform::consoleDestinationFromEnvironment("syslog"), ConsoleDestination::kSyslog);
  EXPECT_EQ(platform::consoleDestinationFromEnvironment("off"), ConsoleDestination::kOff);
}

// The bound is exact to the byte; a file holding more than its size says (/proc) stops past it.
TEST(RegularFileReadTest, OutcomeByWhatLiesAtThePathAndTheBoundExactToTheByte) {
  char pattern[] = "/tmp/qxlog-read-XXXXXX";
  ASSERT_NE(mkdtemp(pattern), nullptr);
  const std::string dir = pattern, file = dir + "/five", link = dir + "/link";
  std::ofstream(file) << "12345";
  std::filesystem::create_symlink(file, link);
  PosixFileSystem files({});
  using enum RegularFileRead::Outcome;
  const std::string paths[] = {
      file, link, file, dir + "/none", file + "/below", dir, "/dev/zero", "/proc/self/status"};
  const std::size_t bounds[] = {5, 5, 4, 5, 5, 5, 5, 10};
  std::vector<std::pair<RegularFileRead::Outcome, std::string>> got;
  for (std::size_t i = 0; i < std::size(paths); ++i) {
    RegularFileRead read = files.readRegularFile(paths[i], bounds[i]);
    got.emplace_back(read.outcome, read.contents);
  }
  const decltype(got) expected{{kRead, "12345"},  {kRead, "12345"}, {kTooLarge, ""},
                               {kMissing, ""},    {kMissing, ""},   {kNotRegular, ""},
                               {kNotRegular, ""}, {kTooLarge, ""}};
  EXPECT_EQ(got, expected);
  EXPECT_GT(files.read("/proc/self/status").value_or("").size(), 10u);
  std::filesystem::remove_all(dir);
}

#ifdef QXLOG_TEST_GLIB_HOST
TEST(GlibHostTest, AGlibLoopServesTheMainQueueThroughItsDescriptorWithoutPolling) {
  testing::TestServer server;
  char pattern[] = "/tmp/qxlog-glib-XXXXXX";
  ASSERT_NE(mkdtemp(pattern), nullptr);
  testing::Finished host =
      testing::run(std::string(QXLOG_TEST_GLIB_HOST) + " " + server.url("") + " " + pattern);
  EXPECT_EQ(host.status, 0) << host.output;
  // Each upload wakes the loop for its answer and its delivery report; polling would wake more.
  int confirmed = 0, milliseconds = 0, wakeups = 0;
  std::size_t at = host.output.rfind("\nconfirmed ");
  ASSERT_NE(at, std::string::npos) << host.output;
  ASSERT_EQ(std::sscanf(host.output.c_str() + at, "\nconfirmed %d records in %d ms, %d wake-ups",
                        &confirmed, &milliseconds, &wakeups),
            3);
  EXPECT_EQ(confirmed, 3);
  EXPECT_LE(wakeups, 8);
  // The first batch, cut off the reporting thread, holds one record or all three.
  EXPECT_GE(server.requestCount(), 1u);
  EXPECT_LE(server.requestCount(), 2u);
  std::filesystem::remove_all(pattern);
}
#endif

}  // namespace
}  // namespace qxlog::platform
