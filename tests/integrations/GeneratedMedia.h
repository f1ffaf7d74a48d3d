// Media made at test time with GStreamer, for the player adapters' tests.
#ifndef QXLOG_TESTS_INTEGRATIONS_GENERATEDMEDIA_H_
#define QXLOG_TESTS_INTEGRATIONS_GENERATEDMEDIA_H_

#include <gst/gst.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

namespace qxlog::testing {

// Runs a gst-launch description to its end of stream within `timeout`.
inline void runPipelineToEnd(const std::string& description, GstClockTime timeout) {
  GstElement* pipeline = gst_parse_launch(description.c_str(), nullptr);
  ASSERT_NE(pipeline, nullptr) << description;
  gst_element_set_state(pipeline, GST_STATE_PLAYING);
  GstBus* bus = gst_element_get_bus(pipeline);
  GstMessage* end = gst_bus_timed_pop_filtered(
      bus, timeout, static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
  EXPECT_TRUE(end != nullptr && GST_MESSAGE_TYPE(end) == GST_MESSAGE_EOS) << description;
  if (end != nullptr) gst_message_unref(end);
  gst_object_unref(bus);
  gst_element_set_state(pipeline, GST_STATE_NULL);
  gst_object_unref(pipeline);
}

// Two seconds of test pattern, 160x120 at 25 frames a second, Theora in Ogg.
inline void makeTheoraClip(const std::string& path) {
  runPipelineToEnd(
      "videotestsrc num-buffers=50 ! video/x-raw,width=160,height=120,framerate=25/1 ! "
      "theoraenc ! oggmux ! filesink location=" +
          path,
      10 * GST_SECOND);
}

// Three seconds of MPEG-4 in two HLS renditions, 240 and 480 lines, under
// `dir`/master.m3u8, which lists 240 first: an adaptive demuxer begins low
// and switches up. Returns the master playlist's path.
inline std::string makeHlsRenditions(const std::string& dir) {
  for (int height : {240, 480}) {
    const std::string rendition = dir + "/v" + std::to_string(height), h = std::to_string(height);
    std::filesystem::create_directories(rendition);
    runPipelineToEnd(
        "videotestsrc num-buffers=75 ! video/x-raw,width=" + std::to_string(height * 4 / 3) +
            ",height=" + h + ",framerate=25/1 ! avenc_mpeg4 bitrate=" + h +
            "000 ! mpeg4videoparse ! "
            "hlssink2 target-duration=1 max-files=0 playlist-length=0 location=" +
            rendition + "/seg%05d.ts playlist-location=" + rendition + "/index.m3u8",
        20 * GST_SECOND);
  }
  const std::string master = dir + "/master.m3u8";
  std::ofstream(master) << "#EXTM3U\n"
                           "#EXT-X-STREAM-INF:BANDWIDTH=300000,RESOLUTION=320x240\n"
                           "v240/index.m3u8\n"
                           "#EXT-X-STREAM-INF:BANDWIDTH=600000,RESOLUTION=640x480\n"
                           "v480/index.m3u8\n";
  return master;
}

}  // namespace qxlog::testing

#endif  // QXLOG_TESTS_INTEGRATIONS_GENERATEDMEDIA_H_
