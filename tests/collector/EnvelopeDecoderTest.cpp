#include <gtest/gtest.h>

#include <string>

#include "QXLog/QXLogHelper.h"
#include "QXLog/support/Codecs.h"
#include "collector/decode/EnvelopeDecoder.h"

namespace qxlog {
namespace {

using namespace std::string_literals;
using collector::base64Decode;
using collector::decodeLogData;
using collector::decryptLogData;
using collector::gunzip;

TEST(EnvelopeDecoderBase64, RejectsMalformedText) {
  EXPECT_EQ(base64Decode("Zm9v\nYmFy\r\n").value, "foobar"s);
  for (const char* bad :
       {"Zm9", "Z", "Zm9vY", "=Zm9", "Z===", "Zm==Zm9v", "Zm9v====", "Zm-v", "Zm9v*"}) {
    const auto decoded = base64Decode(bad);
    EXPECT_FALSE(decoded) << bad;
    EXPECT_FALSE(decoded.error.empty()) << bad;
  }
}

TEST(EnvelopeDecoderAes, RejectsPartialBlocksAndBadPadding) {
  EXPECT_FALSE(decryptLogData("", "k"s));
  EXPECT_FALSE(decryptLogData(std::string(15, 'x'), "k"s));
  const auto sealed = QXLogHelper::data_AES256("payload"s, "k"s);
  ASSERT_TRUE(sealed);
  EXPECT_EQ(decryptLogData(*sealed, "k"s).value, "payload"s);
  // Under a wrong key the padding check almost surely fails.
  const auto wrong = decryptLogData(*sealed, "K"s);
  EXPECT_NE(wrong.value, std::optional("payload"s));
}

TEST(EnvelopeDecoderGunzip, AcceptsExactlyOneGzipMember) {
  const auto member = QXLogHelper::gzipDeflate("body"s);
  ASSERT_TRUE(member);
  EXPECT_EQ(gunzip(*member).value, "body"s);
  EXPECT_FALSE(gunzip(*member + *member));
  EXPECT_FALSE(gunzip(member->substr(0, member->size() - 1)));
  EXPECT_FALSE(gunzip("plain text that is long enough"s));
}

TEST(EnvelopeDecoder, ReportsWhichStepFailed) {
  auto seal = [](const std::string& plain) {
    return support::base64Encode(*QXLogHelper::data_AES256(plain, "k"s));
  };
  const auto startsWith = [](const std::string& error, const char* prefix) {
    return error.rfind(prefix, 0) == 0;
  };
  EXPECT_TRUE(startsWith(decodeLogData("***", "k"s).error, "base64:"));
  EXPECT_TRUE(startsWith(decodeLogData("Zm9vYmFy", "k"s).error, "aes:"));
  EXPECT_TRUE(startsWith(decodeLogData(seal("not a gzip stream at all"), "k"s).error, "gzip:"));
  EXPECT_TRUE(
      startsWith(decodeLogData(seal(*QXLogHelper::gzipDeflate("{oops"s)), "k"s).error, "json:"));
  const auto good = decodeLogData(seal(*QXLogHelper::gzipDeflate("{\"a\":[1]}"s)), "k"s);
  ASSERT_TRUE(good) << good.error;
  EXPECT_TRUE(good.error.empty());
  EXPECT_EQ(*good.value->asDictionary()->find("a"), Value(Array{Value(1)}));
}

}  // namespace
}  // namespace qxlog
