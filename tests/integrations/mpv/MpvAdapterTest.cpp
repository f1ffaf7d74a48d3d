// The adapter on a headless libmpv core: a clip from disk and over a stalling server, a pause, a
// resume and a seek, a 404, an early detach; checked against what the host saw on its own handle.
#include <gst/gst.h>
#include <gtest/gtest.h>
#include <mpv/client.h>

#include <optional>

#include "QXLog/QXLogMpv.h"
#include "tests/integrations/AdapterFixture.h"

namespace qxlog::testing {
namespace {

// What the host saw through its own handle: the ground truth.
struct HostView {
  RealClock::time_point loaded = RealClock::now();
  std::optional<RealClock::time_point> fileStarted, stallBegan;
  std::optional<int64_t> firstRestartMillis;  // since the file started
  int64_t stallMillis = 0;                    // paused-for-cache spans, summed
  int stalls = 0;
  bool ended = false;

  void observe(const mpv_event& event) {
    if (event.event_id == MPV_EVENT_START_FILE && !fileStarted) {
      fileStarted = RealClock::now();
    } else if (event.event_id == MPV_EVENT_PLAYBACK_RESTART && !firstRestartMillis) {
      firstRestartMillis = millisSince(fileStarted.value_or(loaded));
    } else if (event.event_id == MPV_EVENT_END_FILE) {
      ended = true;
    } else if (event.event_id == MPV_EVENT_PROPERTY_CHANGE) {
      const auto* property = static_cast<const mpv_event_property*>(event.data);
      if (property->format != MPV_FORMAT_FLAG) return;
      const bool waiting = *static_cast<const int*>(property->data) != 0;
      if (waiting && !stallBegan) {
        stallBegan = RealClock::now();
      } else if (!waiting && stallBegan) {
        stallMillis += millisSince(*stallBegan);
        ++stalls;
        stallBegan.reset();
      }
    }
  }
};

class MpvAdapterTest : public AdapterTest {
 protected:
  // The host's reaction to an event on its handle, with what it saw so far.
  using React = std::function<void(mpv_handle*, const mpv_event&, HostView&)>;

  // Loads `url` with the adapter attached; serves the host's handle until the end or `done`.
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
    command(mpv, {"loadfile", url.c_str()});
    const auto guard = RealClock::now() + std::chrono::seconds(15);
    while (!view.ended && !done() && RealClock::now() < guard) {
      const mpv_event* event = mpv_wait_event(mpv, 0.02);
      view.observe(*event);
      if (react) react(mpv, *event, view);
    }
    EXPECT_LT(RealClock::now(), guard) << "the play did not end";
    QXLogMpvDetach(session);
    mpv_terminate_destroy(mpv);
    return view;
  }

  static void command(mpv_handle* mpv, std::initializer_list<const char*> words) {
    std::vector<const char*> args(words);
    args.push_back(nullptr);
    EXPECT_GE(mpv_command(mpv, args.data()), 0);
  }
};

TEST_F(MpvAdapterTest, AFilePlayedToItsEnd) {
  const HostView host = play(clip_);
  const Delivered play = deliver();
  EXPECT_EQ(play.operations, (Operations{"1", "7", "2"}));  // start, first frame, end
  EXPECT_EQ(field(play.header, "a_7"), "movie-9");
  ASSERT_EQ(play.diagnoses.size(), 1u);
  EXPECT_EQ(play.texts({"play_id", "movie_id", "url", "top_height", "exit_before_start"}),
            field(play.header, "play_id") + "|movie-9|" + clip_ + "|120|0");
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
  EXPECT_NEAR(play.number(4, "p_7"), 1500, 100);
  ASSERT_EQ(play.diagnoses.size(), 1u);
  EXPECT_EQ(play.texts({"seek_count", "rebuffer_count"}), "1|0");
  // 300 ms before the pause, 200 ms before the seek, half a second after it.
  EXPECT_NEAR(play.figure("played_ms"), 1000, 300);
  EXPECT_GE(pausedMillis, 300);
}

TEST_F(MpvAdapterTest, AStallOverHttpIsRebuffering) {
  const std::string bytes = clipBytes();
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
  for (const bool missing : {true, false}) {
    SCOPED_TRACE(missing ? "HTTP 404" : "detached");
    if (!missing) again();
    HostileServer stalling(clipBytes(), 0);
    if (missing) server_->script(ScriptedAnswer{404, "text/plain", "missing"});
    play(missing ? server_->url("/missing.ogv") : stalling.url("/clip.ogv"), {},
         [&] { return !missing && stalling.stalled(); });
    const Delivered play = deliver();
    EXPECT_EQ(play.operations, (Operations{"1", missing ? "8" : "2"}));
    ASSERT_FALSE(play.diagnoses.empty());
    EXPECT_TRUE(missing || play.diagnoses.size() == 1u) << play.diagnoses.size();
    // A failure is no exit before start.
    EXPECT_EQ(play.texts({"failed", "exit_before_start"}), missing ? "1|0" : "0|1");
    EXPECT_NE(play.text("cause").empty(), missing);
  }
}

}  // namespace
}  // namespace qxlog::testing
