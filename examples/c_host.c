/*
 * The smallest C host: sets its context, declares readiness, reports a launch
 * and an action, and serves the main queue while they are sent.
 *
 *   qxlog-c-host DOCUMENTS-DIRECTORY [SERVER-URL [KEY]]
 *
 * With a SERVER-URL (a qxlog-collector, "http://127.0.0.1:8470") each record
 * is uploaded as it is made; without one the records wait in the queue files.
 */
#define _POSIX_C_SOURCE 200809L /* nanosleep */

#include <stdio.h>
#include <time.h>

#include "QXLog/QXLog.h"

static void set_url(const char* property, const char* base, const char* path) {
  char url[1024];
  snprintf(url, sizeof url, "%s%s", base, path);
  QXLogFormatSetString(property, url);
}

int main(int argc, char** argv) {
  if (argc < 2) {
    fprintf(stderr, "usage: %s DOCUMENTS-DIRECTORY [SERVER-URL [KEY]]\n", argv[0]);
    return 2;
  }
  QXLogSetDocumentsDirectory(argv[1]);
  QXLogFormatSetString("uid", "10086");
  QXLogFormatSetString("idfa", "c-host-device");
  QXLogFormatSetString("logEncryptionKey", argc > 3 ? argv[3] : "demo-key-0123456");
  if (argc > 2) {
    set_url("pushUrl", argv[2], "/settings");
    set_url("pushLogUrl", argv[2], "/log");
    set_url("pushDiagnosisUrl", argv[2], "/diagnosis");
  }
  logEnvReady(true);

  recordLaunchLog("cold");
  recordActionLog("home.open", "0");

  /* Upload answers are handled on the main queue, which the host serves. */
  const struct timespec pause = {0, 10 * 1000000L};
  for (int i = 0; i < 50; ++i) {
    QXLogMainQueueDrain();
    nanosleep(&pause, NULL);
  }
  return 0;
}
