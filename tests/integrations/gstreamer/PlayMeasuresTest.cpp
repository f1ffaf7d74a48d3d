#include <gtest/gtest.h>

#include "integrations/gstreamer/PlayMeasures.h"

namespace qxlog::gst {
namespace {

// One play on a timeline of milliseconds, event by event, against its summary.
TEST(PlayMeasuresTest, SummariesOfTimelines) {
  struct Event {
    enum Kind { kRunning, kStopped, kBuffering, kBuffered, kSeek, kPrerolled } kind;
    int64_t at;
  };
  const struct {
    const char* name;
    std::vector<Event> events;
    int64_t end;
    PlaySummary expected;
  } cases[] = {
      {"plain play", {{Event::kRunning, 300}}, 1300, {300, 0, 0, 0, 0, 1000, false, false}},
      {"buffering before the first frame is startup",
       {{Event::kBuffering, 100}, {Event::kBuffered, 200}, {Event::kRunning, 300}},
       1300,
       {300, 0, 0, 0, 0, 1000, false, false}},
      {"two spans; a repeat of an open span changes nothing",
       {{Event::kRunning, 0},
        {Event::kBuffering, 100},
        {Event::kBuffering, 150},
        {Event::kBuffered, 300},
        {Event::kBuffering, 500},
        {Event::kBuffered, 600}},
       1000,
       {0, 2, 300, 0, 0, 700, false, false}},
      {"seeks average; buffering inside a seek is the seek's",
       {{Event::kRunning, 0},
        {Event::kSeek, 100},
        {Event::kBuffering, 120},
        {Event::kPrerolled, 200},
        {Event::kSeek, 400},
        {Event::kPrerolled, 700}},
       1000,
       {0, 0, 0, 2, 200, 600, false, false}},
      {"a pause stops the played time",
       {{Event::kRunning, 0}, {Event::kStopped, 400}},
       1000,
       {0, 0, 0, 0, 0, 400, false, false}},
      {"a span open at the end counts",
       {{Event::kRunning, 0}, {Event::kBuffering, 600}},
       1000,
       {0, 1, 400, 0, 0, 600, false, false}},
      {"no first frame: the wait is the startup",
       {{Event::kBuffering, 100}},
       900,
       {900, 0, 0, 0, 0, 0, true, false}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    PlayMeasures measures(0);
    for (const Event& event : c.events) {
      switch (event.kind) {
        case Event::kRunning:
          measures.firstFrame(event.at, 0);
          measures.setRunning(true, event.at);
          break;
        case Event::kStopped:
          measures.setRunning(false, event.at);
          break;
        case Event::kBuffering:
          measures.bufferingBegan(event.at, 0);
          break;
        case Event::kBuffered:
          measures.bufferingEnded(event.at, 0);
          break;
        case Event::kSeek:
          measures.seekBegan(event.at, 0);
          break;
        case Event::kPrerolled:
          measures.seekEnded(event.at, 0);
          break;
      }
    }
    const PlaySummary got = measures.finish(c.end, false);
    const PlaySummary& want = c.expected;
    EXPECT_EQ(got.startupMillis, want.startupMillis);
    EXPECT_EQ(got.rebufferCount, want.rebufferCount);
    EXPECT_EQ(got.rebufferMillis, want.rebufferMillis);
    EXPECT_EQ(got.seekCount, want.seekCount);
    EXPECT_EQ(got.seekAverageMillis, want.seekAverageMillis);
    EXPECT_EQ(got.playedMillis, want.playedMillis);
    EXPECT_EQ(got.exitBeforeStart, want.exitBeforeStart);
  }
}

}  // namespace
}  // namespace qxlog::gst
