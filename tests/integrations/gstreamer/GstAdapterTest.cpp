// The adapter on real pipelines (fake sinks): a clip from disk and over a stalling server, a pause,
// a resume and a seek, a 404, an early detach, frames fed one by one, two HLS renditions.
#include <gst/gst.h>
#include <gtest/gtest.h>

#include <optional>

#include "QXLog/QXLogGst.h"
#include "tests/integrations/AdapterFixture.h"

namespace qxlog::testing {
namespace {

// An action's play time, without the record's 2000 ms.
int64_t playTime(const Value& action) {
  return std::stoll(field(action, "p_8")) - 2000;
}

// The state the playbin itself settled in, if `message` says so.
std::optional<GstState> settled(GstElement* playbin, GstMessage* message) {
  if (GST_MESSAGE_TYPE(message) != GST_MESSAGE_STATE_CHANGED ||
      GST_MESSAGE_SRC(message) != GST_OBJECT(playbin)) {
    return std::nullopt;
  }
  GstState old, state, pending;
  gst_message_parse_state_changed(message, &old, &state, &pending);
  if (pending != GST_STATE_VOID_PENDING) return std::nullopt;
  return state;
}

// Runs the default main context until `done`, bounded by a guard.
void iterateUntil(const std::function<bool()>& done) {
  const auto guard = RealClock::now() + std::chrono::seconds(15);
  while (!done() && RealClock::now() < guard) g_main_context_iteration(nullptr, TRUE);
  EXPECT_LT(RealClock::now(), guard) << "the play did not end";
}

class GstAdapterTest : public AdapterTest {
 protected:
  using OnMessage = std::function<void(GstElement*, GstMessage*)>;

  // Plays `uri` with the adapter attached until the end of stream, an error
  // or `done`; `react` sees each message after the adapter.
  void play(
      const std::string& uri, bool sync, OnMessage react = {},
      std::function<bool()> done = [] { return false; }) {
    GstElement* playbin = gst_element_factory_make("playbin", nullptr);
    ASSERT_NE(playbin, nullptr);
    g_object_set(playbin, "uri", uri.c_str(), nullptr);
    for (const char* sink : {"video-sink", "audio-sink"}) {
      GstElement* fake = gst_element_factory_make("fakesink", nullptr);
      g_object_set(fake, "sync", sync, nullptr);
      g_object_set(playbin, sink, fake, nullptr);
    }
    QXLogGstOptions options{"movie-7", "test", "5", false, "1"};
    QXLogGstSession* session = QXLogGstAttach(playbin, &options);
    struct Host {
      GstElement* playbin;
      OnMessage react;
      bool ended = false;
    } host{playbin, std::move(react)};
    GstBus* bus = gst_element_get_bus(playbin);
    gst_bus_add_signal_watch(bus);
    // The host plays on while the network buffer fills: no pause hides a span.
    auto onMessage = +[](GstBus*, GstMessage* message, gpointer data) {
      auto* host = static_cast<Host*>(data);
      if (host->react) host->react(host->playbin, message);
      host->ended |= GST_MESSAGE_TYPE(message) == GST_MESSAGE_EOS ||
                     GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR;
    };
    const gulong handler = g_signal_connect(bus, "message", G_CALLBACK(onMessage), &host);
    gst_element_set_state(playbin, GST_STATE_PLAYING);
    iterateUntil([&] { return host.ended || done(); });
    QXLogGstDetach(session);
    g_signal_handler_disconnect(bus, handler);
    gst_bus_remove_signal_watch(bus);
    gst_object_unref(bus);
    gst_element_set_state(playbin, GST_STATE_NULL);
    gst_object_unref(playbin);
  }
};

TEST_F(GstAdapterTest, AFilePlayedToItsEnd) {
  const auto started = RealClock::now();
  play("file://" + clip_, false);
  const int64_t elapsed = millisSince(started);
  const Delivered play = deliver();
  EXPECT_EQ(play.operations, (Operations{"1", "7", "2"}));  // start, first frame, end
  EXPECT_EQ(field(play.header, "a_t") + field(play.header, "a_7"), "5movie-7");
  ASSERT_EQ(play.diagnoses.size(), 1u);
  EXPECT_EQ(play.text("play_id"), field(play.header, "play_id"));
  EXPECT_EQ(
      play.texts({"movie_id", "url", "top_height", "rendition_switches", "exit_before_start"}),
      "movie-7|file://" + clip_ + "|120|0|0");
  EXPECT_EQ(play.texts({"definition", "isPlayOK"}, "play_info"), "120p|1");
  EXPECT_EQ(play.figure("rebuffer_count") + play.figure("seek_count"), 0);
  const int64_t startup = play.figure("startup_ms");
  EXPECT_GE(startup, 0);
  EXPECT_LE(startup + play.figure("played_ms"), elapsed);
  // The first frame is the startup span; the end holds the position reached.
  EXPECT_EQ(playTime(play.actions[1]), startup);
  EXPECT_NEAR(play.number(2, "p_6"), 2000, 100);
}

TEST_F(GstAdapterTest, PauseResumeAndSeekInRealTime) {
  int step = 0;  // pause once playing, resume once paused, seek once playing again
  play("file://" + clip_, true, [&](GstElement* playbin, GstMessage* message) {
    const GstState from[] = {GST_STATE_PLAYING, GST_STATE_PAUSED, GST_STATE_PLAYING};
    const std::optional<GstState> state = settled(playbin, message);
    if (!state || step > 2 || *state != from[step]) return;
    if (step++ < 2) {
      gst_element_set_state(playbin, step == 1 ? GST_STATE_PAUSED : GST_STATE_PLAYING);
    } else {
      gst_element_seek_simple(
          playbin, GST_FORMAT_TIME,
          static_cast<GstSeekFlags>(GST_SEEK_FLAG_FLUSH | GST_SEEK_FLAG_ACCURATE),
          1500 * GST_MSECOND);
      // The adapter's position sampler comes due before the seek's messages: a read
      // after the seek began gives its target, not where it began.
      g_usleep(250000);
    }
  });
  const Delivered play = deliver();
  // start, first frame, pause, resume, seek, end
  ASSERT_EQ(play.operations, (Operations{"1", "7", "3", "4", "6", "2"}));
  EXPECT_LT(play.number(4, "p_6"), 500);
  EXPECT_NEAR(play.number(4, "p_7"), 1500, 50);
  EXPECT_EQ(field(play.actions[2], "p_3"), "2");  // paused
  ASSERT_EQ(play.diagnoses.size(), 1u);
  EXPECT_EQ(play.texts({"seek_count", "seek_avg_ms"}),
            "1|" + std::to_string(playTime(play.actions[4])));
  // Half a second of clip after the seek, shown at the clock's pace.
  EXPECT_NEAR(play.figure("played_ms"), 500, 250);
}

TEST_F(GstAdapterTest, AStallOverHttpIsRebuffering) {
  const std::string bytes = clipBytes();
  HostileServer server(bytes, bytes.size() / 2);
  bool releasing = false;
  play(server.url("/clip.ogv"), false, [&](GstElement* playbin, GstMessage* message) {
    if (releasing || settled(playbin, message) != GST_STATE_PLAYING) return;
    // The buffer runs dry once playing: the stall lasts 300 ms from then.
    releasing = true;
    g_timeout_add(
        300,
        +[](gpointer server) {
          static_cast<HostileServer*>(server)->release();
          return G_SOURCE_REMOVE;
        },
        &server);
  });
  const Delivered play = deliver();
  ASSERT_TRUE(releasing) << "the play did not begin";
  // The buffer may run dry briefly before the stall too: one span or more, 300 ms in all.
  int64_t spans = 0, spanMillis = 0;
  for (const Value& action : play.actions) {
    if (field(action, "p_2") == "5") ++spans, spanMillis += playTime(action);
  }
  EXPECT_EQ(play.operations.back(), "2");
  ASSERT_EQ(play.diagnoses.size(), 1u);
  EXPECT_GE(spans, 1);
  EXPECT_EQ(play.texts({"rebuffer_count", "rebuffer_ms", "seek_count"}),
            std::to_string(spans) + "|" + std::to_string(spanMillis) + "|0");
  EXPECT_NEAR(spanMillis, 300, 100);
}

TEST_F(GstAdapterTest, AnEndBeforeTheFirstFrame) {
  const struct {
    const char* name;
    int status;  // the answer to the play's request; 0: it stalls at once
    Operations operations;
    std::size_t diagnoses;
    const char* failedAndExit;  // a failure is no exit before start
  } cases[] = {{"HTTP 404", 404, {"1", "8"}, 2, "10"}, {"detached", 0, {"1", "2"}, 1, "01"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    again();
    HostileServer stalling(clipBytes(), 0);
    if (c.status) server_->script(ScriptedAnswer{c.status, "text/plain", "missing"});
    const std::string url = c.status ? server_->url("/missing.ogv") : stalling.url("/clip.ogv");
    play(url, false, {}, [&] { return c.status == 0 && stalling.stalled(); });
    const Delivered play = deliver();
    EXPECT_EQ(play.operations, c.operations);
    ASSERT_EQ(play.diagnoses.size(), c.diagnoses);
    EXPECT_EQ(play.text("failed") + play.text("exit_before_start"), c.failedAndExit);
    if (c.status == 0) continue;
    EXPECT_NE(play.text("cause").find("Not Found"), std::string::npos);
    EXPECT_EQ(play.text("playUrl", "play_info", 0), url);
    EXPECT_NE(play.text("causeOfFailure", "play_info", 0).find("Not Found"), std::string::npos);
    EXPECT_EQ(
        play.text("isPlayOK", "play_info", 0) + "|" + play.text("prepareTime", "play_info", 0),
        "0|");
  }
}

// Fed each 40 ms, a sink that needs no frame to play gets frames at steps 8-22 and 33-42, the
// buffer at 20 % from 18 to 33: the first frame and the stall are where the frames at the sink
// say, not the pipeline's state or buffer: startup 320 ms, one stall of 400 ms, 1000 ms shown.
TEST_F(GstAdapterTest, TheSinksFramesMarkTheFirstFrameAndTheStall) {
  GstElement* pipeline = gst_parse_launch(
      "appsrc name=src do-timestamp=true format=time "
      "caps=video/x-raw,format=GRAY8,width=16,height=16,framerate=25/1 ! "
      "fakesink sync=true async=false",
      nullptr);
  ASSERT_NE(pipeline, nullptr);
  // Frames are copies of one made here: GStreamer writes each frame the streaming thread reads.
  struct Feed {
    GstElement* src;
    GstBuffer* frame;
    int step = 0;
    bool ended = false;
  } feed{gst_bin_get_by_name(GST_BIN(pipeline), "src"),
         gst_buffer_new_allocate(nullptr, 256, nullptr)};
  GST_BUFFER_DURATION(feed.frame) = 40 * GST_MSECOND;
  QXLogGstSession* session = QXLogGstAttach(pipeline, nullptr);
  gst_element_set_state(pipeline, GST_STATE_PLAYING);
  g_timeout_add(
      40,
      +[](gpointer data) -> gboolean {
        auto* feed = static_cast<Feed*>(data);
        const int step = ++feed->step;
        GstFlowReturn flow = GST_FLOW_OK;
        if (step == 18 || step == 33) {
          gst_element_post_message(
              feed->src, gst_message_new_buffering(GST_OBJECT(feed->src), step == 18 ? 20 : 100));
        }
        if ((step >= 8 && step <= 22) || (step >= 33 && step <= 42)) {
          GstBuffer* frame = gst_buffer_copy(feed->frame);
          g_signal_emit_by_name(feed->src, "push-buffer", frame, &flow);
          gst_buffer_unref(frame);
        }
        if (step == 43) g_signal_emit_by_name(feed->src, "end-of-stream", &flow);
        return (feed->ended = step == 43) ? G_SOURCE_REMOVE : G_SOURCE_CONTINUE;
      },
      &feed);
  iterateUntil([&] { return feed.ended; });
  QXLogGstDetach(session);
  gst_element_set_state(pipeline, GST_STATE_NULL);
  gst_object_unref(feed.src);
  gst_buffer_unref(feed.frame);
  gst_object_unref(pipeline);
  const Delivered play = deliver();
  ASSERT_EQ(play.diagnoses.size(), 1u);
  EXPECT_NEAR(play.figure("startup_ms"), 320, 100);
  EXPECT_EQ(play.figure("rebuffer_count"), 1);
  EXPECT_NEAR(play.figure("rebuffer_ms"), 400, 100);
  EXPECT_NEAR(play.figure("played_ms"), 1000, 100);
}

// Two renditions of 3 s, 240 and 480 lines, in 1 s MPEG-TS segments, 240 listed first: the
// adaptive demuxer begins with it and switches up at once on a local file.
TEST_F(GstAdapterTest, AnHlsPlayIsReportedWithItsRenditions) {
  for (const char* element : {"hlssink2", "avenc_mpeg4", "hlsdemux"}) {
    GstElementFactory* factory = gst_element_factory_find(element);
    if (factory == nullptr) GTEST_SKIP() << element << " is missing: scripts/install-deps.sh";
    gst_object_unref(factory);
  }
  play("file://" + makeHlsRenditions(documents_ + "/hls"), true);
  const Delivered play = deliver();
  ASSERT_EQ(play.operations, (Operations{"1", "7", "9", "2"}));
  const Value& change = play.actions[2];
  EXPECT_EQ(field(change, "from_height") + "->" + field(change, "to_height") + " at " +
                field(change, "bitrate_bps"),
            "240->480 at 600000");
  ASSERT_EQ(play.diagnoses.size(), 1u);
  EXPECT_EQ(play.texts({"rendition_switches", "top_height", "failed"}), "1|480|0");
  EXPECT_NEAR(play.figure("played_ms"), 3000, 400);
}

}  // namespace
}  // namespace qxlog::testing
