#include "integrations/gstreamer/PipelineProbe.h"

namespace qxlog::gst {
namespace {

std::string stringProperty(GstElement* element, const char* name) {
  if (g_object_class_find_property(G_OBJECT_GET_CLASS(element), name) == nullptr) return "";
  gchar* value = nullptr;
  g_object_get(element, name, &value, nullptr);
  std::string text = value != nullptr ? value : "";
  g_free(value);
  return text;
}

int heightOf(GstPad* pad) {
  GstCaps* caps = gst_pad_get_current_caps(pad);
  if (caps == nullptr) return 0;
  int height = 0;
  if (gst_caps_get_size(caps) > 0) {
    gst_structure_get_int(gst_caps_get_structure(caps, 0), "height", &height);
  }
  gst_caps_unref(caps);
  return height;
}

}  // namespace

std::string playedUri(GstElement* pipeline) {
  std::string uri = stringProperty(pipeline, "current-uri");
  return uri.empty() ? stringProperty(pipeline, "uri") : uri;
}

std::optional<int64_t> mediaPosition(GstElement* pipeline) {
  gint64 position = -1;
  if (!gst_element_query_position(pipeline, GST_FORMAT_TIME, &position) || position < 0) {
    return std::nullopt;
  }
  return position / GST_MSECOND;
}

int videoHeight(GstElement* pipeline) {
  if (g_signal_lookup("get-video-pad", G_OBJECT_TYPE(pipeline)) == 0) return 0;
  gint stream = -1;
  g_object_get(pipeline, "current-video", &stream, nullptr);
  if (stream < 0) return 0;
  GstPad* pad = nullptr;
  g_signal_emit_by_name(pipeline, "get-video-pad", stream, &pad);
  if (pad == nullptr) return 0;
  const int height = heightOf(pad);
  gst_object_unref(pad);
  return height;
}

bool audioOnly(GstElement* pipeline) {
  GObjectClass* type = G_OBJECT_GET_CLASS(pipeline);
  if (g_object_class_find_property(type, "n-video") == nullptr ||
      g_object_class_find_property(type, "n-audio") == nullptr) {
    return false;
  }
  gint video = 0, audio = 0;
  g_object_get(pipeline, "n-video", &video, "n-audio", &audio, nullptr);
  return video == 0 && audio > 0;
}

std::optional<int64_t> adaptiveBitrate(GstMessage* message) {
  if (GST_MESSAGE_TYPE(message) != GST_MESSAGE_ELEMENT) return std::nullopt;
  const GstStructure* structure = gst_message_get_structure(message);
  if (structure == nullptr || !gst_structure_has_name(structure, "adaptive-streaming-statistics")) {
    return std::nullopt;
  }
  gint bitrate = 0;
  if (!gst_structure_get_int(structure, "bitrate", &bitrate) || bitrate <= 0) return std::nullopt;
  return bitrate;
}

}  // namespace qxlog::gst
