/*
 * A GLib host: the library's main queue served from a GLib main loop through
 * its file descriptor, with no polling. The loop wakes only when a main-queue
 * task is due (an upload's answer, a deferred report, a retry) and drains it.
 *
 *   qxlog-glib-host SERVER_URL DOCUMENTS_DIR
 *
 * Reports a launch and two actions at least once to SERVER_URL/log, and exits
 * 0 once the server has confirmed all three, printing how often the loop woke.
 */
#include <glib-unix.h>
#include <glib.h>
#include <stdio.h>
#include <string.h>

#include "QXLog/QXLog.h"

typedef struct {
  GMainLoop* loop;
  int wakeups;
  size_t confirmed;
} Host;

static gboolean on_main_queue_due(gint fd, GIOCondition condition, gpointer data) {
  (void)fd;
  (void)condition;
  ((Host*)data)->wakeups++;
  QXLogMainQueueDrain();
  return G_SOURCE_CONTINUE;
}

static void on_batch(QXLogBatchOutcome outcome, size_t records, const char* reason, void* data) {
  Host* host = data;
  printf("batch of %zu: %s %s\n", records,
         outcome == QXLogBatchConfirmed  ? "confirmed"
         : outcome == QXLogBatchRetrying ? "retrying"
                                         : "dropped",
         reason);
  if (outcome == QXLogBatchConfirmed) host->confirmed += records;
  if (host->confirmed >= 3) g_main_loop_quit(host->loop);
}

static gboolean give_up(gpointer data) {
  g_main_loop_quit(((Host*)data)->loop);
  return G_SOURCE_REMOVE;
}

static void set_url(const char* property, const char* server, const char* path) {
  char* url = g_strconcat(server, path, NULL);
  QXLogFormatSetString(property, url);
  g_free(url);
}

int main(int argc, char** argv) {
  if (argc != 3) {
    fprintf(stderr, "usage: qxlog-glib-host SERVER_URL DOCUMENTS_DIR\n");
    return 2;
  }
  Host host = {g_main_loop_new(NULL, FALSE), 0, 0};
  QXLogSetDocumentsDirectory(argv[2]);
  QXLogSetDelivery(QXLogDeliveryAtLeastOnce);
  QXLogSetDeliveryHandler(on_batch, &host);
  QXLogFormatSetString("uid", "10086");
  QXLogFormatSetString("idfa", "glib-host");
  QXLogFormatSetString("logEncryptionKey", "0123456789abcdef");
  set_url("pushLogUrl", argv[1], "/log");
  g_unix_fd_add(QXLogMainQueueFileDescriptor(), G_IO_IN, on_main_queue_due, &host);
  g_timeout_add_seconds(10, give_up, &host);

  gint64 start = g_get_monotonic_time();
  logEnvReady(true);
  recordLaunchLog("cold");
  recordActionLog("home.open", "0");
  recordActionLog("play.tap", "1");
  g_main_loop_run(host.loop);
  printf("confirmed %zu records in %lld ms, %d wake-ups\n", host.confirmed,
         (long long)((g_get_monotonic_time() - start) / 1000), host.wakeups);
  g_main_loop_unref(host.loop);
  return host.confirmed >= 3 ? 0 : 1;
}
