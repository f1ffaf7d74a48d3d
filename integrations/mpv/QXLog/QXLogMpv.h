/*
 * qxlog-mpv: libmpv playback reported through QXLog's play API.
 *
 * Attach a session to an mpv core (after mpv_initialize, before or after the
 * first loadfile). The session watches the core through a client handle of
 * its own (mpv_create_client), so it takes none of the host's events and the
 * host's mpv_wait_event loop keeps working as before.
 *
 * Threads: the session waits for its handle's events on a thread of its own,
 * started at attach and joined at detach; every report is made from that
 * thread through QXLog/QXLogPlay.h. The host serves nothing for the adapter
 * beyond what the library itself needs (its main queue). Reports never call
 * back into the host.
 *
 * Plays: each file the core loads (loadfile, a playlist entry) is one play:
 * its start begins the play with the file's path as its URL, the first frame
 * after loading starts it, pause, paused-for-cache and seeking become pauses,
 * rebufferings and seeks, a change of the video's height is a rendition
 * (with the demuxer's video bitrate), and the end of the file ends it (with
 * its error as the failure cause). Detaching ends a play that is still open.
 * When the core shuts down (mpv_terminate_destroy on any handle) the session
 * ends its play and destroys its handle at once, so the core can finish;
 * the host still calls QXLogMpvDetach to free the session.
 */
#ifndef QXLOG_QXLOGMPV_H_
#define QXLOG_QXLOGMPV_H_

#include <mpv/client.h>
#include <stdbool.h>

#include "QXLog/QXLog.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct QXLogMpvSession QXLogMpvSession;

/* Copied at attach; they describe every play of the session. NULL fields
 * are nil, as in recordPlayLog. */
typedef struct {
  const char* movie_id;
  const char* view_source;
  const char* video_type; /* "1" film, "5" short video, "6" channel; NULL: "1" */
  bool is_download;
  const char* is_pcdn;
} QXLogMpvOptions;

/* NULL when mpv is NULL or the core refuses a client handle. Call from any
 * thread; the host keeps its own handle and must not destroy the core's
 * last handle before the session has seen the shutdown (mpv does that). */
QXLOG_EXPORT QXLogMpvSession* QXLogMpvAttach(mpv_handle* mpv, const QXLogMpvOptions* options);
/* Ends a play still open, stops watching and frees the session. Blocks until
 * the session's thread has finished its last report. Call it before, not
 * while, the core is destroyed. NULL is ignored. */
QXLOG_EXPORT void QXLogMpvDetach(QXLogMpvSession* session);

#ifdef __cplusplus
}
#endif

#endif /* QXLOG_QXLOGMPV_H_ */
