/*
 * The play API: one handle per play, for any player. The host tells what the
 * player does; the library turns it into the play actions of
 * QXLog/QXLogPlayEvents.h (start, first frame, pause and resume, rebuffering
 * and seek spans, quality changes, error, end), measures the play and sends
 * an end-of-play summary. It lives beside recordPlayLog and
 * recordPlayActionLog, which keep working as they do; a host uses one or the
 * other for a given play.
 *
 * Whole, identified plays: each play gets a random id. The play keeps its
 * own actions and sends them folded under its own copy of its header, which
 * carries the id under "play_id": at its end, and during the play in parts
 * (each 100 actions, and each time the push timer runs out). Plays never
 * share a header copy, whatever the batch size and however many plays run at
 * once. Pending actions are kept in a small file per play in the Documents
 * directory ("QXLogPlay-<id>.plist", listed in "QXLogPlays.plist") with the
 * summary the play would end with; after a crash the next run sends both,
 * under the play's own header, when the host calls logEnvReady(true) (or at
 * its first play), the summary marked "ended_by_restart" "1".
 *
 * The summary is a diagnosis (as recordDiagnosCompleteLog sends) holding
 * "play_info" and "play_summary"; the latter carries "play_id", "movie_id",
 * "video_type", "view_source", "url", "cause", the measures and the
 * renditions. A failure also sends recordDiagnosLog's report with its cause.
 * Sends wait, like every report, until logEnvReady(true).
 *
 * Threads: every function may be called from any thread, and any number of
 * plays may run at once. Calls on one play are serialised by the play's own
 * lock; QXLogPlayEnd must be the last call on a handle and must not overlap
 * another call on it. Times are read by the library (the wall clock at the
 * play's begin, then a monotonic clock), positions are the host's.
 *
 * Blocking: QXLogPlayBegin of an http(s) URL looks up the host's address on
 * the calling thread, as recordPlayLog does. Each call writes the play's
 * small file; QXLogPlayEnd also hands the folded record to the log center
 * (the same store as every action record). Each action writes the console
 * line "PlaySession-log:<id>:<record>". Nothing calls back into the host
 * but the console handler, as for every report.
 */
#ifndef QXLOG_QXLOGPLAY_H_
#define QXLOG_QXLOGPLAY_H_

#include <stdbool.h>
#include <stdint.h>

#include "QXLog/QXLog.h"
#include "QXLog/QXLogPlayEvents.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct QXLogPlay QXLogPlay;

/* What is played; the strings are copied. NULL fields are nil, as in
 * recordPlayLog: video_type NULL is "1", is_pcdn NULL is "1". */
typedef struct {
  const char* movie_id;
  const char* url;
  const char* view_source;
  const char* video_type; /* "1" film, "5" short video, "6" channel */
  bool is_download;
  const char* is_pcdn;
} QXLogPlayInfo;

typedef enum {
  QXLogPlayerStarting = 0,  /* requested, nothing shown yet */
  QXLogPlayerPlaying = 1,   /* frames are shown; the first time is the first frame */
  QXLogPlayerPaused = 2,    /* paused by the user */
  QXLogPlayerBuffering = 3, /* frames stopped for data; after the first frame a rebuffering */
  QXLogPlayerSeeking = 4    /* a seek, until frames are shown again */
} QXLogPlayerState;

/* Reports the play header and the start; NULL when info is NULL. */
QXLOG_EXPORT QXLogPlay* QXLogPlayBegin(const QXLogPlayInfo* info);
/* The player's state from now, at media position position_ms. The same state
 * again only moves the position on (later actions, the end included, carry
 * the last position given); a state outside the enumeration is ignored. */
QXLOG_EXPORT void QXLogPlaySetState(QXLogPlay* play, QXLogPlayerState state, int64_t position_ms);
/* The rendition shown from now: its height in pixels and bitrate in bits/s
 * (0 or less: unknown). The first one is the initial rendition; a later
 * different one, once frames were shown, is a quality change. */
QXLOG_EXPORT void QXLogPlayRendition(QXLogPlay* play, int height, int64_t bitrate_bps);
/* Playback failed (cause: one line, may be NULL): the play ends with an error
 * action; its summary follows at QXLogPlayEnd. */
QXLOG_EXPORT void QXLogPlayError(QXLogPlay* play, const char* cause);
/* Ends the play, reports the end and the summary, and frees the handle.
 * NULL is ignored. */
QXLOG_EXPORT void QXLogPlayEnd(QXLogPlay* play);
/* The play's id, 32 hexadecimal digits, valid until QXLogPlayEnd. */
QXLOG_EXPORT const char* QXLogPlayId(const QXLogPlay* play);

/* The decimal texts of QXLogPlayEvents.h as exported functions, for hosts
 * that cannot use its static inline ones; NULL outside the enumerations. */
QXLOG_EXPORT const char* QXLogPlayOperationString(int operation);
QXLOG_EXPORT const char* QXLogPlayStatusString(int status);

#ifdef __cplusplus
}
#endif

#endif /* QXLOG_QXLOGPLAY_H_ */
