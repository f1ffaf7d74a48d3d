/*
 * A minimal C host: sets its context, reports one event before and one after
 * declaring readiness, serves the main queue until the early report has been
 * retried, and prints the action queue file.
 *
 *   qxlog_minimal_host [documents-directory]
 */
#include <stdio.h>
#include <time.h>

#include "QXLog/QXLog.h"

static void print_line(const char* line, void* context) {
  (void)context;
  printf("console: %s\n", line);
}

static void sleep_ms(long ms) {
  struct timespec pause = {ms / 1000, (ms % 1000) * 1000000L};
  nanosleep(&pause, NULL);
}

int main(int argc, char** argv) {
  const char* documents = argc > 1 ? argv[1] : "qxlog-example-documents";
  QXLogSetDocumentsDirectory(documents);
  QXLogSetConsoleHandler(print_line, NULL);

  QXLogFormatSetString("uid", "10086");
  QXLogFormatSetString("idfa", "example-device");
  QXLogFormatSetString("channel", "example");
  QXLogFormatSetIsDev(true); /* batches of two */

  recordActionLog("launch.splash", "0"); /* waits: the host is not ready yet */
  logEnvReady(true);
  recordActionLog("home.open", "1");

  /* The early report is retried five seconds after it was made. */
  for (int i = 0; i < 60; ++i) {
    QXLogMainQueueDrain();
    sleep_ms(100);
  }

  char path[4096];
  snprintf(path, sizeof path, "%s/UserStatisticalLog.plist", documents);
  FILE* file = fopen(path, "r");
  if (file == NULL) {
    perror(path);
    return 1;
  }
  printf("--- %s ---\n", path);
  int c;
  while ((c = fgetc(file)) != EOF) putchar(c);
  fclose(file);
  return 0;
}
