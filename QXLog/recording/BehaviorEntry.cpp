// A dictionary made by the host, posted unchanged to a URL of its choice.
#include "QXLog/QXLog.h"
#include "QXLog/QXLogCenter.h"
#include "QXLog/recording/Gate.h"
#include "QXLog/recording/HostDictionary.h"
#include "QXLog/recording/HostStrings.h"

namespace {

using qxlog::NullableString;
using qxlog::recording::DictionaryHandle;

void behavior(DictionaryHandle pushLog, NullableString url, bool diagnosis) {
  if (qxlog::recording::deferUntilReady(behavior, pushLog, url, diagnosis)) return;
  QXLogCenter::center().pushLog(pushLog.snapshot(), url, diagnosis);
}

}  // namespace

void recordBehaviorLog(QXLogDictionary* pushLog, const char* url, bool diagnosis) {
  behavior(DictionaryHandle(pushLog), qxlog::recording::fromHost(url), diagnosis);
}
