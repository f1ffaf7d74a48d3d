// Launch, action and network reports: built into records and queued as actions.
#include "QXLog/QXLog.h"
#include "QXLog/QXLogCenter.h"
#include "QXLog/platform/Env.h"
#include "QXLog/recording/Gate.h"
#include "QXLog/recording/HostStrings.h"
#include "QXLog/serial/Text.h"
#include "QXLog/support/Time.h"

namespace {

using qxlog::NullableString;
using qxlog::recording::deferUntilReady;
using qxlog::recording::fromHost;

bool isNilOrEmpty(const NullableString& text) {
  return !text || text->empty();
}

void launchWithPushId(NullableString launchLog, NullableString push_id) {
  if (deferUntilReady(launchWithPushId, launchLog, push_id)) return;
  QXLogMessageFormat& format = QXLogCenter::center().format();
  auto record =
      format.launchLog(launchLog, qxlog::support::currentMillisText(format.env().clock()), push_id);
  QXLogCenter::center().storeActionLog(std::move(record));
}

void action(NullableString actionLog, NullableString movie_index) {
  if (deferUntilReady(action, actionLog, movie_index)) return;
  QXLogMessageFormat& format = QXLogCenter::center().format();
  auto record = format.actionLog(actionLog, qxlog::support::currentMillisText(format.env().clock()),
                                 movie_index);
  QXLogCenter::center().storeActionLog(std::move(record));
}

void network(NullableString networkLog, int64_t wasteTime, NullableString errorCode) {
  if (isNilOrEmpty(networkLog)) return;
  if (deferUntilReady(network, networkLog, wasteTime, errorCode)) return;
  QXLogMessageFormat& format = QXLogCenter::center().format();
  auto record = format.networkLog(networkLog, qxlog::serial::formatInteger(wasteTime), errorCode);
  QXLogCenter::center().storeActionLog(std::move(record));
}

}  // namespace

void recordLaunchLog(const char* launchLog) {
  recordLaunchLogWithPushId(launchLog, "");
}

void recordLaunchLogWithPushId(const char* launchLog, const char* push_id) {
  launchWithPushId(fromHost(launchLog), fromHost(push_id));
}

void recordActionLog(const char* actionLog, const char* movie_index) {
  action(fromHost(actionLog), fromHost(movie_index));
}

void recordNetworkLog(const char* networkLog, int64_t wasteTime, const char* errorCode) {
  network(fromHost(networkLog), wasteTime, fromHost(errorCode));
}
