// QXLogHelper: stateless facts and codecs, as class methods.
#ifndef QXLOG_QXLOGHELPER_H_
#define QXLOG_QXLOGHELPER_H_

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "QXLog/QXLogValue.h"

class QXLogHelper {
 public:
  using NullableString = qxlog::NullableString;
  using Array = qxlog::Array;
  using Dictionary = qxlog::Dictionary;
  using Value = qxlog::Value;
  // Binary data; nothing stands for nil.
  using Data = std::optional<std::string>;

  QXLogHelper() = delete;

  // Queue files in the Documents directory. Passing a collection rewrites the
  // file from it and returns it; passing nullptr reads the file back (nothing
  // when it is empty or holds no collection of that kind). Either way a missing
  // file is first created empty.
  static const Array& store(const Array& array, std::string_view plist);
  static std::optional<Array> store(std::nullptr_t, std::string_view plist);
  static const Dictionary& storeDict(const Dictionary& dictionary, std::string_view plist);
  static std::optional<Dictionary> storeDict(std::nullptr_t, std::string_view plist);
  // Removes the file, and says so on the console when there was one.
  static void removePlist(std::string_view plist);

  // Facts.
  static bool isEmptyOrNull(const Value& value);
  static double totalDiskSpace();
  static double freeDiskSpace();
  static std::string ispName();
  static std::string lookupHostIPAddressForURL(const NullableString& url);
  static std::string getIPAddress();
  static std::string obtainCurrentTime();
  static std::string timeStamp(const Value& ignored);

  // Codecs and token.
  static NullableString md5String(const NullableString& text);
  static Data gzipDeflate(const Data& data);
  static Data gzipInflate(const Data& data);
  // Encrypts under the key (AES-128, ECB, PKCS#7), whatever the name says.
  static Data data_AES256(const Data& data, const NullableString& key);
  static NullableString base64String(const Value& object);
  static NullableString tokenString(const NullableString& ignored);
};

#endif  // QXLOG_QXLOGHELPER_H_
