// The QXLogHelper methods that read the running library: its queue files,
// clock and device facts through its environment, and the upload key of its
// format object, both found through the installed helper source.
#include "QXLog/QXLogHelper.h"
#include "QXLog/platform/Env.h"
#include "QXLog/serial/Json.h"
#include "QXLog/support/Codecs.h"
#include "QXLog/support/Facts.h"
#include "QXLog/support/HelperSource.h"
#include "QXLog/support/QueueFiles.h"
#include "QXLog/support/Token.h"

using qxlog::support::helperEnv;
using qxlog::support::helperUploadKey;

const QXLogHelper::Array& QXLogHelper::store(const Array& array, std::string_view plist) {
  qxlog::support::writeCollection(helperEnv(), array, plist);
  return array;
}

std::optional<QXLogHelper::Array> QXLogHelper::store(std::nullptr_t, std::string_view plist) {
  return qxlog::support::readArray(helperEnv(), plist);
}

const QXLogHelper::Dictionary& QXLogHelper::storeDict(const Dictionary& dictionary,
                                                      std::string_view plist) {
  qxlog::support::writeCollection(helperEnv(), dictionary, plist);
  return dictionary;
}

std::optional<QXLogHelper::Dictionary> QXLogHelper::storeDict(std::nullptr_t,
                                                              std::string_view plist) {
  return qxlog::support::readDictionary(helperEnv(), plist);
}

void QXLogHelper::removePlist(std::string_view plist) {
  qxlog::support::removeQueueFile(helperEnv(), plist);
}

// The total is measured where the queue files live.
double QXLogHelper::totalDiskSpace() {
  const qxlog::platform::Env& env = helperEnv();
  return qxlog::support::totalDiskSpaceOf(env, env.documentsDirectory());
}

// The free space is measured on "/var".
double QXLogHelper::freeDiskSpace() {
  return qxlog::support::freeDiskSpaceOf(helperEnv().facts(), "/var");
}

std::string QXLogHelper::lookupHostIPAddressForURL(const NullableString& url) {
  return qxlog::support::ipv4AddressForUrl(helperEnv().facts(), url);
}

std::string QXLogHelper::getIPAddress() {
  return qxlog::support::ipv4AddressOfInterface(helperEnv().facts(), "en0");
}

std::string QXLogHelper::obtainCurrentTime() {
  return qxlog::support::today(helperEnv().clock());
}

std::string QXLogHelper::timeStamp(const Value&) {
  return qxlog::support::today(helperEnv().clock());
}

QXLogHelper::NullableString QXLogHelper::tokenString(const NullableString&) {
  // The token depends on the day alone.
  return qxlog::support::dayToken(helperEnv().clock());
}

QXLogHelper::NullableString QXLogHelper::base64String(const Value& object) {
  // Every value serialises, so the JSON step here never yields nil.
  const std::string json = qxlog::serial::toJson(object);
  return qxlog::support::sealJson(std::string_view(json), helperUploadKey());
}
