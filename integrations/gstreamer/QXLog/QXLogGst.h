/*
 * qxlog-gst: GStreamer playback reported through QXLog.
 *
 * Attach a session to a playbin (or any pipeline) before setting it to
 * PAUSED or PLAYING. The session watches the pipeline's bus with a signal
 * watch on the thread-default GLib main context of the attaching thread, so
 * the host must serve that context; it starts no thread. Each play is told,
 * from that context, to the play API of QXLog/QXLogPlay.h (QXLogPlayBegin
 * with the URI playbin plays, then player states, renditions from the video
 * caps' height and the adaptive demuxer's bitrate, an error's message, the
 * end), which reports its header, its actions (QXLog/QXLogPlayEvents.h),
 * the error's diagnosis and the end-of-play summary. Each call runs on that
 * context's thread and blocks it while the play's small file is written.
 * The first frame and rebuffering are read from the frames at the video
 * sink: a buffer probe on its pad counts them on the streaming thread and
 * calls nothing else; the session reads the count from its context.
 * A host that watches the bus too uses gst_bus_add_signal_watch and the
 * "message" signals: GStreamer allows one gst_bus_add_watch per bus.
 */
#ifndef QXLOG_QXLOGGST_H_
#define QXLOG_QXLOGGST_H_

#include <gst/gst.h>
#include <stdbool.h>

#include "QXLog/QXLog.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct QXLogGstSession QXLogGstSession;

/* Copied at attach; NULL fields are reported as NULL. */
typedef struct {
  const char* movie_id;
  const char* view_source;
  const char* video_type; /* "1" film, "5" short video, "6" channel; NULL: "1" */
  bool is_download;
  const char* is_pcdn;
} QXLogGstOptions;

/* NULL when pipeline is NULL or has no bus. The session holds a reference
 * to the pipeline until it is detached. */
QXLOG_EXPORT QXLogGstSession* QXLogGstAttach(GstElement* pipeline, const QXLogGstOptions* options);
/* Reports the end if the play did not end; call on the attaching thread. */
QXLOG_EXPORT void QXLogGstDetach(QXLogGstSession* session);

#ifdef __cplusplus
}
#endif

#endif /* QXLOG_QXLOGGST_H_ */
