// Crash safety of the queue files: a host process reports records as fast as
// it can and is killed with SIGKILL at random moments. After each kill the
// files are loaded again: each must parse with the right root, and the action
// queue must hold, in order, every record whose report had returned.
//
// QXLOG_TORTURE_KILLS sets the number of kills (30 by default) and
// QXLOG_TORTURE_SEED the random seed; the figures go to standard output.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "QXLog/QXLogHelper.h"
#include "QXLog/center/QueueFileNames.h"
#include "QXLog/platform/Documents.h"
#include "QXLog/platform/Files.h"
#include "QXLog/platform/PropertyList.h"

extern char** environ;

namespace qxlog::testing {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;

unsigned long environmentNumber(const char* name, unsigned long fallback) {
  const char* text = std::getenv(name);
  return text != nullptr && *text != '\0' ? std::strtoul(text, nullptr, 10) : fallback;
}

// Starts the host with its standard output on a pipe; returns the read end.
pid_t startHost(const std::string& documents, uint64_t first, int* readEnd) {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) return -1;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
  std::string firstText = std::to_string(first);
  char* argv[] = {const_cast<char*>(QXLOG_TORTURE_HOST), const_cast<char*>(documents.c_str()),
                  firstText.data(), nullptr};
  pid_t pid = -1;
  if (posix_spawn(&pid, QXLOG_TORTURE_HOST, &actions, nullptr, argv, environ) != 0) pid = -1;
  posix_spawn_file_actions_destroy(&actions);
  ::close(ends[1]);
  *readEnd = ends[0];
  return pid;
}

// Reads acknowledgements until `deadline`, kills the host, then reads what it
// wrote before it died.
std::vector<uint64_t> runAndKill(pid_t pid, int readEnd,
                                 std::chrono::steady_clock::time_point deadline) {
  std::string bytes;
  char buffer[4096];
  auto readAvailable = [&](int timeoutMs) {
    pollfd entry{readEnd, POLLIN, 0};
    if (::poll(&entry, 1, timeoutMs) <= 0) return true;
    ssize_t got = ::read(readEnd, buffer, sizeof buffer);
    if (got <= 0) return false;
    bytes.append(buffer, static_cast<std::size_t>(got));
    return true;
  };
  for (;;) {
    auto left =
        std::chrono::duration_cast<milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0 || !readAvailable(static_cast<int>(left.count()))) break;
  }
  ::kill(pid, SIGKILL);
  while (readAvailable(1000)) {
  }
  int status = 0;
  ::waitpid(pid, &status, 0);
  ::close(readEnd);
  std::vector<uint64_t> numbers(bytes.size() / sizeof(uint64_t));
  if (!numbers.empty())
    std::memcpy(numbers.data(), bytes.data(), numbers.size() * sizeof(uint64_t));
  return numbers;
}

// Temporaries of interrupted atomic writes lying in the directory.
int countTemporaries(const std::string& documents) {
  int count = 0;
  for (const fs::directory_entry& entry : fs::directory_iterator(documents)) {
    count += entry.path().filename().string().find(".tmp-") != std::string::npos;
  }
  return count;
}

// A file that is present, not empty, and not a property list of `root`.
bool isTorn(const std::string& path, Value::Type root) {
  std::optional<std::string> bytes = platform::readFile(path);
  if (!bytes || bytes->empty()) return false;  // absent, or created empty before a first store
  std::optional<Value> parsed = platform::parsePropertyList(*bytes);
  return !parsed || parsed->type() != root;
}

TEST(QueueTortureTest, KilledHostsLeaveWholeFilesAndKeepAcknowledgedRecords) {
  const unsigned long kills = environmentNumber("QXLOG_TORTURE_KILLS", 30);
  const auto seed = static_cast<unsigned>(environmentNumber("QXLOG_TORTURE_SEED", 20261122));
  std::mt19937 random(seed);
  std::uniform_int_distribution<int> killAfterMs(0, 40);

  fs::path base = fs::temp_directory_path() / ("qxlog-torture-" + std::to_string(::getpid()));
  std::string documents = (base / "Documents").string();
  fs::remove_all(base);
  fs::create_directories(documents);
  platform::setDocumentsDirectory(documents);

  std::set<uint64_t> acknowledged;  // since the directory was last emptied
  std::set<uint64_t> inFlight;      // reported when a host died, not acknowledged
  uint64_t next = 1;
  unsigned long torn = 0, lost = 0, unexpected = 0, leftTemporaries = 0;
  uint64_t totalAcknowledged = 0;
  for (unsigned long kill = 0; kill < kills; ++kill) {
    int readEnd = -1;
    pid_t pid = startHost(documents, next, &readEnd);
    ASSERT_GT(pid, 0) << "cannot start " << QXLOG_TORTURE_HOST;
    std::vector<uint64_t> numbers = runAndKill(
        pid, readEnd, std::chrono::steady_clock::now() + milliseconds(killAfterMs(random)));
    for (uint64_t number : numbers) acknowledged.insert(number);
    totalAcknowledged += numbers.size();
    uint64_t interrupted = numbers.empty() ? next : numbers.back() + 1;
    inFlight.insert(interrupted);
    next = interrupted + 1;

    // The three files, as a fresh process finds them.
    torn += isTorn(platform::documentsPath(kActionQueueFile), Value::Type::kArray);
    torn += isTorn(platform::documentsPath(kPlayQueueFile), Value::Type::kArray);
    torn += isTorn(platform::documentsPath(kStartTimeFile), Value::Type::kDictionary);
    // The library's own loader, which also clears away interrupted writes.
    QXLogHelper::Array queue = QXLogHelper::store(nullptr, kActionQueueFile).value_or(Array());
    QXLogHelper::store(nullptr, kPlayQueueFile);
    QXLogHelper::storeDict(nullptr, kStartTimeFile);
    leftTemporaries += countTemporaries(documents);
    std::vector<uint64_t> held;
    for (const Value& record : queue) {
      const Value* item = record.isDictionary() ? record.asDictionary()->find("a_1") : nullptr;
      held.push_back(item != nullptr && item->asString() != nullptr
                         ? std::strtoull(item->asString()->c_str(), nullptr, 10)
                         : 0);
    }
    EXPECT_TRUE(std::is_sorted(held.begin(), held.end())) << "after kill " << kill;
    std::set<uint64_t> heldSet(held.begin(), held.end());
    for (uint64_t number : acknowledged) lost += heldSet.count(number) == 0;
    for (uint64_t number : heldSet) {
      unexpected += acknowledged.count(number) == 0 && inFlight.count(number) == 0;
    }
    if (kill % 10 == 9) {
      // Keeps the files, and so each store's cost, small.
      fs::remove_all(documents);
      fs::create_directories(documents);
      acknowledged.clear();
      inFlight.clear();
    }
  }
  fs::remove_all(base);
  std::printf(
      "queue torture: kills %lu, acknowledged records %llu, torn files %lu, lost acknowledged "
      "records %lu, unexpected records %lu, temporaries left after a load %lu, seed %u\n",
      kills, static_cast<unsigned long long>(totalAcknowledged), torn, lost, unexpected,
      leftTemporaries, seed);
  EXPECT_EQ(torn, 0u);
  EXPECT_EQ(lost, 0u);
  EXPECT_EQ(unexpected, 0u);
  EXPECT_EQ(leftTemporaries, 0u);
  EXPECT_GT(totalAcknowledged, 0u);
}

}  // namespace
}  // namespace qxlog::testing
