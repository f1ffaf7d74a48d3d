// The play API against the tests' log server: interleaved plays arrive each under its own header
// copies and with its own summary, at any batch size and across a restart.
#include <gtest/gtest.h>

#include <map>
#include <thread>

#include "QXLog/QXLogPlay.h"
#include "QXLog/format/PlaySessionRecords.h"
#include "QXLog/recording/Gate.h"
#include "QXLog/recording/PlayApi.h"
#include "collector/decode/EnvelopeDecoder.h"
#include "tests/support/UploadFixture.h"

namespace qxlog::testing {
namespace {

using Operations = std::vector<std::string>;

// Fields of a record, joined by '|'.
std::string fields(const Value& record, std::initializer_list<const char*> keys) {
  std::string joined;
  for (const char* key : keys) joined += "|" + field(record, key);
  return joined.substr(1);
}

// What the log server received, by play id.
struct Arrived {
  std::map<std::string, Operations> operations;  // over all of a play's header copies
  std::map<std::string, Array> actions;
  std::map<std::string, Dictionary> summaries;  // "play_summary"
  int headers = 0;

  std::string summary(const std::string& id, std::initializer_list<const char*> keys) const {
    return fields(Value(summaries.at(id)), keys);
  }
};

class PlayApiTest : public UploadTest, public ::testing::WithParamInterface<int64_t> {
 protected:
  void SetUp() override {
    UploadTest::SetUp();
    format().setLimitLogCount(GetParam());
    recording::setEnvironmentReady(true);
  }

  QXLogPlay* begin(const char* movie) {
    const QXLogPlayInfo info{movie, "file:///media/clip.mp4", "home", "1", false, nullptr};
    QXLogPlay* play = QXLogPlayBegin(&info);
    movies_[QXLogPlayId(play)] = movie;
    return play;
  }
  // Time passes, then the host reports; every upload is answered at once.
  void after(int millis) { clock_->advance(std::chrono::milliseconds(millis)); }
  void done() { settle(); }
  bool fileOf(const std::string& id) {
    return files_->exists(documentsPath("QXLogPlay-" + id + ".plist"));
  }

  Arrived arrived() {
    center().submitAllLog();
    settle();
    Arrived got;
    const std::vector<ReceivedRequest> requests = server_->requests();
    for (std::size_t i = 0; i < requests.size(); ++i) {
      if (requests[i].path == "/diagnosis") {
        auto report = collector::decodeLogData(requests[i].param("diagnosis_log"), kTestKey);
        const Value* summary =
            report ? report.value->asDictionary()->find("play_summary") : nullptr;
        if (summary) got.summaries[field(*summary, "play_id")] = *summary->asDictionary();
        continue;
      }
      for (const Value& record : records(i)) {
        const Value* actions = record.asDictionary()->find("p");
        if (actions == nullptr) continue;
        ++got.headers;
        const std::string id = field(record, "play_id");
        // A header copy is of one play: its id names the movie it carries.
        EXPECT_EQ(field(record, "a_7"), movies_[id]) << "header copy of play " << id;
        for (const Value& action : *actions->asArray()) {
          got.operations[id].push_back(field(action, "p_2"));
          got.actions[id].push_back(action);
        }
      }
    }
    return got;
  }

  // A new center over the same directory, set up as a host does it.
  void restartOverTheSameDocuments() {
    restart();
    format().setPushLogUrl(server_->url("/log"));
    format().setPushDiagnosisUrl(server_->url("/diagnosis"));
    format().setLogEncryptionKey(kTestKey);
    format().setUid("42");
    format().setPush_interval_time(Value("60000"));
    format().setLimitLogCount(GetParam());
  }

  std::map<std::string, std::string> movies_;
};

// A play left by a stopped run goes out when the next run starts, before any play of its own,
// under its own header, its report as at its last moment known, ended by the restart.
TEST_P(PlayApiTest, InterleavedPlaysAndALeftoverAcrossARestartArriveWholeUnderTheirOwnIds) {
  QXLogPlay* film = begin("film-1");
  QXLogPlay* preview = begin("preview-2");
  const std::string filmId = QXLogPlayId(film), previewId = QXLogPlayId(preview);
  ASSERT_NE(filmId, previewId);
  ASSERT_EQ(filmId.size(), 32u);
  after(300), QXLogPlaySetState(film, QXLogPlayerPlaying, 0), done();
  QXLogPlayRendition(film, 240, 300000), done();
  after(100), QXLogPlaySetState(preview, QXLogPlayerPlaying, 0), done();
  after(500), QXLogPlaySetState(film, QXLogPlayerBuffering, 900), done();
  after(200), QXLogPlaySetState(preview, QXLogPlayerPaused, 300), done();
  after(700), QXLogPlaySetState(film, QXLogPlayerPlaying, 900), done();
  QXLogPlayRendition(film, 480, 600000), done();
  after(100), QXLogPlaySetState(preview, QXLogPlayerPlaying, 300), done();
  after(50), QXLogPlaySetState(preview, QXLogPlayerSeeking, 350), done();
  after(80), QXLogPlaySetState(preview, QXLogPlayerPlaying, 3000), done();
  after(400), QXLogPlayEnd(preview), done();
  after(100), QXLogPlaySetState(film, QXLogPlayerPaused, 2100), done();

  // The process dies in the middle of the film; the next run starts.
  recording::discardPlayForTesting(film);
  EXPECT_TRUE(fileOf(filmId));
  restartOverTheSameDocuments();
  logEnvReady(true);
  Arrived got = arrived();
  EXPECT_EQ(got.operations.at(filmId), (Operations{"1", "7", "5", "9", "3"}));
  EXPECT_EQ(got.operations.at(previewId), (Operations{"1", "7", "3", "4", "6", "2"}));
  EXPECT_EQ(got.headers, 2);  // ended plays come whole in one header copy
  // The film's rebuffering span and its switch, from one height to the other.
  const Array& filmActions = got.actions.at(filmId);
  EXPECT_EQ(field(filmActions[2], "p_8"), "2900");  // 900 ms + 2000
  EXPECT_EQ(fields(filmActions[3], {"from_height", "to_height", "bitrate_bps"}), "240|480|600000");
  // Played: 600 ms before the stall, 730 ms after it, up to the pause.
  EXPECT_EQ(got.summary(filmId, {"ended_by_restart", "movie_id", "startup_ms", "rebuffer_count",
                                 "rebuffer_ms", "played_ms", "rendition_switches", "top_height",
                                 "exit_before_start", "failed"}),
            "1|film-1|300|1|900|1330|1|480|0|0");
  // Played: 700 ms before the pause, 50 ms before the seek, 400 ms after it.
  EXPECT_EQ(got.summary(previewId, {"ended_by_restart", "movie_id", "video_type", "view_source",
                                    "url", "startup_ms", "seek_count", "seek_avg_ms", "played_ms"}),
            "0|preview-2|1|home|file:///media/clip.mp4|400|1|80|1150");
  EXPECT_EQ(got.summaries.size(), 2u);

  QXLogPlay* next = begin("film-3");
  const std::string nextId = QXLogPlayId(next);
  after(200), QXLogPlaySetState(next, QXLogPlayerPlaying, 0), done();
  after(1000), QXLogPlayEnd(next), done();
  got = arrived();
  EXPECT_EQ(got.operations.at(nextId), (Operations{"1", "7", "2"}));
  EXPECT_EQ(got.operations.size(), 3u) << "a header copy without a play id";
  EXPECT_EQ(got.headers, 3);
  EXPECT_EQ(got.summary(nextId, {"ended_by_restart", "movie_id", "startup_ms"}), "0|film-3|200");
  EXPECT_EQ(got.summaries.size(), 3u);
  // Nothing is left on disk for another run.
  for (const std::string& id : {filmId, previewId, nextId}) EXPECT_FALSE(fileOf(id)) << id;
  EXPECT_FALSE(files_->exists(documentsPath("QXLogPlays.plist")));
}

// A failure is no exit before start: counted apart, with its cause.
TEST_P(PlayApiTest, AFailureAndAnExitBeforeStartAreToldApart) {
  QXLogPlay* failing = begin("film-4");
  QXLogPlay* leaving = begin("film-5");
  const std::string failingId = QXLogPlayId(failing), leavingId = QXLogPlayId(leaving);
  after(300), QXLogPlayError(failing, "404 Not Found"), done();
  after(100), QXLogPlayEnd(failing), QXLogPlayEnd(leaving), done();
  const Arrived got = arrived();
  EXPECT_EQ(got.operations.at(failingId), (Operations{"1", "8"}));
  EXPECT_EQ(got.operations.at(leavingId), (Operations{"1", "2"}));
  const auto keys = {"failed", "exit_before_start", "cause", "startup_ms"};
  EXPECT_EQ(got.summary(failingId, keys), "1|0|404 Not Found|300");
  EXPECT_EQ(got.summary(leavingId, {"failed", "exit_before_start", "cause"}), "0|1|");
}

// Plays on threads of their own at once: each arrives whole, under its id.
TEST_P(PlayApiTest, PlaysOnManyThreadsStayApart) {
  format().setLimitLogCount(100000);       // submitted together at the end
  constexpr int kPlays = 4, kPauses = 60;  // 2 x 60 actions: the play goes in parts
  std::vector<std::string> ids;
  std::vector<std::jthread> threads;
  for (int p = 0; p < kPlays; ++p) {
    QXLogPlay* play = begin(("movie-" + std::to_string(p)).c_str());
    ids.push_back(QXLogPlayId(play));
    threads.emplace_back([play] {
      for (int i = 0; i < kPauses; ++i) {
        QXLogPlaySetState(play, QXLogPlayerPlaying, i * 10);
        QXLogPlaySetState(play, QXLogPlayerPaused, i * 10 + 5);
      }
      QXLogPlayEnd(play);
    });
  }
  threads.clear();  // joins them
  const Arrived got = arrived();
  Operations expected{"1", "7", "3"};
  for (int i = 1; i < kPauses; ++i) expected.insert(expected.end(), {"4", "3"});
  expected.push_back("2");
  for (const std::string& id : ids) {
    EXPECT_EQ(got.operations.at(id), expected) << id;
    EXPECT_EQ(field(got.summaries.at(id), "play_id"), id);
  }
  EXPECT_EQ(got.headers, kPlays * 2);  // 122 actions: a part of 100, then the rest
}

// At the push timer each open play sends what it gathered as a part of its own; its end the rest.
TEST_P(PlayApiTest, ThePushTimerSendsEachOpenPlaysPartUnderItsOwnHeader) {
  format().setLimitLogCount(20);
  QXLogPlay* film = begin("film-8");
  QXLogPlay* preview = begin("preview-9");
  const std::string filmId = QXLogPlayId(film), previewId = QXLogPlayId(preview);
  after(200), QXLogPlaySetState(film, QXLogPlayerPlaying, 0), done();
  after(100), QXLogPlaySetState(preview, QXLogPlayerPlaying, 0), done();
  after(100), QXLogPlaySetState(film, QXLogPlayerPaused, 100), done();
  center().startTime(1);
  dispatcher_->advance(std::chrono::seconds(3));
  EXPECT_EQ(server_->requests().size(), 1u) << "the timer's submission";
  Arrived got = arrived();
  EXPECT_EQ(got.operations.at(filmId), (Operations{"1", "7", "3"}));
  EXPECT_EQ(got.operations.at(previewId), (Operations{"1", "7"}));
  EXPECT_EQ(got.headers, 2);
  // Still open: its file holds no action now; its report ends at the timer, after the pause.
  auto left =
      format::recoveredPlay(*files_->read(documentsPath("QXLogPlay-" + filmId + ".plist")), filmId);
  ASSERT_TRUE(left && left->report);
  EXPECT_TRUE(left->record.find("p")->asArray()->empty());
  EXPECT_GT(std::stoll(field(*left->report->find("play_info"), "endTime")),
            int64_t{1700000000000} + 400);

  QXLogPlaySetState(film, QXLogPlayerPlaying, 100), QXLogPlayEnd(film), QXLogPlayEnd(preview);
  got = arrived();
  EXPECT_EQ(got.operations.at(filmId), (Operations{"1", "7", "3", "4", "2"}));
  EXPECT_EQ(got.operations.at(previewId), (Operations{"1", "7", "2"}));
  EXPECT_EQ(got.headers, 4);
}

INSTANTIATE_TEST_SUITE_P(BatchSizes, PlayApiTest, ::testing::Values(1, 20));

}  // namespace
}  // namespace qxlog::testing
