// A play's measures and actions on timelines of events, in milliseconds.
#include <gtest/gtest.h>

#include <map>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "QXLog/format/PlayTimeline.h"

namespace qxlog::format {
namespace {

// Events, a letter and a time: 'R' runs (the first: first frame), 'S' stops, 'B'/'b' buffering,
// 'K'/'k' a seek, begins/ends; 'H'/'L' a rendition of 480 lines, 600 kb/s / 240 lines, 300 kb/s.
TEST(PlayMeasuresTest, SummariesOfTimelines) {
  // startup, rebuffers and ms, seeks, average, played, exit before start, switches, bitrate, top
  using Summary =
      std::tuple<int64_t, int64_t, int64_t, int64_t, int64_t, int64_t, bool, int64_t, int64_t, int>;
  const std::tuple<const char*, const char*, int64_t, Summary> cases[] = {
      {"buffering before the first frame is startup",
       "B100 b200 R300",
       1300,
       {300, 0, 0, 0, 0, 1000, false, 0, 0, 0}},
      {"two spans; a repeat of an open span changes nothing",
       "R0 B100 B150 b300 B500 b600",
       1000,
       {0, 2, 300, 0, 0, 700, false, 0, 0, 0}},
      {"a span of 0 ms stopped nothing",
       "R0 B100 b100 B400 b650",
       1000,
       {0, 1, 250, 0, 0, 750, false, 0, 0, 0}},
      {"seeks average; buffering inside a seek is the seek's",
       "R0 K100 B120 k200 K400 k700",
       1000,
       {0, 0, 0, 2, 200, 600, false, 0, 0, 0}},
      {"a pause stops the played time", "R0 S400", 1000, {0, 0, 0, 0, 0, 400, false, 0, 0, 0}},
      {"a span open at the end counts", "R0 B600", 1000, {0, 1, 400, 0, 0, 600, false, 0, 0, 0}},
      {"no first frame: the wait is the startup", "B100", 900, {900, 0, 0, 0, 0, 0, true, 0, 0, 0}},
      // 250 ms at 240p/300 kb/s, 250 at 480p/600 kb/s, 500 at 240p/300 kb/s
      {"the bitrate is weighted by the time played at it",
       "L0 R0 H250 S500 L800 R800",
       1300,
       {0, 0, 0, 0, 0, 1000, false, 2, 375000, 480}},
      {"a rendition before the first frame is no switch",
       "L0 H50 R100",
       1100,
       {100, 0, 0, 0, 0, 1000, false, 0, 600000, 480}},
  };
  for (const auto& [name, events, end, expected] : cases) {
    SCOPED_TRACE(name);
    PlayMeasures measures(0);
    std::istringstream in(events);
    char event;
    int64_t at;
    while (in >> event >> at) {
      if (event == 'R') measures.firstFrame(at, 0);
      if (event == 'R' || event == 'S') measures.setRunning(event == 'R', at);
      if (event == 'B') measures.bufferingBegan(at, 0);
      if (event == 'b') measures.bufferingEnded(at, 0);
      if (event == 'K') measures.seekBegan(at, 0);
      if (event == 'k') measures.seekEnded(at, 0);
      if (event == 'H' || event == 'L') {
        measures.rendition(event == 'H' ? 480 : 240, event == 'H' ? 600000 : 300000, at);
      }
    }
    const PlaySummary got = measures.finish(end, false);
    EXPECT_EQ(Summary(got.startupMillis, got.rebufferCount, got.rebufferMillis, got.seekCount,
                      got.seekAverageMillis, got.playedMillis, got.exitBeforeStart,
                      got.renditionSwitches, got.averageBitrate, got.topHeight),
              expected);
  }
}

// States told every 100 ms, by the letters above ('S' paused), and the operations they become.
TEST(PlayTimelineTest, StatesBecomeActions) {
  const std::tuple<const char*, const char*, const char*> cases[] = {
      {"startup, then the end", "SBR", "172"},
      {"pause and resume; a pause again is no second pause", "RSSR", "17342"},
      {"rebuffering while playing, not while paused", "RBRSBR", "175342"},
      {"a seek with its own buffering is one seek", "RKBR", "1762"},
      {"a seek while paused ends paused without a second pause", "RSKSR", "173642"},
      {"states before the first frame are its startup", "KBS", "12"},
  };
  using S = PlayerState;
  const std::map<char, S> states{
      {'R', S::kPlaying}, {'S', S::kPaused}, {'B', S::kBuffering}, {'K', S::kSeeking}};
  for (const auto& [name, told, operations] : cases) {
    SCOPED_TRACE(name);
    PlayTimeline timeline(1000);
    std::string got;
    auto add = [&](const std::vector<PlayAction>& actions) {
      for (const PlayAction& action : actions) got += QXLogPlayOperationText(action.operation);
    };
    add(timeline.takeStart());
    int64_t now = 1000;
    for (const char* state = told; *state; ++state) {
      add(timeline.setState(states.at(*state), now += 100, 0));
    }
    add(timeline.end(now += 100, 0));
    add(timeline.setState(S::kPlaying, now += 100, 0));  // nothing once ended
    EXPECT_EQ(got, operations);
  }
}

TEST(PlayTimelineTest, AQualityChangeNamesBothRenditions) {
  PlayTimeline timeline(0);
  EXPECT_TRUE(timeline.rendition(240, 300000, 10, 0).empty());  // the initial one
  timeline.setState(PlayerState::kPlaying, 100, 0);
  EXPECT_TRUE(timeline.rendition(240, 300000, 200, 100).empty());  // no change
  const std::vector<PlayAction> change = timeline.rendition(480, 600000, 300, 200);
  ASSERT_EQ(change.size(), 1u);
  EXPECT_EQ(std::tuple(change[0].operation, change[0].fromHeight, change[0].toHeight,
                       change[0].bitrate, change[0].status, change[0].span.startPosition),
            std::tuple(QXLogPlayOperationQualityChange, 240, 480, int64_t{600000},
                       QXLogPlayStatusPlaying, int64_t{200}));
}

}  // namespace
}  // namespace qxlog::format
