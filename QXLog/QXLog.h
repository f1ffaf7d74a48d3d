/*
 * QXLog: client-side telemetry for video applications.
 *
 * The C interface. The host sets its context on the format object, declares
 * readiness with logEnvReady, and reports events through the record...
 * functions. Every string argument may be NULL (nil), which is distinct from
 * "". Strings are copied before a call returns, so the caller may free them at
 * once. Invalid UTF-8 in an argument is replaced by U+FFFD, sequence by sequence.
 *
 * Reports made before readiness wait on the main queue, which the host serves:
 * QXLogMainQueueDrain from its own loop, or QXLogMainQueueRun on its main thread.
 *
 * Threads: every function may be called from any thread, and reports from
 * several threads at once are all kept. Callbacks (console handler, delivery
 * handler, main-queue executor) are called with no lock of the environment
 * held.
 */
#ifndef QXLOG_QXLOG_H_
#define QXLOG_QXLOG_H_

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#if defined(__GNUC__)
#define QXLOG_EXPORT __attribute__((visibility("default")))
#else
#define QXLOG_EXPORT
#endif

#ifdef __cplusplus
extern "C" {
#endif

QXLOG_EXPORT extern const double QXLogVersionNumber;
QXLOG_EXPORT extern const unsigned char QXLogVersionString[];

/* A reference-counted mutable dictionary with string keys. */
typedef struct QXLogDictionary QXLogDictionary;

/* Declares whether the host's context is set. Reports wait while it is false. */
QXLOG_EXPORT void logEnvReady(bool ready);
/* Milliseconds since 1970 as text; release with QXLogFree. */
QXLOG_EXPORT char* currentTime(void);
/* Sets dictionary[key] = value, or "" when value is NULL; nothing when key is NULL. */
QXLOG_EXPORT void put(QXLogDictionary* dictionary, const char* key, const char* value);

/* The record... functions return nothing and never report failure.
 * Ready: the record is built on the calling thread and, before the call
 * returns, appended to its queue and the whole queue file rewritten (under the
 * center's lock; the cost grows with the queue). A full batch is then
 * submitted: the envelope is built on the calling thread, the HTTP exchange
 * runs on a library thread and its answer is handled on the main queue.
 * Not ready: the call returns at once and runs again on the main queue every
 * 5 s until ready; the record carries the time it is finally built. */
/* Reads the interface addresses and the size of the Documents file system. */
QXLOG_EXPORT void recordLaunchLog(const char* launchLog);
QXLOG_EXPORT void recordLaunchLogWithPushId(const char* launchLog, const char* push_id);
QXLOG_EXPORT void recordActionLog(const char* actionLog, const char* movie_index);
/* Posts the dictionary as it is to `url` ("" for pushLogUrl). The call takes
 * its own reference, so the caller may release pushLog at once; the contents
 * are read when the report runs, so a deferred report sends what the
 * dictionary holds then. Without `diagnosis` nothing is sent while both
 * queues are empty, and the described mode clears the action queue and its
 * file as a batch submission does. */
QXLOG_EXPORT void recordBehaviorLog(QXLogDictionary* pushLog, const char* url, bool diagnosis);
/* Dropped at once when networkLog is NULL or "". */
QXLOG_EXPORT void recordNetworkLog(const char* networkLog, int64_t wasteTime,
                                   const char* errorCode);
/* Dropped at once when movieUrl is NULL or "". Blocks the calling thread on a
 * name lookup of movieUrl's host. */
QXLOG_EXPORT void recordDownLog(const char* downLog, const char* movieUrl, const char* movieName,
                                const char* dataAmount, const char* storagePath,
                                const char* downsState);
/* Diagnoses bypass the queues: posted to pushDiagnosisUrl at once, no file
 * written. recordDiagnosCompleteLog reads its dictionary when it runs, like
 * recordBehaviorLog. */
QXLOG_EXPORT void recordDiagnosLog(const char* diagnosisLog, const char* causeOfFailure,
                                   const char* playStartTime, const char* endTime,
                                   const char* prepareTime, const char* duration,
                                   const char* isPlayOK, const char* definition);
QXLOG_EXPORT void recordDiagnosCompleteLog(QXLogDictionary* diagnosisOfCompleteInformation);
/* Starts a play: folds pending play actions under the previous play header
 * (rewriting the action queue file), then sets the new header, kept in memory
 * only. A streamed http(s) playLog blocks the calling thread on a name lookup
 * of its host. The three below call it with videoType "1", "5" and "6". */
QXLOG_EXPORT void recordPlayLog(const char* movie_id, const char* playLog, const char* view_source,
                                bool isDownload, const char* isPcdn, const char* videoType);
QXLOG_EXPORT void recordMoviePlayLog(const char* movie_id, const char* playLog,
                                     const char* view_source, bool isDownload, const char* isPcdn);
QXLOG_EXPORT void recordSmallPlayLog(const char* movie_id, const char* playLog,
                                     const char* view_source, bool isDownload, const char* isPcdn);
QXLOG_EXPORT void recordChannelPlayLog(const char* movie_id, const char* playLog,
                                       const char* view_source, bool isDownload,
                                       const char* isPcdn);
/* Queue a play action (or trailer) and rewrite the play queue file. */
QXLOG_EXPORT void recordPlayActionLog(const char* playActionLog, const char* playStatu,
                                      const char* startTime, const char* endTime,
                                      const char* startPosition, const char* endPosition,
                                      const char* playTime);
QXLOG_EXPORT void recordPlayTrailerLog(const char* playActionLog, const char* playStatu,
                                       const char* startTime, const char* endTime,
                                       const char* startPosition, const char* endPosition,
                                       const char* playTime);

/* Host helpers for C callers; C++ hosts may use the classes directly. */
QXLOG_EXPORT QXLogDictionary* QXLogDictionaryCreate(void);
/* NULL unless the text is a JSON object. */
QXLOG_EXPORT QXLogDictionary* QXLogDictionaryCreateWithJSON(const char* json);
/* Compact JSON of the dictionary; release with QXLogFree. */
QXLOG_EXPORT char* QXLogDictionaryCopyJSON(const QXLogDictionary* dictionary);
QXLOG_EXPORT void QXLogDictionaryRelease(QXLogDictionary* dictionary);
QXLOG_EXPORT void QXLogFree(void* pointer);

/* Any string property of the format object by its name ("uid", "pushLogUrl",
 * ...); unknown names are ignored, with one console line per unknown name.
 * Safe from any thread; a report racing a change carries the old or the new
 * value, so set the context before logEnvReady. */
QXLOG_EXPORT void QXLogFormatSetString(const char* property, const char* value);
/* A copy of the property's text; NULL when nil or unknown. Release with QXLogFree. */
QXLOG_EXPORT char* QXLogFormatCopyString(const char* property);
QXLOG_EXPORT void QXLogFormatSetIsDev(bool isDev);
/* The main screen's scale factor reported in diagnoses; 1.0 unless set. */
QXLOG_EXPORT void QXLogSetScreenScale(double scale);
/* Asks the settings endpoint for the batch size and push interval. Returns at
 * once; the exchange runs on a library thread, which stores the answer. */
QXLOG_EXPORT void QXLogCenterGetLogServerInfo(void);
/* Marks the start of an item (a download) at the current time and rewrites
 * the start-time file before returning. */
QXLOG_EXPORT void QXLogCenterSaveActionStartTime(const char* key);

/* Where the queue files live; call before the first report. */
QXLOG_EXPORT void QXLogSetDocumentsDirectory(const char* path);
/* Receives every console line instead of stderr; NULL restores the default:
 * stderr, or what $QXLOG_CONSOLE says ("stderr", "syslog" or "off"). The
 * handler runs on the thread that writes the line, possibly on several
 * threads at once, and may call any function of this interface. `line` is
 * valid during the call only. A handler already running on another thread
 * may still finish after its replacement is set. */
QXLOG_EXPORT void QXLogSetConsoleHandler(void (*handler)(const char* line, void* context),
                                         void* context);

/* How records travel; choose before the first report.
 * QXLogDeliveryDescribed (the default) is what existing log servers expect: a
 * batch leaves the queue when its upload starts and is repeated once on a
 * transport failure. It drops records: a batch that fails twice or is answered
 * with another code than "200", a backlog of more than 500 records, and the
 * records stored while an upload was out, which its confirmation clears.
 * QXLogDeliveryAtLeastOnce keeps every record in an append-only journal in the
 * Documents directory ("QXLogJournal.*") until an answer "200" confirms the
 * upload that carried it: one upload at a time, oldest records first in
 * batches of at most 500, each batch sealed once and posted with the same
 * log_data on every attempt, across restarts too (the token is the day's);
 * transport failures retried with backoff (1 s doubling to 5 minutes), a
 * refused batch retried twice and then dropped. Only an upload whose answer
 * was lost can arrive twice, with the same log_data. The wire format is the
 * same in both; a mode finds the other's pending records and carries them
 * over once. */
typedef enum { QXLogDeliveryDescribed = 0, QXLogDeliveryAtLeastOnce = 1 } QXLogDelivery;
QXLOG_EXPORT void QXLogSetDelivery(QXLogDelivery delivery);
/* At least once: the most records each queue keeps (50 000 unless set);
 * beyond it the oldest are dropped, traced and reported as dropped. */
QXLOG_EXPORT void QXLogSetQueueLimit(size_t limit);

/* What became of a batch of records, told on the main queue in both modes.
 * `reason` is "" for a confirmation, otherwise one line, valid during the
 * call only. The handler may call any function of this interface. */
typedef enum {
  QXLogBatchConfirmed = 0,
  QXLogBatchRetrying = 1,
  QXLogBatchDropped = 2
} QXLogBatchOutcome;
/* NULL stops the reports. */
QXLOG_EXPORT void QXLogSetDeliveryHandler(void (*handler)(QXLogBatchOutcome outcome, size_t records,
                                                          const char* reason, void* context),
                                          void* context);

/* Sends what is queued now, whatever the batch size, in either delivery, and
 * waits up to timeout_ms for the answers; on the thread that serves the main
 * queue (QXLogMainQueueDrain/Run) it serves the queue meanwhile. Returns the
 * number of records still not confirmed: 0 when everything arrived. In the
 * described delivery it is one submission now, with that delivery's usual
 * outcome. For the host's exit path; not from a delivery handler. */
QXLOG_EXPORT int QXLogFlush(int64_t timeout_ms);

/* Runs every main-queue task that is due, on the calling thread. */
QXLOG_EXPORT void QXLogMainQueueDrain(void);
/* Serves the main queue on the calling thread until QXLogMainQueueStop, which
 * may be called from any thread. */
QXLOG_EXPORT void QXLogMainQueueRun(void);
QXLOG_EXPORT void QXLogMainQueueStop(void);
/* For hosts with an event loop (GLib, Qt, libuv, epoll): a descriptor owned by
 * the library (close-on-exec; do not close it) that becomes readable exactly
 * when a main-queue task is due. Watch it for input and call
 * QXLogMainQueueDrain when it fires; the drain re-arms it. -1 on failure. */
QXLOG_EXPORT int QXLogMainQueueFileDescriptor(void);
/* For hosts that schedule the tasks themselves: from now on every main-queue
 * task is handed to `post`, which must call task(task_context) once, on the
 * host's main thread, no earlier than delay_ns nanoseconds later. `post` is
 * called from any library or host thread and must not run the task inside
 * the call. Set before the first report; NULL restores the built-in queue. */
QXLOG_EXPORT void QXLogSetMainQueueExecutor(void (*post)(void (*task)(void* task_context),
                                                         void* task_context, uint64_t delay_ns,
                                                         void* context),
                                            void* context);

#ifdef __cplusplus
}
#endif

#endif /* QXLOG_QXLOG_H_ */
