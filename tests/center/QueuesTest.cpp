// The queues in memory and in their files: each store rewrites the file,
// play records fold under their header, and a restart reads everything back.
#include <filesystem>
#include <set>

#include "QXLog/QXLogHelper.h"
#include "QXLog/platform/PosixFileSystem.h"
#include "QXLog/serial/Json.h"
#include "QXLog/serial/PropertyList.h"
#include "QXLog/support/QueueXml.h"
#include "tests/support/TestPlatform.h"

namespace qxlog::testing {
namespace {

namespace fs = std::filesystem;

class QueuesTest : public LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    format().setLimitLogCount(1000);  // no count-triggered submission
  }
  // A file of tests/fixtures/ in place of a queue file.
  void place(const char* fixture, const char* name) {
    fs::copy_file(std::string(QXLOG_TEST_FIXTURES) + "/" + fixture, documentsPath(name),
                  fs::copy_options::overwrite_existing);
  }
  // A queue file read back by libplist, as JSON; "none" when it holds no array.
  std::string file(const char* name) {
    std::optional<Array> queue = readQueueFile(name);
    return queue ? serial::toJson(Value(*queue)) : "none";
  }
  // The actions, play records and start times in memory, as JSON.
  std::string memory() {
    return serial::toJson(Value(center().actionLog())) + " " +
           serial::toJson(Value(center().playActionLog())) + " " +
           serial::toJson(Value(center().actionStartTime()));
  }
  void store(const char* item) { center().storeActionLog(strings({{"a_1", item}})); }
  void play(const char* p2) { center().storePlayLog(strings({{"p_2", p2}})); }
};

TEST_F(QueuesTest, FirstAccessCreatesEachFileEmptyAndEveryStoreRewritesTheQueue) {
  EXPECT_FALSE(files_->exists(documentsPath(kActionFile)));
  EXPECT_EQ(memory(), "[] [] {}");
  for (const char* name : {kActionFile, kPlayFile, kStartFile}) {
    EXPECT_EQ(fs::file_size(documentsPath(name)), 0u) << name;
  }
  // Read back by libplist, XML specials, line ends and nesting included.
  center().storeActionLog(strings({{"a_t", "2"}, {"a_1", "<&>]]>\r"}}));
  EXPECT_EQ(file(kActionFile), R"([{"a_t":"2","a_1":"<&>]]>\r"}])");
  Dictionary folded = strings({{"a_t", "1"}});
  folded.set("p", Value(Array{Value(strings({{"p_2", "4"}}))}));
  center().storeActionLog(folded);
  play("4");
  EXPECT_EQ(file(kActionFile), R"([{"a_t":"2","a_1":"<&>]]>\r"},{"a_t":"1","p":[{"p_2":"4"}]}])");
  EXPECT_EQ(file(kPlayFile), R"([{"p_2":"4"}])");
  // No temporary file is left beside the queue files.
  EXPECT_EQ(std::distance(fs::directory_iterator(documents_), {}), 3);
}

TEST_F(QueuesTest, AStoreAfterTheQueueIsReplacedOrFoldedWritesWhatMemoryHolds) {
  store("old 1");
  store("old 2");
  // A replacement of the same size must not be written from the old records.
  center().setActionLog(
      Array{Value(strings({{"a_1", "new 1"}})), Value(strings({{"a_1", "new 2"}}))});
  store("new 3");
  EXPECT_EQ(file(kActionFile), R"([{"a_1":"new 1"},{"a_1":"new 2"},{"a_1":"new 3"}])");

  center().setCurrentPlayHeader(strings({{"a_t", "1"}}));
  play("1");
  play("2");
  center().makePlayLog();
  EXPECT_TRUE(center().playActionLog().empty());
  play("3");
  EXPECT_EQ(file(kPlayFile), R"([{"p_2":"3"}])");
}

TEST_F(QueuesTest, QueuesAndStartTimesAreReadBackAfterARestart) {
  for (const char* item : {"0", "1", "2", "3", "4"}) store(item);
  play("x");
  clock_->setWallSeconds(1700000000.5);
  center().saveActionStartTime("movie");
  clock_->advance(std::chrono::seconds(3));
  center().saveActionStartTime("movie");  // the later time wins
  center().saveActionStartTime("other");
  EXPECT_EQ(center().getActionStartTime("unknown"), std::nullopt);
  const std::string before = memory();

  restart();
  EXPECT_EQ(memory(), before);
  EXPECT_FALSE(center().currentPlayHeader().has_value());  // memory only
  EXPECT_EQ(center().getActionStartTime("movie"), "1700000003500");
}

TEST_F(QueuesTest, DamagedFilesReadAsEmptyAndOtherWritersFilesAreRead) {
  place("torn-queue.plist", kActionFile);
  place("dictionary-root.plist", kPlayFile);
  place("garbage.plist", kStartFile);
  EXPECT_EQ(memory(), "[] [] {}");
  store("fresh");
  EXPECT_EQ(file(kActionFile), R"([{"a_1":"fresh"}])");

  place("other-writer-queue.plist", kActionFile);  // laid out as other tools write them
  restart();
  EXPECT_EQ(serial::toJson(Value(center().actionLog())), R"([{"a_t":"0","a_1":"x & y"}])");
}

TEST_F(QueuesTest, RemovingAFileSaysSoOnlyWhenThereWasOne) {
  QXLogHelper::removePlist(kPlayFile);
  EXPECT_TRUE(console_->lines().empty());
  play("1");
  QXLogHelper::removePlist(kPlayFile);
  EXPECT_TRUE(console_->contains("文件删除成功 = USERPlayActionStatisticalLog.plist"));
  EXPECT_FALSE(files_->exists(documentsPath(kPlayFile)));
}

TEST_F(QueuesTest, EachFoldCarriesOnlyTheRecordsSinceThePreviousOne) {
  center().setCurrentPlayHeader(strings({{"a_t", "1"}, {"a_7", "m1"}}));
  play("p1");
  play("p2");
  center().makePlayLog();
  play("p3");
  center().makePlayLog();
  EXPECT_EQ(memory(), R"([{"a_t":"1","a_7":"m1","p":[{"p_2":"p1"},{"p_2":"p2"}]},)"
                      R"({"a_t":"1","a_7":"m1","p":[{"p_2":"p3"}]}] [] {})");
  // The header itself is not changed by folding.
  EXPECT_EQ(json(*center().currentPlayHeader()), R"({"a_t":"1","a_7":"m1"})");
  EXPECT_FALSE(files_->exists(documentsPath(kPlayFile)));

  // A header that already holds actions is extended.
  Dictionary header = strings({{"a_t", "1"}});
  header.set("p", Value(Array{Value(strings({{"p_2", "old"}}))}));
  center().setActionLog(Array());
  center().setCurrentPlayHeader(header);
  play("new");
  center().makePlayLog();
  EXPECT_EQ(memory(), R"([{"a_t":"1","p":[{"p_2":"old"},{"p_2":"new"}]}] [] {})");
}

TEST_F(QueuesTest, TheBatchSizeDecidesWhenAStoreFolds) {
  // The batch size (dev: two, whatever the limit), and the play records pending after each store.
  for (auto [limit, dev, afterOne, afterTwo] :
       {std::tuple(1, false, 0u, 0u), std::tuple(-1, false, 1u, 2u),
        std::tuple(50, true, 1u, 0u)}) {
    SCOPED_TRACE(limit);
    TearDown();
    SetUp();
    format().setLimitLogCount(limit);
    format().setIsDev(dev);
    center().setCurrentPlayHeader(strings({{"a_t", "5"}}));
    play("p1");
    EXPECT_EQ(center().playActionLog().size(), afterOne);
    if (limit == 1) {
      // The play record's own store folds; the store of the folded header
      // reaches the batch size again and submits it.
      EXPECT_TRUE(center().actionLog().empty());
      ASSERT_FALSE(console_->lines().empty());
      EXPECT_NE(console_->lines().back().find(R"("a":[{"a_t":"5","p":[{"p_2":"p1"}]}])"),
                std::string::npos);
    }
    play("p2");
    EXPECT_EQ(center().playActionLog().size(), afterTwo);
  }
}

// Records with everything the queue file's writer treats specially: escapes,
// control characters, nesting, empty containers, numbers, booleans and null.
Value record(int i) {
  Dictionary d = makeStringDictionary({{"a_t", "2"}, {"a_1", "<a & b> \r\x01 ü"}});
  d.set("i", Value(int64_t{i}));
  d.set("r", Value(0.5 * i));
  d.set("b", Value(i % 2 == 0));
  d.set("n", Value());
  d.set("p",
        Value(Array{Value(makeStringDictionary({{"p_1", std::to_string(i)}})), Value(Array())}));
  d.set("e", Value(Dictionary()));
  return Value(std::move(d));
}

// The queue file's XML cache against the whole writer, at every step of a growing queue.
TEST(QueueXmlTest, AGrowingQueueGivesTheWholeWritersBytesAtEveryStep) {
  auto whole = [](const Array& queue) {
    std::string xml;
    serial::appendXmlPropertyList(xml, queue);
    return xml;
  };
  support::QueueXml cache;
  Array queue;
  EXPECT_EQ(cache.documentFor(queue), whole(queue));
  for (int i = 0; i < 6; ++i) {
    queue.push_back(record(i));
    ASSERT_EQ(cache.documentFor(queue), whole(queue)) << "after record " << i;
    EXPECT_EQ(cache.cachedCount(), queue.size());
  }
  std::optional<Value> parsed = serial::parsePropertyList(cache.documentFor(queue));
  ASSERT_TRUE(parsed.has_value() && parsed->isArray());
  // Property lists have no null and no C0 controls, so compare a plain field.
  ASSERT_EQ(parsed->asArray()->size(), queue.size());
  EXPECT_EQ(*parsed->asArray()->back().asDictionary()->find("i"), Value(int64_t{5}));
}

// Replacing a file whole: by exchange or by rename, the path always holds the
// old or the new contents, nothing is left beside it, and the flush to the
// disk follows off the writer's thread, coalesced.
using platform::DurableFlush;
using platform::PosixFileSystem;
using AtomicReplaceTest = LibraryTest;

TEST_F(AtomicReplaceTest, ExchangeAndRenameLeaveTheNewContentsAndNothingElse) {
  for (bool exchange : {true, false}) {
    SCOPED_TRACE(exchange);
    PosixFileSystem files({nullptr, exchange});
    std::string path = documentsPath(exchange ? "exchanged.plist" : "renamed.plist");
    ASSERT_TRUE(files.replaceAtomically(path, "first"));  // nothing to exchange with
    ASSERT_TRUE(files.replaceAtomically(path, std::string(100000, 'x')));
    ASSERT_TRUE(files.replaceAtomically(path, "third"));
    EXPECT_EQ(files.read(path), "third");
  }
  std::set<std::string> names;
  for (const auto& entry : fs::directory_iterator(documents_))
    names.insert(entry.path().filename());
  EXPECT_EQ(names, (std::set<std::string>{"exchanged.plist", "renamed.plist"}));
  // A directory that is gone fails the write and leaves nothing behind.
  EXPECT_FALSE(files_->replaceAtomically(documentsPath("missing/x.plist"), "x"));
}

TEST_F(AtomicReplaceTest, FlushesAreCoalescedIntoOneTaskAtATime) {
  PosixFileSystem files({dispatcher_->globalQueue()});
  const int before = files.flushRounds();
  auto roundsAfter = [&](std::chrono::nanoseconds by) {
    dispatcher_->advance(by);
    return files.flushRounds() - before;
  };
  for (int i = 0; i < 50; ++i) files.replaceAtomically(documentsPath(i % 2 ? "a" : "b"), "x");
  EXPECT_EQ(dispatcher_->pending(), 1u);  // one flush gathers all fifty
  EXPECT_EQ(roundsAfter(DurableFlush::kGathering - std::chrono::milliseconds(1)), 0);
  EXPECT_EQ(roundsAfter(std::chrono::milliseconds(1)), 1);
  EXPECT_EQ(dispatcher_->pending(), 0u);
  files.replaceAtomically(documentsPath("a"), "y");  // a new round
  EXPECT_EQ(roundsAfter(DurableFlush::kGathering), 2);
  fs::remove(documentsPath("a"));  // a file gone before its flush is fine
  files.replaceAtomically(documentsPath("b"), "z");
  fs::remove(documentsPath("b"));
  EXPECT_EQ(roundsAfter(DurableFlush::kGathering), 3);
}

}  // namespace
}  // namespace qxlog::testing
