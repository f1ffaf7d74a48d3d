// The QXLogHelper methods whose described behaviour reads the operating
// system (the clock, the queue files, the Documents directory, the device
// facts): they read it
// through the log center's environment, here in the center's layer, and hand
// it down to the support code as an argument.
#include "QXLog/QXLogCenter.h"
#include "QXLog/QXLogHelper.h"
#include "QXLog/platform/Env.h"
#include "QXLog/support/Facts.h"
#include "QXLog/support/QueueFiles.h"
#include "QXLog/support/Token.h"

namespace {

qxlog::platform::Env& centerEnv() {
  return QXLogCenter::center().env();
}

}  // namespace

const QXLogHelper::Array& QXLogHelper::store(const Array& array, std::string_view plist) {
  qxlog::support::writeCollection(centerEnv(), array, plist);
  return array;
}

std::optional<QXLogHelper::Array> QXLogHelper::store(std::nullptr_t, std::string_view plist) {
  return qxlog::support::readArray(centerEnv(), plist);
}

const QXLogHelper::Dictionary& QXLogHelper::storeDict(const Dictionary& dictionary,
                                                      std::string_view plist) {
  qxlog::support::writeCollection(centerEnv(), dictionary, plist);
  return dictionary;
}

std::optional<QXLogHelper::Dictionary> QXLogHelper::storeDict(std::nullptr_t,
                                                              std::string_view plist) {
  return qxlog::support::readDictionary(centerEnv(), plist);
}

void QXLogHelper::removePlist(std::string_view plist) {
  qxlog::support::removeQueueFile(centerEnv(), plist);
}

// The total is measured where the queue files live.
double QXLogHelper::totalDiskSpace() {
  const qxlog::platform::Env& env = centerEnv();
  return qxlog::support::totalDiskSpaceOf(env, env.documentsDirectory());
}

// The free space is measured on "/var".
double QXLogHelper::freeDiskSpace() {
  return qxlog::support::freeDiskSpaceOf(centerEnv().facts(), "/var");
}

std::string QXLogHelper::lookupHostIPAddressForURL(const NullableString& url) {
  return qxlog::support::ipv4AddressForUrl(centerEnv().facts(), url);
}

std::string QXLogHelper::getIPAddress() {
  return qxlog::support::ipv4AddressOfInterface(centerEnv().facts(), "en0");
}

std::string QXLogHelper::obtainCurrentTime() {
  return qxlog::support::today(centerEnv().clock());
}

std::string QXLogHelper::timeStamp(const Value&) {
  return qxlog::support::today(centerEnv().clock());
}

QXLogHelper::NullableString QXLogHelper::tokenString(const NullableString&) {
  // The token depends on the day alone.
  return qxlog::support::dayToken(centerEnv().clock());
}
