// Byte codecs and the day token.
#include "QXLog/QXLogHelper.h"

QXLogHelper::NullableString QXLogHelper::md5String(const NullableString&) {
  return std::nullopt;
}
QXLogHelper::Data QXLogHelper::gzipDeflate(const Data& data) {
  return data;
}
QXLogHelper::Data QXLogHelper::gzipInflate(const Data& data) {
  return data;
}
QXLogHelper::Data QXLogHelper::data_AES256(const Data&, const NullableString&) {
  return std::nullopt;
}
QXLogHelper::NullableString QXLogHelper::base64String(const Value&) {
  return std::nullopt;
}
QXLogHelper::NullableString QXLogHelper::tokenString(const NullableString&) {
  return std::nullopt;
}
