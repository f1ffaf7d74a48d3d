// The play API against the tests' log server: plays reported at once, with
// their states interleaved, arrive each under its own header copies and with
// its own summary, at any batch size and across a restart.
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

  struct Arrived {
    std::map<std::string, Operations> operations;  // by play id, over all its header copies
    std::map<std::string, Array> actions;
    std::map<std::string, Dictionary> summaries;  // "play_summary" by play id
    int headers = 0;
  };
  Arrived arrived() {
    center().submitAllLog();
    settle();
    Arrived got;
    const std::vector<ReceivedRequest> requests = server_->requests();
    for (std::size_t i = 0; i < requests.size(); ++i) {
      if (requests[i].path == "/diagnosis") {
        auto report = collector::decodeLogData(requests[i].param("diagnosis_log"), kTestKey);
        if (!report) continue;
        const Value* summary = report.value->asDictionary()->find("play_summary");
        if (summary == nullptr) continue;
        got.summaries[field(*summary, "play_id")] = *summary->asDictionary();
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

TEST_P(PlayApiTest, InterleavedPlaysAndARestartArriveWholeUnderTheirOwnIds) {
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

  // The process dies in the middle of the film; the next run plays another.
  recording::discardPlayForTesting(film);
  EXPECT_TRUE(files_->exists(documentsPath("QXLogPlay-" + filmId + ".plist")));
  restartOverTheSameDocuments();
  QXLogPlay* next = begin("film-3");
  const std::string nextId = QXLogPlayId(next);
  after(200), QXLogPlaySetState(next, QXLogPlayerPlaying, 0), done();
  after(1000), QXLogPlayEnd(next), done();

  const Arrived got = arrived();
  EXPECT_EQ(got.operations.at(filmId), (Operations{"1", "7", "5", "9", "3"}));
  EXPECT_EQ(got.operations.at(previewId), (Operations{"1", "7", "3", "4", "6", "2"}));
  EXPECT_EQ(got.operations.at(nextId), (Operations{"1", "7", "2"}));
  EXPECT_EQ(got.operations.size(), 3u) << "a header copy without a play id";
  // Ended plays come whole in one header copy; the film's copy came after the restart.
  EXPECT_EQ(got.headers, 3);

  // The film's rebuffering span and its switch, from one height to the other.
  const Array& film_actions = got.actions.at(filmId);
  EXPECT_EQ(field(film_actions[2], "p_8"), "2900");  // 900 ms + 2000
  EXPECT_EQ(field(film_actions[3], "from_height"), "240");
  EXPECT_EQ(field(film_actions[3], "to_height"), "480");
  EXPECT_EQ(field(film_actions[3], "bitrate_bps"), "600000");

  // Summaries: each play's, with its id and movie; the film's ended by the restart.
  ASSERT_EQ(got.summaries.size(), 3u);
  EXPECT_EQ(field(got.summaries.at(filmId), "ended_by_restart"), "1");
  EXPECT_EQ(field(got.summaries.at(previewId), "ended_by_restart"), "0");
  const Dictionary& previewSummary = got.summaries.at(previewId);
  EXPECT_EQ(field(previewSummary, "movie_id"), "preview-2");
  EXPECT_EQ(field(previewSummary, "video_type"), "1");
  EXPECT_EQ(field(previewSummary, "view_source"), "home");
  EXPECT_EQ(field(previewSummary, "url"), "file:///media/clip.mp4");
  EXPECT_EQ(field(previewSummary, "startup_ms"), "400");
  EXPECT_EQ(field(previewSummary, "seek_count"), "1");
  EXPECT_EQ(field(previewSummary, "seek_avg_ms"), "80");
  // Played: 700 ms before the pause, 50 ms before the seek, 400 ms after it.
  EXPECT_EQ(field(previewSummary, "played_ms"), "1150");
  EXPECT_EQ(field(got.summaries.at(nextId), "movie_id"), "film-3");
  EXPECT_EQ(field(got.summaries.at(nextId), "startup_ms"), "200");

  // Nothing is left on disk for another run.
  for (const std::string& id : {filmId, previewId, nextId}) {
    EXPECT_FALSE(files_->exists(documentsPath("QXLogPlay-" + id + ".plist"))) << id;
  }
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
  const Dictionary& failed = got.summaries.at(failingId);
  const Dictionary& left = got.summaries.at(leavingId);
  EXPECT_EQ(field(failed, "failed") + field(failed, "exit_before_start"), "10");
  EXPECT_EQ(field(failed, "cause"), "404 Not Found");
  EXPECT_EQ(field(failed, "startup_ms"), "300");
  EXPECT_EQ(field(left, "failed") + field(left, "exit_before_start"), "01");
  EXPECT_EQ(field(left, "cause"), "");
}

// Plays on threads of their own at once: each arrives whole, under its id.
TEST_P(PlayApiTest, PlaysOnManyThreadsStayApart) {
  format().setLimitLogCount(100000);       // submitted together at the end
  constexpr int kPlays = 4, kPauses = 60;  // 2 x 60 actions: the play goes in parts
  std::vector<std::string> ids(kPlays);
  std::vector<std::thread> threads;
  for (int p = 0; p < kPlays; ++p) {
    QXLogPlay* play = begin(("movie-" + std::to_string(p)).c_str());
    ids[p] = QXLogPlayId(play);
    threads.emplace_back([play] {
      for (int i = 0; i < kPauses; ++i) {
        QXLogPlaySetState(play, QXLogPlayerPlaying, i * 10);
        QXLogPlaySetState(play, QXLogPlayerPaused, i * 10 + 5);
      }
      QXLogPlayEnd(play);
    });
  }
  for (std::thread& thread : threads) thread.join();
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

// A play left by a run that stopped goes out when the next run starts the
// library, before any play of its own: its actions under its own header, then
// its report as at its last moment known, marked as ended by the restart.
TEST_P(PlayApiTest, ALeftoverPlayGoesOutWholeWithItsReportAtTheNextStart) {
  QXLogPlay* film = begin("film-6");
  QXLogPlay* preview = begin("preview-7");
  const std::string filmId = QXLogPlayId(film), previewId = QXLogPlayId(preview);
  after(300), QXLogPlaySetState(film, QXLogPlayerPlaying, 0), done();
  QXLogPlayRendition(film, 240, 300000), done();
  after(100), QXLogPlaySetState(preview, QXLogPlayerPlaying, 0), done();
  after(500), QXLogPlaySetState(film, QXLogPlayerBuffering, 600), done();
  after(700), QXLogPlaySetState(film, QXLogPlayerPlaying, 600), done();
  QXLogPlayRendition(film, 480, 600000), done();
  after(200), QXLogPlaySetState(preview, QXLogPlayerPaused, 1500), done();
  after(400), QXLogPlaySetState(film, QXLogPlayerPaused, 1200), done();
  recording::discardPlayForTesting(film);  // the run stops: the film never ends
  after(100), QXLogPlayEnd(preview), done();

  restartOverTheSameDocuments();
  logEnvReady(true);
  const Arrived got = arrived();
  EXPECT_EQ(got.operations.at(filmId), (Operations{"1", "7", "5", "9", "3"}));
  EXPECT_EQ(got.operations.at(previewId), (Operations{"1", "7", "3", "2"}));
  EXPECT_EQ(got.headers, 2);
  const Dictionary& report = got.summaries.at(filmId);
  EXPECT_EQ(field(report, "ended_by_restart"), "1");
  EXPECT_EQ(field(report, "movie_id"), "film-6");
  EXPECT_EQ(field(report, "startup_ms"), "300");
  EXPECT_EQ(field(report, "rebuffer_count") + "/" + field(report, "rebuffer_ms"), "1/700");
  // Played: 600 ms before the stall, 600 ms after it, up to the pause.
  EXPECT_EQ(field(report, "played_ms"), "1200");
  EXPECT_EQ(field(report, "rendition_switches") + "/" + field(report, "top_height"), "1/480");
  EXPECT_EQ(field(report, "exit_before_start") + field(report, "failed"), "00");
  EXPECT_EQ(field(got.summaries.at(previewId), "ended_by_restart"), "0");
  EXPECT_EQ(got.summaries.size(), 2u);
  EXPECT_FALSE(files_->exists(documentsPath("QXLogPlay-" + filmId + ".plist")));
  EXPECT_FALSE(files_->exists(documentsPath("QXLogPlays.plist")));
}

// When the push timer runs out, each open play sends what it has gathered as
// a part of its own; its end sends the rest.
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
  // Still open: its file holds no action now, and its report ends it at the
  // timer, after its last action (the pause, 400 ms in).
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
