/* Compiled as C11 against the public header and linked to the shared library:
 * exercises the C interface end to end and exits non-zero on any failure. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "QXLog/QXLog.h"

static int failures = 0;

#define CHECK(condition)                                                      \
  do {                                                                        \
    if (!(condition)) {                                                       \
      fprintf(stderr, "%s:%d: failed: %s\n", __FILE__, __LINE__, #condition); \
      ++failures;                                                             \
    }                                                                         \
  } while (0)

static int lines = 0;
static void count_line(const char* line, void* context) {
  (void)line;
  ++*(int*)context;
}

int main(int argc, char** argv) {
  if (argc < 2) return 2;
  QXLogSetDocumentsDirectory(argv[1]);
  QXLogSetConsoleHandler(count_line, &lines);

  CHECK(QXLogVersionNumber == 1.0);
  CHECK(strcmp((const char*)QXLogVersionString, "@(#)PROGRAM:QXLog  PROJECT:Pods-1\n") == 0);

  char* now = currentTime();
  CHECK(now != NULL && strlen(now) >= 13);
  QXLogFree(now);

  QXLogDictionary* dictionary = QXLogDictionaryCreate();
  put(dictionary, "k", NULL);
  put(dictionary, NULL, "ignored");
  put(dictionary, "q", "\"quoted\"");
  char* json = QXLogDictionaryCopyJSON(dictionary);
  CHECK(json != NULL && strcmp(json, "{\"k\":\"\",\"q\":\"\\\"quoted\\\"\"}") == 0);
  QXLogFree(json);
  QXLogDictionaryRelease(dictionary);
  CHECK(QXLogDictionaryCreateWithJSON("[1]") == NULL);

  QXLogFormatSetString("uid", "7");
  char* uid = QXLogFormatCopyString("uid");
  CHECK(uid != NULL && strcmp(uid, "7") == 0);
  QXLogFree(uid);
  CHECK(QXLogFormatCopyString("phone") == NULL);
  CHECK(QXLogFormatCopyString("no such property") == NULL);

  /* A ready report reaches the action queue file before the call returns. */
  QXLogFormatSetIsDev(true);
  logEnvReady(true);
  recordActionLog("c.host", NULL);
  char path[4096];
  snprintf(path, sizeof path, "%s/UserStatisticalLog.plist", argv[1]);
  FILE* file = fopen(path, "r");
  CHECK(file != NULL);
  if (file != NULL) {
    char contents[8192] = {0};
    size_t got = fread(contents, 1, sizeof contents - 1, file);
    fclose(file);
    CHECK(got > 0 && strstr(contents, "<string>c.host</string>") != NULL);
  }
  QXLogMainQueueDrain();
  return failures == 0 ? 0 : 1;
}
