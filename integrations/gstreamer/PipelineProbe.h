// What the adapter reads from a pipeline besides its messages: the URI it
// plays, the media position and the height of the video it shows.
#ifndef QXLOG_INTEGRATIONS_GSTREAMER_PIPELINEPROBE_H_
#define QXLOG_INTEGRATIONS_GSTREAMER_PIPELINEPROBE_H_

#include <gst/gst.h>

#include <cstdint>
#include <optional>
#include <string>

namespace qxlog::gst {

// playbin's "current-uri", else its "uri"; "" for other pipelines.
std::string playedUri(GstElement* pipeline);
// Milliseconds of media time; nothing while unknown (before preroll, in a flush).
std::optional<int64_t> mediaPosition(GstElement* pipeline);
// The height of the video playbin shows, from its caps; 0 when there is no
// video (yet) or the pipeline is not a playbin.
int videoHeight(GstElement* pipeline);
// A playbin that found audio streams and no video: no frame will reach its
// video sink. False for other pipelines.
bool audioOnly(GstElement* pipeline);
// The bitrate an adaptive demuxer (HLS, DASH) says it switched to, from its
// "adaptive-streaming-statistics" message; nothing for other messages.
std::optional<int64_t> adaptiveBitrate(GstMessage* message);

}  // namespace qxlog::gst

#endif  // QXLOG_INTEGRATIONS_GSTREAMER_PIPELINEPROBE_H_
