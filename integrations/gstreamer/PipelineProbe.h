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
// The definition of the video playbin shows, from its caps' height ("720p");
// "" when there is no video (yet) or the pipeline is not a playbin.
std::string videoDefinition(GstElement* pipeline);

}  // namespace qxlog::gst

#endif  // QXLOG_INTEGRATIONS_GSTREAMER_PIPELINEPROBE_H_
