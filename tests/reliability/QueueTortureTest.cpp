// Crash safety of the queue files: a host process reports records as fast as
// it can and is killed with SIGKILL at random moments. After each kill the
// files are loaded again: each must parse with the right root, and the action
// queue must hold, in order, every record whose report had returned.
//
// QXLOG_TORTURE_KILLS sets the number of kills (30 by default) and
// QXLOG_TORTURE_SEED the random seed; the figures go to standard output.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <random>
#include <set>
#include <thread>

#include "QXLog/QXLogCenter.h"
#include "QXLog/QXLogHelper.h"
#include "QXLog/center/CenterRegistry.h"
#include "QXLog/center/Journal.h"
#include "QXLog/center/QueueFileNames.h"
#include "QXLog/platform/Env.h"
#include "QXLog/serial/Json.h"
#include "QXLog/serial/PropertyList.h"
#include "tests/support/TestPlatform.h"

extern char** environ;

namespace qxlog::testing {
namespace {

namespace fs = std::filesystem;

unsigned long environmentNumber(const char* name, unsigned long fallback) {
  const char* text = std::getenv(name);
  return text != nullptr && *text != '\0' ? std::strtoul(text, nullptr, 10) : fallback;
}

// Runs the host from `first` for `lifetime` after its first acknowledgement,
// kills it, and returns the numbers it acknowledged (8 bytes each; writes
// that small to a pipe are atomic).
std::vector<uint64_t> runHost(const std::string& documents, uint64_t first,
                              std::chrono::milliseconds lifetime, std::string mode = "") {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) return {};
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
  std::string firstText = std::to_string(first), host = QXLOG_TORTURE_HOST, dir = documents;
  char* argv[] = {host.data(), dir.data(), firstText.data(), mode.empty() ? nullptr : mode.data(),
                  nullptr};
  pid_t pid = -1;
  const bool started = posix_spawn(&pid, host.c_str(), &actions, nullptr, argv, environ) == 0;
  posix_spawn_file_actions_destroy(&actions);
  ::close(ends[1]);
  std::string bytes;
  if (started) {
    // The lifetime counts from the first acknowledgement: on a loaded machine,
    // or under a sanitizer, starting alone can take longer than a lifetime.
    bytes.resize(sizeof(uint64_t));
    if (::read(ends[0], bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) {
      bytes.clear();
    }
    std::this_thread::sleep_for(lifetime);
    ::kill(pid, SIGKILL);
  }
  bytes += readToEnd(ends[0]);
  ::close(ends[0]);
  int status = 0;
  if (started) ::waitpid(pid, &status, 0);
  std::vector<uint64_t> numbers(bytes.size() / sizeof(uint64_t));
  if (!numbers.empty()) std::memcpy(numbers.data(), bytes.data(), numbers.size() * 8);
  return numbers;
}

// A file that is present, not empty, and not a property list of `root`.
bool isTorn(std::string_view name, Value::Type root) {
  const platform::Env& env = QXLogCenter::center().env();
  std::optional<std::string> bytes = env.files().read(env.documentsPath(name));
  if (!bytes || bytes->empty()) return false;  // absent, or created empty before a first store
  std::optional<Value> parsed = serial::parsePropertyList(*bytes);
  return !parsed || parsed->type() != root;
}

// An empty Documents directory of its own for a torture run.
std::string freshDocuments(const std::string& name) {
  const fs::path base = fs::temp_directory_path() / (name + "-" + std::to_string(getpid()));
  fs::remove_all(base);
  fs::create_directories(base / "Documents");
  return (base / "Documents").string();
}

const unsigned long kKills = environmentNumber("QXLOG_TORTURE_KILLS", 30);
const unsigned kSeed = static_cast<unsigned>(environmentNumber("QXLOG_TORTURE_SEED", 20261122));

struct Tortured {
  uint64_t acknowledged = 0;
  unsigned long lost = 0, unexpected = 0, disordered = 0;
};

// Kills a host reporting in `mode` at random moments; after each kill `load`
// gives the numbers the files hold, in the order held. Counts acknowledged
// records missing, records never reported and loads out of order. The
// directory is emptied every `resetEvery` kills (which keeps each store's
// cost small), and removed at the end.
Tortured torture(const std::string& documents, const std::string& mode, unsigned long resetEvery,
                 const std::function<std::vector<uint64_t>()>& load) {
  std::mt19937 random(kSeed);
  std::uniform_int_distribution<int> killAfterMs(0, 40);
  Tortured tortured;
  std::set<uint64_t> acknowledged;  // since the directory was last emptied
  std::set<uint64_t> inFlight;      // reported when a host died, not acknowledged
  uint64_t next = 1;
  for (unsigned long kill = 0; kill < kKills; ++kill) {
    const std::vector<uint64_t> numbers =
        runHost(documents, next, std::chrono::milliseconds(killAfterMs(random)), mode);
    acknowledged.insert(numbers.begin(), numbers.end());
    tortured.acknowledged += numbers.size();
    const uint64_t interrupted = numbers.empty() ? next : numbers.back() + 1;
    inFlight.insert(interrupted);
    next = interrupted + 1;

    const std::vector<uint64_t> held = load();
    tortured.disordered += !std::is_sorted(held.begin(), held.end());
    const std::set<uint64_t> heldSet(held.begin(), held.end());
    for (uint64_t number : acknowledged) tortured.lost += heldSet.count(number) == 0;
    for (uint64_t number : heldSet) {
      tortured.unexpected += acknowledged.count(number) == 0 && inFlight.count(number) == 0;
    }
    if (kill % resetEvery == resetEvery - 1) {
      fs::remove_all(documents);
      fs::create_directories(documents);
      acknowledged.clear();
      inFlight.clear();
    }
  }
  fs::remove_all(fs::path(documents).parent_path());
  return tortured;
}

TEST(QueueTortureTest, KilledHostsLeaveWholeFilesAndKeepAcknowledgedRecords) {
  const std::string documents = freshDocuments("qxlog-torture");
  center::CenterRegistry::replaceForTesting(
      std::make_shared<platform::Env>(platform::Env::Parts{.documents = documents}));
  unsigned long torn = 0, leftTemporaries = 0;
  const Tortured tortured = torture(documents, "", 10, [&] {
    // The three files as a fresh process finds them, then the library's own
    // loader, which also clears away interrupted writes.
    torn += isTorn(center::kActionQueueFile, Value::Type::kArray) +
            isTorn(center::kPlayQueueFile, Value::Type::kArray) +
            isTorn(center::kStartTimeFile, Value::Type::kDictionary);
    const Array queue = QXLogHelper::store(nullptr, center::kActionQueueFile).value_or(Array());
    QXLogHelper::store(nullptr, center::kPlayQueueFile);
    QXLogHelper::storeDict(nullptr, center::kStartTimeFile);
    for (const fs::directory_entry& entry : fs::directory_iterator(documents)) {
      leftTemporaries += entry.path().filename().string().find(".tmp-") != std::string::npos;
    }
    std::vector<uint64_t> held;
    for (const Value& record : queue)
      held.push_back(std::strtoull(field(record, "a_1").c_str(), nullptr, 10));
    return held;
  });
  std::printf(
      "queue torture: kills %lu, acknowledged records %llu, torn files %lu, lost acknowledged "
      "records %lu, unexpected records %lu, temporaries left after a load %lu, seed %u\n",
      kKills, static_cast<unsigned long long>(tortured.acknowledged), torn, tortured.lost,
      tortured.unexpected, leftTemporaries, kSeed);
  EXPECT_EQ(torn, 0u);
  EXPECT_EQ(tortured.lost, 0u);
  EXPECT_EQ(tortured.unexpected, 0u);
  EXPECT_EQ(tortured.disordered, 0u);
  EXPECT_EQ(leftTemporaries, 0u);
  EXPECT_GT(tortured.acknowledged, 0u);
}

// The same at least once: the journal read back after each kill holds, in
// order, every acknowledged record and nothing damaged.
TEST(JournalTortureTest, KilledHostsLeaveWholeFramesAndKeepAcknowledgedRecords) {
  const std::string documents = freshDocuments("qxlog-journal");
  platform::Env env(
      platform::Env::Parts{.console = [](const std::string&) {}, .documents = documents});
  // A kill can land inside the write of a frame that crosses a page: that
  // append never returned, and the journal cuts it off. Any other damage is
  // a fault.
  unsigned long damaged = 0, tornTails = 0;
  const Tortured tortured = torture(documents, "at-least-once", 50, [&] {
    center::Journal journal(env, nullptr);
    const std::size_t runs = journal.open();
    tornTails += journal.cutTornTail();
    damaged += runs - (journal.cutTornTail() ? 1 : 0);
    std::vector<uint64_t> held;
    for (const center::Journal::Entry& entry : journal.pending()) {
      std::optional<Value> record = serial::parseJson(*entry.payload);
      if (!record || field(*record, "p") != "<missing>") continue;  // folded play headers
      held.push_back(std::strtoull(field(*record, "a_1").c_str(), nullptr, 10));
    }
    return held;
  });
  std::printf(
      "journal torture: kills %lu, acknowledged records %llu, lost acknowledged records %lu, "
      "records out of order %lu, damaged records read %lu, torn last appends cut %lu, unexpected "
      "records %lu, seed %u\n",
      kKills, static_cast<unsigned long long>(tortured.acknowledged), tortured.lost,
      tortured.disordered, damaged, tornTails, tortured.unexpected, kSeed);
  EXPECT_EQ(tortured.lost, 0u);
  EXPECT_EQ(tortured.disordered, 0u);
  EXPECT_EQ(damaged, 0u);
  EXPECT_EQ(tortured.unexpected, 0u);
  EXPECT_GT(tortured.acknowledged, 0u);
}

}  // namespace
}  // namespace qxlog::testing
