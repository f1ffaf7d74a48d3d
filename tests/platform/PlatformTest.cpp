// Platform edge cases that no test of the library reaches.
#include <gtest/gtest.h>

#include <future>
#include <limits>
#include <vector>

#include "QXLog/platform/GlobalQueue.h"
#include "QXLog/platform/MainQueue.h"
#include "QXLog/serial/Json.h"
#include "QXLog/serial/Text.h"
#include "tests/support/TestPlatform.h"

namespace qxlog::platform {
namespace {

using namespace qxlog::serial;  // the serialisers are tested here too

using std::chrono::seconds;
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
  // Long enough to need several growth steps, with escapes at the end where
  // the worst-case reserve matters most.
  const std::string text = std::string(10000, 'x') + "\"\x01";
  std::string out = "prefix:";
  appendJson(out,
             Value(Array{Value(text), Value(int64_t{-9223372036854775807 - 1}), Value(1e300)}));
  EXPECT_EQ(out,
            "prefix:[\"" + std::string(10000, 'x') + "\\\"\\u0001\",-9223372036854775808,1e+300]");
}

TEST(MainQueueTest, DrainRunsOnlyWhatIsDueInDueOrder) {
  auto clock = std::make_shared<testing::VirtualClock>();
  setClock(clock);
  MainQueue queue;
  std::vector<int> ran;
  for (auto [tag, due] : {std::pair{5, 5}, {1, 1}, {0, 0}, {10, 1}}) {
    queue.post([&ran, tag] { ran.push_back(tag); }, seconds(due));
  }
  EXPECT_EQ(queue.drain(), 1u);
  clock->advance(seconds(4));
  EXPECT_EQ(queue.drain(), 2u);
  EXPECT_EQ(ran, (std::vector<int>{0, 1, 10}));
  EXPECT_EQ(queue.pending(), 1u);
  setClock(nullptr);
}

TEST(GlobalQueueTest, RunsTasksConcurrently) {
  GlobalQueue queue(2);
  // Two tasks that each wait for the other finish only if both run at once.
  std::promise<void> first, second, done1, done2;
  queue.async([&] {
    first.set_value();
    second.get_future().wait();
    done1.set_value();
  });
  queue.async([&] {
    second.set_value();
    first.get_future().wait();
    done2.set_value();
  });
  EXPECT_EQ(done1.get_future().wait_for(seconds(10)), std::future_status::ready);
  EXPECT_EQ(done2.get_future().wait_for(seconds(10)), std::future_status::ready);
}

}  // namespace
}  // namespace qxlog::platform
