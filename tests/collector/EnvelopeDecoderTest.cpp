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

}  // namespace
}  // namespace qxlog
