// A play's measures and actions on timelines of events, in milliseconds.
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "QXLog/format/PlayTimeline.h"

namespace qxlog::format {
namespace {

// Events: 'R' the player runs (the first time, the first frame), 'S' it
// stops, 'B' / 'b' buffering begins / ends, 'K' / 'k' a seek begins / ends,
// 'H' a rendition of height and bitrate `at` / 1000, 'H' 'L' heights 480 / 240.
TEST(PlayMeasuresTest, SummariesOfTimelines) {
  // startup, rebuffers, rebuffer ms, seeks, seek average, played, exit before
  // start, switches, average bitrate, top height
  using Summary =
      std::tuple<int64_t, int64_t, int64_t, int64_t, int64_t, int64_t, bool, int64_t, int64_t, int>;
  const struct {
    const char* name;
    std::vector<std::pair<char, int64_t>> events;
    int64_t end;
    Summary expected;
  } cases[] = {
      {"buffering before the first frame is startup",
       {{'B', 100}, {'b', 200}, {'R', 300}},
       1300,
       {300, 0, 0, 0, 0, 1000, false, 0, 0, 0}},
      {"two spans; a repeat of an open span changes nothing",
       {{'R', 0}, {'B', 100}, {'B', 150}, {'b', 300}, {'B', 500}, {'b', 600}},
       1000,
       {0, 2, 300, 0, 0, 700, false, 0, 0, 0}},
      {"a span of 0 ms stopped nothing",
       {{'R', 0}, {'B', 100}, {'b', 100}, {'B', 400}, {'b', 650}},
       1000,
       {0, 1, 250, 0, 0, 750, false, 0, 0, 0}},
      {"seeks average; buffering inside a seek is the seek's",
       {{'R', 0}, {'K', 100}, {'B', 120}, {'k', 200}, {'K', 400}, {'k', 700}},
       1000,
       {0, 0, 0, 2, 200, 600, false, 0, 0, 0}},
      {"a pause stops the played time",
       {{'R', 0}, {'S', 400}},
       1000,
       {0, 0, 0, 0, 0, 400, false, 0, 0, 0}},
      {"a span open at the end counts",
       {{'R', 0}, {'B', 600}},
       1000,
       {0, 1, 400, 0, 0, 600, false, 0, 0, 0}},
      {"no first frame: the wait is the startup",
       {{'B', 100}},
       900,
       {900, 0, 0, 0, 0, 0, true, 0, 0, 0}},
      {"the bitrate is weighted by the time played at it",
       {{'L', 0}, {'R', 0}, {'H', 250}, {'S', 500}, {'L', 800}, {'R', 800}},
       1300,
       // 250 ms at 240p/300 kb/s, 250 at 480p/600 kb/s, 500 at 240p/300 kb/s
       {0, 0, 0, 0, 0, 1000, false, 2, 375000, 480}},
      {"a rendition before the first frame is no switch",
       {{'L', 0}, {'H', 50}, {'R', 100}},
       1100,
       {100, 0, 0, 0, 0, 1000, false, 0, 600000, 480}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    PlayMeasures measures(0);
    for (const auto& [event, at] : c.events) {
      if (event == 'R') measures.firstFrame(at, 0);
      if (event == 'R' || event == 'S') measures.setRunning(event == 'R', at);
      if (event == 'B') measures.bufferingBegan(at, 0);
      if (event == 'b') measures.bufferingEnded(at, 0);
      if (event == 'K') measures.seekBegan(at, 0);
      if (event == 'k') measures.seekEnded(at, 0);
      if (event == 'H') measures.rendition(480, 600000, at);
      if (event == 'L') measures.rendition(240, 300000, at);
    }
    const PlaySummary got = measures.finish(c.end, false);
    EXPECT_EQ(Summary(got.startupMillis, got.rebufferCount, got.rebufferMillis, got.seekCount,
                      got.seekAverageMillis, got.playedMillis, got.exitBeforeStart,
                      got.renditionSwitches, got.averageBitrate, got.topHeight),
              c.expected);
  }
}

// States as a player tells them, and the operations ("p_2") they become.
TEST(PlayTimelineTest, StatesBecomeActions) {
  using S = PlayerState;
  const struct {
    const char* name;
    std::vector<S> states;  // one every 100 ms
    std::string operations;
  } cases[] = {
      {"startup, then the end", {S::kPaused, S::kBuffering, S::kPlaying}, "172"},
      {"pause and resume; a pause again is no second pause",
       {S::kPlaying, S::kPaused, S::kPaused, S::kPlaying},
       "17342"},
      {"rebuffering while playing, not while paused",
       {S::kPlaying, S::kBuffering, S::kPlaying, S::kPaused, S::kBuffering, S::kPlaying},
       "175342"},
      {"a seek with its own buffering is one seek",
       {S::kPlaying, S::kSeeking, S::kBuffering, S::kPlaying},
       "1762"},
      {"a seek while paused ends paused without a second pause",
       {S::kPlaying, S::kPaused, S::kSeeking, S::kPaused, S::kPlaying},
       "173642"},
      {"states before the first frame are its startup",
       {S::kSeeking, S::kBuffering, S::kPaused},
       "12"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    PlayTimeline timeline(1000);
    std::string got;
    auto add = [&](const std::vector<PlayAction>& actions) {
      for (const PlayAction& action : actions) got += QXLogPlayOperationText(action.operation);
    };
    add(timeline.takeStart());
    int64_t now = 1000;
    for (S state : c.states) add(timeline.setState(state, now += 100, 0));
    add(timeline.end(now += 100, 0));
    add(timeline.setState(S::kPlaying, now += 100, 0));  // nothing once ended
    EXPECT_EQ(got, c.operations);
  }
}

TEST(PlayTimelineTest, AQualityChangeNamesBothRenditions) {
  PlayTimeline timeline(0);
  EXPECT_TRUE(timeline.rendition(240, 300000, 10, 0).empty());  // the initial one
  timeline.setState(PlayerState::kPlaying, 100, 0);
  EXPECT_TRUE(timeline.rendition(240, 300000, 200, 100).empty());  // no change
  const std::vector<PlayAction> change = timeline.rendition(480, 600000, 300, 200);
  ASSERT_EQ(change.size(), 1u);
  EXPECT_EQ(change[0].operation, QXLogPlayOperationQualityChange);
  EXPECT_EQ(std::tuple(change[0].fromHeight, change[0].toHeight, change[0].bitrate),
            std::tuple(240, 480, int64_t{600000}));
  EXPECT_EQ(change[0].status, QXLogPlayStatusPlaying);
  EXPECT_EQ(change[0].span.startPosition, 200);
}

}  // namespace
}  // namespace qxlog::format
