// The C interface of qxlog-gst.
#include "QXLog/QXLogGst.h"

#include "integrations/gstreamer/BusSession.h"

namespace {

std::optional<std::string> copied(const char* text) {
  return text != nullptr ? std::optional<std::string>(text) : std::nullopt;
}

qxlog::gst::PlayIdentity identityOf(const QXLogGstOptions* options) {
  qxlog::gst::PlayIdentity identity;
  if (options == nullptr) return identity;
  identity.movieId = copied(options->movie_id);
  identity.viewSource = copied(options->view_source);
  identity.videoType = copied(options->video_type);
  identity.isDownload = options->is_download;
  identity.isPcdn = copied(options->is_pcdn);
  return identity;
}

}  // namespace

struct QXLogGstSession {
  QXLogGstSession(GstElement* pipeline, qxlog::gst::PlayIdentity identity)
      : bus(pipeline, std::move(identity)) {}
  qxlog::gst::BusSession bus;
};

QXLogGstSession* QXLogGstAttach(GstElement* pipeline, const QXLogGstOptions* options) {
  if (pipeline == nullptr) return nullptr;
  GstBus* bus = gst_element_get_bus(pipeline);
  if (bus == nullptr) return nullptr;
  gst_object_unref(bus);
  return new QXLogGstSession(pipeline, identityOf(options));
}

void QXLogGstDetach(QXLogGstSession* session) {
  delete session;
}
