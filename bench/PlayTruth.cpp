// How close the GStreamer adapter's figures come to what happened, measured
// against records it does not make: the video sink's own handoffs (the time
// each frame was shown, its height), the media server's log (when it held the
// body back and when it let go) and the host's marks (when it asked to play).
// A measurement, run by scripts/play-truth.sh, not part of the test suite:
// each case prints one line per figure,
//   truth: <case> <figure> reported <r> truth <t> goal <text> <met|NOT MET>
// and fails when a goal is not met.
//
// Truths: the startup runs from the host's request to the first frame at the
// sink; a rebuffering is a gap of more than three frame durations between
// frames at the sink after the first, lasting the gap less one frame; the
// time played runs from the first frame to the end of the last, less the
// rebuffering; the renditions are the heights of the caps the sink received,
// in order. Also printed: how long the host's request to play blocked its
// thread, and the media server's own window of holding the body back.
#include <gst/gst.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <optional>
#include <vector>

#include "QXLog/QXLogGst.h"
#include "tests/integrations/AdapterFixture.h"

namespace qxlog::testing {
namespace {

constexpr int64_t kFrameMillis = 40;  // every clip here is 25 frames a second

int64_t millisBetween(RealClock::time_point from, RealClock::time_point to) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(to - from).count();
}

// What the video sink saw: each frame's arrival and height.
struct SinkLog {
  std::mutex mutex;
  std::vector<std::pair<RealClock::time_point, int>> frames;

  static void onHandoff(GstElement*, GstBuffer*, GstPad* pad, gpointer data) {
    int height = 0;
    if (GstCaps* caps = gst_pad_get_current_caps(pad)) {
      gst_structure_get_int(gst_caps_get_structure(caps, 0), "height", &height);
      gst_caps_unref(caps);
    }
    auto* log = static_cast<SinkLog*>(data);
    std::lock_guard lock(log->mutex);
    log->frames.emplace_back(RealClock::now(), height);
  }
};

struct Truth {
  int64_t startup = 0;
  int64_t rebuffers = 0;
  int64_t rebufferMillis = 0;
  int64_t played = 0;
  std::vector<int> heights;  // each change of height, the first included
};

Truth truthOf(SinkLog& log, RealClock::time_point requested) {
  std::lock_guard lock(log.mutex);
  Truth truth;
  if (log.frames.empty()) return truth;
  truth.startup = millisBetween(requested, log.frames.front().first);
  for (std::size_t i = 0; i < log.frames.size(); ++i) {
    if (truth.heights.empty() || truth.heights.back() != log.frames[i].second) {
      truth.heights.push_back(log.frames[i].second);
    }
    if (i == 0) continue;
    const int64_t gap = millisBetween(log.frames[i - 1].first, log.frames[i].first);
    if (gap > 3 * kFrameMillis) ++truth.rebuffers, truth.rebufferMillis += gap - kFrameMillis;
  }
  // Frames moving in real time: first to last shown, the last one's time
  // included, less the stops.
  truth.played = millisBetween(log.frames.front().first, log.frames.back().first) + kFrameMillis -
                 truth.rebufferMillis;
  return truth;
}

bool printFigure(const char* name, const char* figure, int64_t reported, int64_t truth,
                 int64_t allowed, const std::string& goal) {
  const bool met = std::llabs(reported - truth) <= allowed;
  std::printf("truth: %s %s reported %lld truth %lld goal %s %s\n", name, figure,
              static_cast<long long>(reported), static_cast<long long>(truth), goal.c_str(),
              met ? "met" : "NOT MET");
  std::fflush(stdout);
  return met;
}

class PlayTruth : public AdapterTest {
 protected:
  // Plays `uri` to its end into a synchronised fake sink; `tick` runs every
  // 5 ms with the pipeline and whether it has reached PLAYING.
  Truth play(const char* name, const std::string& uri, const std::function<void(bool)>& tick = {}) {
    GstElement* playbin = gst_element_factory_make("playbin", nullptr);
    g_object_set(playbin, "uri", uri.c_str(), nullptr);
    SinkLog sink;
    GstElement* video = gst_element_factory_make("fakesink", nullptr);
    g_object_set(video, "sync", TRUE, "signal-handoffs", TRUE, nullptr);
    g_signal_connect(video, "handoff", G_CALLBACK(&SinkLog::onHandoff), &sink);
    GstElement* audio = gst_element_factory_make("fakesink", nullptr);
    g_object_set(audio, "sync", TRUE, nullptr);
    g_object_set(playbin, "video-sink", video, "audio-sink", audio, nullptr);
    QXLogGstOptions options{"truth", "truth", "1", false, "1"};
    QXLogGstSession* session = QXLogGstAttach(playbin, &options);
    // The adapter reads the bus through its signal watch: this host too.
    struct Host {
      GstElement* playbin;
      const char* name;
      RealClock::time_point requested;
      bool ended = false, playing = false;
    } host{playbin, name, RealClock::now()};
    GstBus* bus = gst_element_get_bus(playbin);
    gst_bus_add_signal_watch(bus);
    auto onMessage = +[](GstBus*, GstMessage* message, gpointer data) {
      auto* host = static_cast<Host*>(data);
      host->ended |= GST_MESSAGE_TYPE(message) == GST_MESSAGE_EOS ||
                     GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR;
      if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_STATE_CHANGED &&
          GST_MESSAGE_SRC(message) == GST_OBJECT(host->playbin)) {
        GstState old, state, pending;
        gst_message_parse_state_changed(message, &old, &state, &pending);
        if (state == GST_STATE_PLAYING && !host->playing) {
          std::printf("truth: %s playing-reached_ms %lld (the pipeline's PLAYING)\n", host->name,
                      static_cast<long long>(millisSince(host->requested)));
        }
        host->playing |= state == GST_STATE_PLAYING;
      }
    };
    const gulong handler = g_signal_connect(bus, "message", G_CALLBACK(onMessage), &host);
    const RealClock::time_point requested = RealClock::now();  // the host's mark
    host.requested = requested;
    gst_element_set_state(playbin, GST_STATE_PLAYING);
    std::printf("truth: %s request-blocked_ms %lld (the host's call to play)\n", name,
                static_cast<long long>(millisSince(requested)));
    const auto guard = RealClock::now() + std::chrono::seconds(30);
    while (!host.ended && RealClock::now() < guard) {
      while (g_main_context_iteration(nullptr, FALSE)) {
      }
      if (tick) tick(host.playing);
      g_usleep(5000);
    }
    const bool ended = host.ended;
    g_signal_handler_disconnect(bus, handler);
    gst_bus_remove_signal_watch(bus);
    EXPECT_TRUE(ended) << "the play did not end";
    QXLogGstDetach(session);
    gst_object_unref(bus);
    gst_element_set_state(playbin, GST_STATE_NULL);
    gst_object_unref(playbin);
    return truthOf(sink, requested);
  }

  // A figure of the play's summary as the log server received it; -1 when none came.
  static int64_t figure(const Delivered& got, const char* key) {
    if (got.diagnoses.empty() || !got.diagnoses.back().asDictionary()->find("play_summary")) {
      return -1;
    }
    const std::string text = got.text(key);
    return text.empty() || text[0] == '<' ? -1 : std::stoll(text);
  }

  // Startup, rebuffering and time played against their goals.
  void compare(const char* name, const Delivered& got, const Truth& truth) {
    bool met = printFigure(name, "startup_ms", figure(got, "startup_ms"), truth.startup,
                           std::max<int64_t>(100, truth.startup / 4), "max(100ms,25%)");
    met &= printFigure(name, "rebuffer_count", figure(got, "rebuffer_count"), truth.rebuffers, 0,
                       "exact");
    met &= printFigure(name, "rebuffer_ms", figure(got, "rebuffer_ms"), truth.rebufferMillis,
                       truth.rebufferMillis * 2 / 5, "40%");
    met &= printFigure(name, "played_ms", figure(got, "played_ms"), truth.played,
                       std::max<int64_t>(300, truth.played / 10), "max(300ms,10%)");
    EXPECT_TRUE(met) << name;
  }
};

TEST_F(PlayTruth, AFilePlayedToItsEnd) {
  const Truth truth = play("file", "file://" + clip_);
  compare("file", deliver(), truth);
}

// The media server holds the body back at its middle for 2.5 s from the
// moment the play reached PLAYING.
TEST_F(PlayTruth, AStallAtTheMediaServer) {
  const std::string bytes = clipBytes();
  HostileServer server(bytes, bytes.size() / 2);
  std::optional<RealClock::time_point> heldSince, releaseAt, released;
  const Truth truth = play("stall", server.url("/clip.ogv"), [&](bool playing) {
    const auto now = RealClock::now();
    if (!heldSince && server.stalled()) heldSince = now;
    if (playing && !releaseAt) releaseAt = now + std::chrono::milliseconds(2500);
    if (releaseAt && !released && now >= *releaseAt) server.release(), released = now;
  });
  ASSERT_TRUE(heldSince && released) << "the server never held the body back";
  std::printf("truth: stall server-held_ms %lld (the media server's own window)\n",
              static_cast<long long>(millisBetween(*heldSince, *released)));
  compare("stall", deliver(), truth);
}

// Two renditions, 240 and 480 lines, under a master playlist listing 240
// first: the adaptive demuxer begins low and switches up.
TEST_F(PlayTruth, AnHlsPlayThatSwitchesRendition) {
  const Truth truth = play("hls", "file://" + makeHlsRenditions(documents_ + "/hls"));
  const Delivered got = deliver();
  compare("hls", got, truth);
  std::string seen, told;
  for (int height : truth.heights) seen += (seen.empty() ? "" : "->") + std::to_string(height);
  for (const Value& action : got.actions) {
    if (field(action, "p_2") != "9") continue;  // a quality change
    told += (told.empty() ? "" : ",") + field(action, "from_height") + "->" +
            field(action, "to_height");
  }
  const bool met = truth.heights.size() == 2 && told == std::to_string(truth.heights[0]) + "->" +
                                                            std::to_string(truth.heights[1]);
  std::printf("truth: hls switch reported %s truth %s goal both-heights %s\n",
              told.empty() ? "none" : told.c_str(), seen.c_str(), met ? "met" : "NOT MET");
  EXPECT_TRUE(met);
}

}  // namespace
}  // namespace qxlog::testing
