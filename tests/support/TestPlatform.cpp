#include "tests/support/TestPlatform.h"

#include <arpa/inet.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "QXLog/QXLog.h"
#include "QXLog/center/CenterRegistry.h"
#include "QXLog/platform/CurlTransport.h"
#include "QXLog/recording/Gate.h"
#include "QXLog/serial/Json.h"
#include "QXLog/serial/PropertyList.h"

namespace qxlog::testing {

std::tm VirtualClock::localTime(double wallSeconds) const {
  std::time_t shifted = static_cast<std::time_t>(std::floor(wallSeconds)) + utcOffset_;
  std::tm result{};
  gmtime_r(&shifted, &result);
  return result;
}

class VirtualDispatcher::Lane final : public platform::Executor {
 public:
  explicit Lane(VirtualDispatcher* owner) : owner_(owner) {}
  void post(platform::Task task, std::chrono::nanoseconds delay) override {
    owner_->post(std::move(task), delay);
  }
  // The test's thread serves both queues.
  bool serveHere() override {
    owner_->runDue();
    return true;
  }

 private:
  VirtualDispatcher* owner_;
};

VirtualDispatcher::VirtualDispatcher(std::shared_ptr<VirtualClock> clock)
    : clock_(std::move(clock)),
      main_(std::make_shared<Lane>(this)),
      global_(std::make_shared<Lane>(this)) {}

void VirtualDispatcher::post(platform::Task task, std::chrono::nanoseconds delay) {
  std::lock_guard lock(mutex_);
  schedule_.add(std::move(task), clock_->monotonicNanos() + delay.count());
}

void VirtualDispatcher::advance(std::chrono::nanoseconds by) {
  const int64_t target = clock_->monotonicNanos() + by.count();
  for (;;) {
    std::optional<platform::Task> task;
    {
      std::lock_guard lock(mutex_);
      if (schedule_.empty() || schedule_.nextDue() > target) break;
      int64_t due = schedule_.nextDue();
      int64_t now = clock_->monotonicNanos();
      if (due > now) clock_->advance(std::chrono::nanoseconds(due - now));
      task = schedule_.takeDue(clock_->monotonicNanos());
    }
    (*task)();
  }
  int64_t now = clock_->monotonicNanos();
  if (target > now) clock_->advance(std::chrono::nanoseconds(target - now));
}

std::size_t VirtualDispatcher::pending() const {
  std::lock_guard lock(mutex_);
  return schedule_.size();
}

std::string FixedDeviceFacts::resolveIPv4(const std::string& host) const {
  in_addr address{};
  if (host == "localhost") return "127.0.0.1";
  return ::inet_pton(AF_INET, host.c_str(), &address) == 1 ? host : std::string();
}

bool ConsoleCapture::contains(const std::string& line) const {
  const std::vector<std::string> all = lines();
  return std::find(all.begin(), all.end(), line) != all.end();
}

std::size_t ConsoleCapture::countStartingWith(const std::string& prefix) const {
  std::size_t count = 0;
  for (const std::string& candidate : lines()) count += candidate.rfind(prefix, 0) == 0;
  return count;
}

void LibraryTest::SetUp() {
  char pattern[] = "/tmp/qxlog-test-XXXXXX";
  ASSERT_NE(mkdtemp(pattern), nullptr);
  documents_ = pattern;
  clock_ = std::make_shared<VirtualClock>();
  dispatcher_ = std::make_unique<VirtualDispatcher>(clock_);
  console_ = std::make_shared<ConsoleCapture>();
  // Without a flush to the disk: it would be a task of its own on the timeline.
  files_ = std::make_shared<FaultyFileSystem>();
  facts_ = std::make_shared<FixedDeviceFacts>();
  recording::setEnvironmentReady(false);
  center::CenterRegistry::replaceForTesting(std::make_shared<platform::Env>(platform::Env::Parts{
      realClock_ ? platform::systemClock() : clock_, dispatcher_->mainQueue(),
      dispatcher_->globalQueue(), std::make_shared<platform::CurlTransport>(httpTimeLimit_), files_,
      [console = console_](const std::string& line) { console->add(line); }, documents_, facts_}));
}

void LibraryTest::TearDown() {
  recording::setEnvironmentReady(false);
  std::error_code ignored;
  std::filesystem::remove_all(documents_, ignored);
}

void LibraryTest::restart() {
  center::CenterRegistry::replaceForTesting();
}

std::string LibraryTest::documentsPath(const std::string& fileName) const {
  return documents_ + "/" + fileName;
}

std::optional<Array> LibraryTest::readQueueFile(const std::string& fileName) const {
  std::optional<std::string> bytes = files_->read(documentsPath(fileName));
  if (!bytes) return std::nullopt;
  std::optional<Value> root = serial::parsePropertyList(*bytes);
  if (!root || !root->isArray()) return std::nullopt;
  return *root->asArray();
}

Dictionary strings(std::initializer_list<std::pair<std::string_view, std::string_view>> pairs) {
  return makeStringDictionary(pairs);
}

std::string field(const Dictionary& record, std::string_view key) {
  const Value* value = record.find(key);
  if (value == nullptr) return "<missing>";
  const std::string* text = value->asString();
  return text != nullptr ? *text : "<not a string>";
}

std::string field(const Value& record, std::string_view key) {
  const Dictionary* dictionary = record.asDictionary();
  return dictionary != nullptr ? field(*dictionary, key) : "<not a dictionary>";
}

std::vector<std::string> items(const Array& queue) {
  std::vector<std::string> result;
  for (const Value& record : queue) result.push_back(field(record, "a_1"));
  return result;
}

std::string json(const Dictionary& record) {
  return serial::toJson(Value(record));
}

std::string taken(char* text) {
  std::string copy = text != nullptr ? text : "<null>";
  QXLogFree(text);
  return copy;
}

std::string readToEnd(int fd) {
  std::string out;
  char chunk[4096];
  for (ssize_t got; (got = ::read(fd, chunk, sizeof chunk)) > 0;) out.append(chunk, got);
  return out;
}

Finished run(const std::string& command) {
  Finished result;
  std::FILE* pipe = ::popen((command + " 2>&1").c_str(), "r");
  if (!pipe) return result;
  result.output = readToEnd(::fileno(pipe));
  const int status = ::pclose(pipe);
  if (WIFEXITED(status)) result.status = WEXITSTATUS(status);
  return result;
}

}  // namespace qxlog::testing
