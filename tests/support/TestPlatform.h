// Test stand-ins for the platform: a virtual clock, a deterministic dispatcher
// that runs main-queue and global-queue tasks in time order on the test's
// thread, a console capture, and a fixture that runs a fresh log center on a
// test environment of them, with its own Documents directory and files that
// fail on demand.
#ifndef QXLOG_TESTS_SUPPORT_TESTPLATFORM_H_
#define QXLOG_TESTS_SUPPORT_TESTPLATFORM_H_

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "QXLog/QXLogCenter.h"
#include "QXLog/QXLogExecutor.h"
#include "QXLog/QXLogValue.h"
#include "QXLog/platform/Clock.h"
#include "QXLog/platform/Env.h"
#include "QXLog/platform/TaskSchedule.h"
#include "tests/support/FaultyFileSystem.h"

namespace qxlog::testing {

// The queue files, by the names installations have on disk.
inline constexpr const char* kActionFile = "UserStatisticalLog.plist";
inline constexpr const char* kPlayFile = "USERPlayActionStatisticalLog.plist";
inline constexpr const char* kStartFile = "USERMovieStartTimeLog.plist";

class VirtualClock final : public platform::Clock {
 public:
  explicit VirtualClock(double wallSeconds = 1700000000.0) : wall_(wallSeconds) {}

  double wallSeconds() const override { return wall_.load(); }
  int64_t monotonicNanos() const override { return monotonic_.load(); }
  std::tm localTime(double wallSeconds) const override;

  // Moves both clocks forward.
  void advance(std::chrono::nanoseconds by) {
    monotonic_ += by.count();
    wall_ += std::chrono::duration<double>(by).count();
  }
  // Moves the wall clock alone, as when the user changes the device's time.
  void setWallSeconds(double seconds) { wall_ = seconds; }
  // The local time zone, as an offset east of UTC.
  void setUtcOffset(std::chrono::seconds offset) { utcOffset_ = offset.count(); }

 private:
  std::atomic<double> wall_;
  std::atomic<int64_t> monotonic_ = 0;
  std::atomic<int64_t> utcOffset_ = 0;
};

// One timeline for both queues; tasks run on the calling thread when the test
// advances time.
class VirtualDispatcher {
 public:
  explicit VirtualDispatcher(std::shared_ptr<VirtualClock> clock);

  std::shared_ptr<platform::Executor> mainQueue() const { return main_; }
  std::shared_ptr<platform::Executor> globalQueue() const { return global_; }

  // Runs, in due order, every task due within `by`, moving the clock to each
  // task's due time, and ends with the clock moved by `by`.
  void advance(std::chrono::nanoseconds by);
  // Runs the tasks that are due now, including ones they post for now.
  void runDue() { advance(std::chrono::nanoseconds(0)); }
  std::size_t pending() const;

 private:
  class Lane;
  void post(platform::Task task, std::chrono::nanoseconds delay);

  std::shared_ptr<VirtualClock> clock_;
  mutable std::mutex mutex_;
  platform::TaskSchedule schedule_;
  std::shared_ptr<platform::Executor> main_;
  std::shared_ptr<platform::Executor> global_;
};

// Device facts of the test's choosing. At first: "lo" at 127.0.0.1 and no
// "en0", as on a host without one; a file system of 64 GiB with 16 GiB free;
// a resolver that knows "localhost" and answers a dotted IPv4 literal with
// itself.
class FixedDeviceFacts final : public platform::DeviceFacts {
 public:
  Space fileSystemSpace(const std::string&) const override {
    std::lock_guard lock(mutex_);
    return space_;
  }
  std::vector<InterfaceAddress> interfaceAddresses() const override {
    std::lock_guard lock(mutex_);
    return addresses_;
  }
  std::string resolveIPv4(const std::string& host) const override;

  void setSpace(Space space) {
    std::lock_guard lock(mutex_);
    space_ = space;
  }
  void setInterfaceAddresses(std::vector<InterfaceAddress> addresses) {
    std::lock_guard lock(mutex_);
    addresses_ = std::move(addresses);
  }

 private:
  mutable std::mutex mutex_;
  Space space_{0, 16777216, 4194304, 4096};
  std::vector<InterfaceAddress> addresses_{{"lo", "127.0.0.1"}};
};

class ConsoleCapture {
 public:
  void add(const std::string& line) {
    std::lock_guard lock(mutex_);
    lines_.push_back(line);
  }
  std::vector<std::string> lines() const {
    std::lock_guard lock(mutex_);
    return lines_;
  }
  bool contains(const std::string& line) const;
  std::size_t countStartingWith(const std::string& prefix) const;

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
};

// A fresh center on the test environment, over a new temporary Documents
// directory, removed afterwards.
class LibraryTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  QXLogCenter& center() { return QXLogCenter::center(); }
  QXLogMessageFormat& format() { return center().format(); }
  // A new center over the same directory, as after a restart of the process.
  void restart();
  std::string documentsPath(const std::string& fileName) const;
  // The queue file, read back by libplist; nothing when it holds no array.
  std::optional<Array> readQueueFile(const std::string& fileName) const;

  std::shared_ptr<VirtualClock> clock_;
  std::unique_ptr<VirtualDispatcher> dispatcher_;
  std::shared_ptr<ConsoleCapture> console_;
  std::shared_ptr<FaultyFileSystem> files_;
  std::shared_ptr<FixedDeviceFacts> facts_;
  std::string documents_;
  // Positive: replaces every HTTP request's own time limit.
  std::chrono::milliseconds httpTimeLimit_{0};
  // The library reads the system's clock, not clock_ (which still times the
  // dispatcher's tasks): for tests against real players.
  bool realClock_ = false;
};

// A dictionary of strings, for expectations.
Dictionary strings(std::initializer_list<std::pair<std::string_view, std::string_view>> pairs);
// The string under a key of a value holding a dictionary, or "<missing>".
std::string field(const Value& record, std::string_view key);
std::string field(const Dictionary& record, std::string_view key);
// The "a_1" of each record of a queue.
std::vector<std::string> items(const Array& queue);
// A record as JSON text, keys in their order: key set, order and values at once.
std::string json(const Dictionary& record);
// Text the C interface handed over, freed: "<null>" for none.
std::string taken(char* text);
// The given members of each row, as "a b; a b": a whole list in one expectation.
template <typename Row, typename... Members>
std::string rows(const std::vector<Row>& list, Members Row::*... members) {
  std::ostringstream out;
  for (const Row& row : list) {
    const char* separator = &row == list.data() ? "" : "; ";
    ((out << std::exchange(separator, " ") << row.*members), ...);
  }
  return out.str();
}

// Everything readable from a descriptor up to its end.
std::string readToEnd(int fd);
struct Finished {
  int status = -1;  // the exit status, or -1 when the process did not exit
  std::string output;
};
// Runs a shell command, with its standard error joined to its output.
Finished run(const std::string& command);

}  // namespace qxlog::testing

#endif  // QXLOG_TESTS_SUPPORT_TESTPLATFORM_H_
