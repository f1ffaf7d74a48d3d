// The adapter on a real libmpv core (no video or audio output), reporting to
// the tests' log server: a generated clip from disk, over an HTTP server that
// stalls, with a pause, a resume and a seek, an HTTP 404, and a detach before
// the first frame. What the adapter reports is checked against what the host
// saw of the same core through its own handle.
#include <gst/gst.h>
#include <gtest/gtest.h>
#include <mpv/client.h>

#include <chrono>
#include <functional>

#include "QXLog/QXLogMpv.h"
#include "QXLog/recording/Gate.h"
#include "collector/decode/EnvelopeDecoder.h"
#include "tests/integrations/GeneratedMedia.h"
#include "tests/support/HostileServer.h"
#include "tests/support/UploadFixture.h"

namespace qxlog::testing {
namespace {

using RealClock = std::chrono::steady_clock;
using Operations = std::vector<std::string>;

int64_t millisSince(RealClock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(RealClock::now() - start).count();
}

// What the log server received for one play.
struct Delivered {
  Dictionary header;
  Operations operations;  // "p_2" of each action, in order
  Array actions;
  std::vector<Value> diagnoses;

  std::string text(const char* key, const char* object = "play_summary") const {
    return field(*diagnoses.back().asDictionary()->find(object), key);
  }
  int64_t figure(const char* key) const { return std::stoll(text(key)); }
};

// What the host saw through its own handle: the ground truth.
struct HostView {
  RealClock::time_point loaded;
  std::optional<RealClock::time_point> fileStarted;
  std::optional<int64_t> firstRestartMillis;  // since the file started
  int64_t stallMillis = 0;                    // paused-for-cache spans, summed
  int stalls = 0;
  std::optional<RealClock::time_point> stallBegan;
  bool ended = false;
};

class MpvAdapterTest : public UploadTest {
 protected:
  // The host's reaction to an event on its handle, with what it saw so far.
  using React = std::function<void(mpv_handle*, const mpv_event&, HostView&)>;

  static void SetUpTestSuite() { gst_init(nullptr, nullptr); }

  void SetUp() override {
    realClock_ = true;  // the player's spans are real time
    UploadTest::SetUp();
    format().setLimitLogCount(1000);  // everything waits for deliver()
    recording::setEnvironmentReady(true);
    clip_ = documents_ + "/clip.ogv";
    makeClip();
  }

  void makeClip() { makeTheoraClip(clip_); }

  // Loads `url` in a headless core with the adapter attached and serves the
  // host's handle until the file ends or `done`; real time, bounded.
  HostView play(
      const std::string& url, React react = {}, std::function<bool()> done = [] { return false; }) {
    mpv_handle* mpv = mpv_create();
    EXPECT_NE(mpv, nullptr);
    for (const auto& [name, value] : {std::pair{"vo", "null"},
                                      {"ao", "null"},
                                      {"idle", "yes"},
                                      {"terminal", "no"},
                                      {"input-default-bindings", "no"}}) {
      mpv_set_option_string(mpv, name, value);
    }
    EXPECT_GE(mpv_initialize(mpv), 0);
    mpv_observe_property(mpv, 1, "paused-for-cache", MPV_FORMAT_FLAG);
    QXLogMpvOptions options{"movie-9", "test", "1", false, "0"};
    QXLogMpvSession* session = QXLogMpvAttach(mpv, &options);
    EXPECT_NE(session, nullptr);
    HostView view;
    view.loaded = RealClock::now();
    const char* load[] = {"loadfile", url.c_str(), nullptr};
    EXPECT_GE(mpv_command(mpv, load), 0);
    const auto guard = RealClock::now() + std::chrono::seconds(15);
    while (!view.ended && !done() && RealClock::now() < guard) {
      const mpv_event* event = mpv_wait_event(mpv, 0.02);
      observe(*event, view);
      if (react) react(mpv, *event, view);
    }
    EXPECT_LT(RealClock::now(), guard) << "the play did not end";
    QXLogMpvDetach(session);
    mpv_terminate_destroy(mpv);
    return view;
  }

  static void observe(const mpv_event& event, HostView& view) {
    if (event.event_id == MPV_EVENT_START_FILE && !view.fileStarted) {
      view.fileStarted = RealClock::now();
    } else if (event.event_id == MPV_EVENT_PLAYBACK_RESTART && !view.firstRestartMillis) {
      view.firstRestartMillis = millisSince(view.fileStarted.value_or(view.loaded));
    } else if (event.event_id == MPV_EVENT_END_FILE) {
      view.ended = true;
    } else if (event.event_id == MPV_EVENT_PROPERTY_CHANGE) {
      const auto* property = static_cast<const mpv_event_property*>(event.data);
      if (property->format != MPV_FORMAT_FLAG) return;
      const bool waiting = *static_cast<const int*>(property->data) != 0;
      if (waiting && !view.stallBegan) {
        view.stallBegan = RealClock::now();
      } else if (!waiting && view.stallBegan) {
        view.stallMillis += millisSince(*view.stallBegan);
        ++view.stalls;
        view.stallBegan.reset();
      }
    }
  }

  // Sends the waiting records and reads back the play and the diagnoses.
  Delivered deliver() {
    center().submitAllLog();
    settle();
    Delivered delivered;
    const std::vector<ReceivedRequest> requests = server_->requests();
    for (std::size_t i = 0; i < requests.size(); ++i) {
      if (requests[i].path == "/diagnosis") {
        auto report = collector::decodeLogData(requests[i].param("diagnosis_log"), kTestKey);
        if (report) delivered.diagnoses.push_back(*report.value);
        continue;
      }
      if (requests[i].path != "/log") continue;  // the 404 test's media request
      for (const Value& record : records(i)) {
        const Value* actions = record.asDictionary()->find("p");
        if (actions == nullptr) continue;
        delivered.header = *record.asDictionary();
        for (const Value& action : *actions->asArray()) {
          delivered.actions.push_back(action);
          delivered.operations.push_back(field(action, "p_2"));
        }
      }
    }
    return delivered;
  }

  static void command(mpv_handle* mpv, std::initializer_list<const char*> words) {
    std::vector<const char*> args(words);
    args.push_back(nullptr);
    EXPECT_GE(mpv_command(mpv, args.data()), 0);
  }

  std::string clip_;
};

TEST_F(MpvAdapterTest, AFilePlayedToItsEnd) {
  const HostView host = play(clip_);
  const Delivered play = deliver();
  EXPECT_EQ(play.operations, (Operations{"1", "7", "2"}));  // start, first frame, end
  EXPECT_EQ(field(play.header, "a_7"), "movie-9");
  ASSERT_EQ(play.diagnoses.size(), 1u);
  EXPECT_EQ(play.text("play_id"), field(play.header, "play_id"));
  EXPECT_EQ(play.text("movie_id"), "movie-9");
  EXPECT_EQ(play.text("url"), clip_);
  EXPECT_EQ(play.text("top_height"), "120");
  EXPECT_EQ(play.text("exit_before_start"), "0");
  EXPECT_EQ(play.figure("rebuffer_count") + play.figure("seek_count"), 0);
  ASSERT_TRUE(host.firstRestartMillis);
  EXPECT_NEAR(play.figure("startup_ms"), *host.firstRestartMillis,
              std::max<int64_t>(100, *host.firstRestartMillis / 4));
  EXPECT_NEAR(play.figure("played_ms"), 2000, 300);
}

TEST_F(MpvAdapterTest, PauseResumeAndSeek) {
  int step = 0;
  RealClock::time_point last;
  int64_t pausedMillis = 0;
  play(clip_, [&](mpv_handle* mpv, const mpv_event& event, HostView&) {
    if (step == 0 && event.event_id == MPV_EVENT_PLAYBACK_RESTART) {
      ++step, last = RealClock::now();
    } else if (step == 1 && millisSince(last) >= 300) {
      command(mpv, {"set", "pause", "yes"});
      ++step, last = RealClock::now();
    } else if (step == 2 && millisSince(last) >= 300) {
      command(mpv, {"set", "pause", "no"});
      pausedMillis = millisSince(last);
      ++step, last = RealClock::now();
    } else if (step == 3 && millisSince(last) >= 200) {
      command(mpv, {"seek", "1.5", "absolute"});
      ++step;
    }
  });
  ASSERT_EQ(step, 4);
  const Delivered play = deliver();
  // start, first frame, pause, resume, seek, end
  ASSERT_EQ(play.operations, (Operations{"1", "7", "3", "4", "6", "2"}));
  EXPECT_NEAR(std::stoll(field(play.actions[4], "p_7")), 1500, 100);
  ASSERT_EQ(play.diagnoses.size(), 1u);
  EXPECT_EQ(play.figure("seek_count"), 1);
  EXPECT_EQ(play.figure("rebuffer_count"), 0);
  // 300 ms before the pause, 200 ms before the seek, half a second after it.
  EXPECT_NEAR(play.figure("played_ms"), 1000, 300);
  EXPECT_GE(pausedMillis, 300);
}

TEST_F(MpvAdapterTest, AStallOverHttpIsRebuffering) {
  const std::string bytes = files_->read(clip_).value_or("");
  HostileServer server(bytes, bytes.size() / 2);
  std::optional<RealClock::time_point> stalled;
  const HostView host =
      play(server.url("/clip.ogv"), [&](mpv_handle*, const mpv_event&, HostView& view) {
        // The stall lasts 300 ms from when the host sees the player wait.
        if (view.stallBegan && !stalled) stalled = RealClock::now();
        if (stalled && millisSince(*stalled) >= 300) server.release();
      });
  ASSERT_TRUE(stalled) << "the player never waited for data";
  const Delivered play = deliver();
  EXPECT_EQ(play.operations.back(), "2");
  ASSERT_EQ(play.diagnoses.size(), 1u);
  EXPECT_EQ(play.figure("rebuffer_count"), host.stalls);
  EXPECT_NEAR(play.figure("rebuffer_ms"), host.stallMillis,
              std::max<int64_t>(100, host.stallMillis * 4 / 10));
}

TEST_F(MpvAdapterTest, AnEndBeforeTheFirstFrame) {
  {
    SCOPED_TRACE("HTTP 404");
    server_->script(ScriptedAnswer{404, "text/plain", "missing"});
    play(server_->url("/missing.ogv"));
    const Delivered play = deliver();
    EXPECT_EQ(play.operations, (Operations{"1", "8"}));
    ASSERT_FALSE(play.diagnoses.empty());
    EXPECT_EQ(play.text("failed") + play.text("exit_before_start"), "10");
    EXPECT_FALSE(play.text("cause").empty());
  }
  TearDown();
  SetUp();
  {
    SCOPED_TRACE("detached");
    HostileServer stalling(files_->read(clip_).value_or(""), 0);
    play(stalling.url("/clip.ogv"), {}, [&] { return stalling.stalled(); });
    const Delivered play = deliver();
    EXPECT_EQ(play.operations, (Operations{"1", "2"}));
    ASSERT_EQ(play.diagnoses.size(), 1u);
    EXPECT_EQ(play.text("failed") + play.text("exit_before_start"), "01");
  }
}

}  // namespace
}  // namespace qxlog::testing
