// Media made at test time with GStreamer, for the player adapters' tests.
#ifndef QXLOG_TESTS_INTEGRATIONS_GENERATEDMEDIA_H_
#define QXLOG_TESTS_INTEGRATIONS_GENERATEDMEDIA_H_

#include <gst/gst.h>
#include <gtest/gtest.h>

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

}  // namespace qxlog::testing

#endif  // QXLOG_TESTS_INTEGRATIONS_GENERATEDMEDIA_H_
