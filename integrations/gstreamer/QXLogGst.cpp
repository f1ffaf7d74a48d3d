// The C interface of qxlog-gst.
#include "QXLog/QXLogGst.h"

#include "integrations/gstreamer/BusSession.h"

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
  return new QXLogGstSession(pipeline, qxlog::integrations::identityOf(options));
}

void QXLogGstDetach(QXLogGstSession* session) {
  delete session;
}
