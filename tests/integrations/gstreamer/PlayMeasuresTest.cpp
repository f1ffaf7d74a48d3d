#include <gtest/gtest.h>

#include <tuple>

#include "integrations/gstreamer/PlayMeasures.h"

namespace qxlog::gst {
namespace {

// One play on a timeline of milliseconds against its summary. Events: 'R' the
// pipeline runs (the first time, the first frame), 'S' it stops, 'B' / 'b'
// buffering begins / reaches 100 %, 'K' / 'k' a seek begins / prerolls.
TEST(PlayMeasuresTest, SummariesOfTimelines) {
  using Summary = std::tuple<int64_t, int64_t, int64_t, int64_t, int64_t, int64_t, bool>;
  const struct {
    const char* name;
    std::vector<std::pair<char, int64_t>> events;
    int64_t end;
    // startup, rebuffers, rebuffer ms, seeks, seek average, played, exit before start
    Summary expected;
  } cases[] = {
      {"buffering before the first frame is startup",
       {{'B', 100}, {'b', 200}, {'R', 300}},
       1300,
       {300, 0, 0, 0, 0, 1000, false}},
      {"two spans; a repeat of an open span changes nothing",
       {{'R', 0}, {'B', 100}, {'B', 150}, {'b', 300}, {'B', 500}, {'b', 600}},
       1000,
       {0, 2, 300, 0, 0, 700, false}},
      {"seeks average; buffering inside a seek is the seek's",
       {{'R', 0}, {'K', 100}, {'B', 120}, {'k', 200}, {'K', 400}, {'k', 700}},
       1000,
       {0, 0, 0, 2, 200, 600, false}},
      {"a pause stops the played time", {{'R', 0}, {'S', 400}}, 1000, {0, 0, 0, 0, 0, 400, false}},
      {"a span open at the end counts",
       {{'R', 0}, {'B', 600}},
       1000,
       {0, 1, 400, 0, 0, 600, false}},
      {"no first frame: the wait is the startup", {{'B', 100}}, 900, {900, 0, 0, 0, 0, 0, true}},
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
    }
    const PlaySummary got = measures.finish(c.end, false);
    EXPECT_EQ(Summary(got.startupMillis, got.rebufferCount, got.rebufferMillis, got.seekCount,
                      got.seekAverageMillis, got.playedMillis, got.exitBeforeStart),
              c.expected);
  }
}

}  // namespace
}  // namespace qxlog::gst
