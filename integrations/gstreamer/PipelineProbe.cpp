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

std::string videoDefinition(GstElement* pipeline) {
  if (g_signal_lookup("get-video-pad", G_OBJECT_TYPE(pipeline)) == 0) return "";
  gint stream = -1;
  g_object_get(pipeline, "current-video", &stream, nullptr);
  if (stream < 0) return "";
  GstPad* pad = nullptr;
  g_signal_emit_by_name(pipeline, "get-video-pad", stream, &pad);
  if (pad == nullptr) return "";
  const int height = heightOf(pad);
  gst_object_unref(pad);
  return height > 0 ? std::to_string(height) + "p" : "";
}

}  // namespace qxlog::gst
