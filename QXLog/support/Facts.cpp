// Device, network and time facts.
#include "QXLog/QXLogHelper.h"

bool QXLogHelper::isEmptyOrNull(const Value&) {
  return true;
}
double QXLogHelper::totalDiskSpace() {
  return 0.0;
}
double QXLogHelper::freeDiskSpace() {
  return 0.0;
}
std::string QXLogHelper::ispName() {
  return std::string();
}
std::string QXLogHelper::lookupHostIPAddressForURL(const NullableString&) {
  return std::string();
}
std::string QXLogHelper::getIPAddress() {
  return std::string();
}
std::string QXLogHelper::obtainCurrentTime() {
  return std::string();
}
std::string QXLogHelper::timeStamp(const Value&) {
  return std::string();
}
