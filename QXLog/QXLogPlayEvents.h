/*
 * The vocabulary of play actions: what recordPlayActionLog's seven strings
 * hold, so that hosts, player adapters and servers read them alike.
 *
 *   recordPlayActionLog(playActionLog, playStatu, startTime, endTime,
 *                       startPosition, endPosition, playTime)
 *
 * | argument      | key | holds                                               |
 * |---------------|-----|-----------------------------------------------------|
 * | playActionLog | p_2 | the operation, a QXLogPlayOperation as decimal text  |
 * | playStatu     | p_3 | the player's status after it, a QXLogPlayStatus      |
 * | startTime     | p_4 | when the operation began, ms since 1970 (wall clock) |
 * | endTime       | p_5 | when it ended, ms since 1970 (equal to startTime for |
 * |               |     | an instant: a start, a pause, an end)                |
 * | startPosition | p_6 | media position when it began, ms of media time       |
 * | endPosition   | p_7 | media position when it ended, ms of media time       |
 * | playTime      | p_8 | the operation's duration in ms for a span (buffering,|
 * |               |     | a seek, startup); for an end, the ms played in all.  |
 * |               |     | The record stores it plus 2000, never below 0.       |
 *
 * QXLogPlayOperationText and QXLogPlayStatusText give the decimal texts.
 */
#ifndef QXLOG_QXLOGPLAYEVENTS_H_
#define QXLOG_QXLOGPLAYEVENTS_H_

typedef enum {
  QXLogPlayOperationStart = 1,        /* playback requested */
  QXLogPlayOperationEnd = 2,          /* the play ended: end of stream or stopped */
  QXLogPlayOperationPause = 3,        /* paused by the user */
  QXLogPlayOperationResume = 4,       /* resumed after a pause */
  QXLogPlayOperationBuffering = 5,    /* a rebuffering span; repeats of one span's
                                         start time are dropped by the library */
  QXLogPlayOperationSeek = 6,         /* a seek, from its request until playback resumed */
  QXLogPlayOperationFirstFrame = 7,   /* the first frame shown: startup is over */
  QXLogPlayOperationError = 8,        /* playback failed (a diagnosis says why) */
  QXLogPlayOperationQualityChange = 9 /* the rendition changed (see the definition) */
} QXLogPlayOperation;

typedef enum {
  QXLogPlayStatusStopped = 0,   /* not playing: ended, stopped or not started */
  QXLogPlayStatusPlaying = 1,   /* frames are being shown */
  QXLogPlayStatusPaused = 2,    /* paused by the user */
  QXLogPlayStatusBuffering = 3, /* waiting for data */
  QXLogPlayStatusFailed = 4     /* stopped by an error */
} QXLogPlayStatus;

/* "1" ... "9"; NULL for a value outside the enumeration. */
static inline const char* QXLogPlayOperationText(QXLogPlayOperation operation) {
  static const char* const texts[] = {"1", "2", "3", "4", "5", "6", "7", "8", "9"};
  int index = (int)operation - 1;
  return index >= 0 && index < 9 ? texts[index] : 0;
}

/* "0" ... "4"; NULL for a value outside the enumeration. */
static inline const char* QXLogPlayStatusText(QXLogPlayStatus status) {
  static const char* const texts[] = {"0", "1", "2", "3", "4"};
  int index = (int)status;
  return index >= 0 && index < 5 ? texts[index] : 0;
}

#endif /* QXLOG_QXLOGPLAYEVENTS_H_ */
