#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>
#include <vector>

#include "QXLog/platform/GlobalQueue.h"
#include "QXLog/platform/MainQueue.h"
#include "tests/support/TestPlatform.h"

namespace qxlog::platform {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

class MainQueueTest : public ::testing::Test {
 protected:
  void SetUp() override { setClock(clock_); }
  void TearDown() override { setClock(nullptr); }
  std::shared_ptr<testing::VirtualClock> clock_ = std::make_shared<testing::VirtualClock>();
  MainQueue queue_;
};

TEST_F(MainQueueTest, DrainRunsOnlyWhatIsDueInDueOrder) {
  std::vector<int> ran;
  queue_.post([&] { ran.push_back(5); }, seconds(5));
  queue_.post([&] { ran.push_back(1); }, seconds(1));
  queue_.post([&] { ran.push_back(0); }, seconds(0));
  queue_.post([&] { ran.push_back(10); }, seconds(1));

  EXPECT_EQ(queue_.drain(), 1u);
  clock_->advance(seconds(4));
  EXPECT_EQ(queue_.drain(), 2u);
  EXPECT_EQ(ran, (std::vector<int>{0, 1, 10}));
  EXPECT_EQ(queue_.pending(), 1u);
  clock_->advance(seconds(1));
  queue_.drain();
  EXPECT_EQ(ran.back(), 5);
}

TEST_F(MainQueueTest, TasksPostedWhileDrainingRunWhenDue) {
  int runs = 0;
  queue_.post([&] { queue_.post([&] { ++runs; }, seconds(0)); }, seconds(0));
  queue_.post([&] { queue_.post([&] { ++runs; }, seconds(5)); }, seconds(0));
  queue_.drain();
  EXPECT_EQ(runs, 1);
  EXPECT_EQ(queue_.pending(), 1u);
}

TEST(MainQueueRunTest, RunServesTasksFromOtherThreadsUntilStopped) {
  MainQueue queue;
  std::atomic<int> served{0};
  std::thread::id servingThread;
  std::thread poster([&] {
    for (int i = 0; i < 50; ++i) queue.post([&] { ++served; }, milliseconds(0));
    queue.post(
        [&] {
          servingThread = std::this_thread::get_id();
          queue.stop();
        },
        milliseconds(2));
  });
  queue.run();
  poster.join();
  EXPECT_EQ(served.load(), 50);
  EXPECT_EQ(servingThread, std::this_thread::get_id());
}

TEST(GlobalQueueTest, RunsTasksOffTheCallersThreadAfterTheirDelay) {
  GlobalQueue queue(2);
  std::promise<std::thread::id> early, late;
  auto start = std::chrono::steady_clock::now();
  std::atomic<bool> earlyFirst{false};
  queue.post([&] { late.set_value(std::this_thread::get_id()); }, milliseconds(30));
  queue.post(
      [&] {
        earlyFirst = true;
        early.set_value(std::this_thread::get_id());
      },
      milliseconds(0));
  EXPECT_NE(early.get_future().get(), std::this_thread::get_id());
  EXPECT_NE(late.get_future().get(), std::this_thread::get_id());
  EXPECT_TRUE(earlyFirst.load());
  EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(30));
}

TEST(GlobalQueueTest, RunsTasksConcurrently) {
  GlobalQueue queue(2);
  // Two tasks that each wait for the other can only finish if both run at once.
  std::promise<void> first, second;
  std::promise<void> done1, done2;
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
