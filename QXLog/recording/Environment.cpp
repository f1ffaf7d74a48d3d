// Readiness, the millisecond clock and the version constants.
#include "QXLog/QXLog.h"
#include "QXLog/QXLogCenter.h"
#include "QXLog/platform/Env.h"
#include "QXLog/recording/Gate.h"
#include "QXLog/recording/HostStrings.h"
#include "QXLog/recording/PlaySessions.h"
#include "QXLog/support/Time.h"

extern "C" {
const double QXLogVersionNumber = 1.0;
const unsigned char QXLogVersionString[] = "@(#)PROGRAM:QXLog  PROJECT:Pods-1\n";
}

void logEnvReady(bool ready) {
  qxlog::recording::setEnvironmentReady(ready);
  // The plays an earlier run left go out now, not at this run's first play.
  if (ready) qxlog::recording::PlaySessions::instance().started();
}

char* currentTime(void) {
  return qxlog::recording::toHost(
      qxlog::support::currentMillisText(QXLogCenter::center().env().clock()));
}
