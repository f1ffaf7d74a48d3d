/* Built against an installed QXLog: prints the version and the clock. */
#include <stdio.h>
#include <string.h>

#include "QXLog/QXLog.h"
#include "QXLog/QXLogPlayEvents.h"

int main(void) {
  char* now = currentTime();
  int ok = now != NULL && strlen(now) >= 13 && QXLogVersionNumber == 1.0 &&
           strcmp(QXLogPlayOperationText(QXLogPlayOperationBuffering), "5") == 0;
  printf("QXLog %.1f, currentTime %s\n", QXLogVersionNumber, now ? now : "(null)");
  QXLogFree(now);
  return ok ? 0 : 1;
}
