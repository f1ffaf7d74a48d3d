// Diagnosis report and body.
#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <memory>
#include <string>
#include <vector>

#include "QXLog/QXLogCenter.h"
#include "QXLog/QXLogHelper.h"
#include "QXLog/platform/Json.h"
#include "QXLog/platform/Text.h"
#include "tests/support/TestPlatform.h"

namespace qxlog::testing {
namespace {

// Reverses the body's encoding of a report: base64, AES-128-ECB under the
// first 16 bytes of the key (zero-filled), gzip, JSON.
std::optional<Value> decodeReport(const std::string& encoded, const std::string& key) {
  std::vector<unsigned char> cipher(encoded.size());
  int decoded = EVP_DecodeBlock(cipher.data(), reinterpret_cast<const unsigned char*>(encoded.data()),
                                static_cast<int>(encoded.size()));
  if (decoded < 0 || encoded.size() % 4 != 0) return std::nullopt;
  std::size_t padding = 0;
  for (std::size_t i = encoded.size(); i > 0 && encoded[i - 1] == '='; --i) ++padding;
  cipher.resize(static_cast<std::size_t>(decoded) - padding);

  unsigned char keyBytes[16] = {};
  for (std::size_t i = 0; i < key.size() && i < 16; ++i) keyBytes[i] = key[i];
  std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> context(EVP_CIPHER_CTX_new(),
                                                                          EVP_CIPHER_CTX_free);
  std::string plain(cipher.size() + 16, '\0');
  int written = 0;
  int finalWritten = 0;
  auto* out = reinterpret_cast<unsigned char*>(plain.data());
  if (EVP_DecryptInit_ex(context.get(), EVP_aes_128_ecb(), nullptr, keyBytes, nullptr) != 1 ||
      EVP_DecryptUpdate(context.get(), out, &written, cipher.data(),
                        static_cast<int>(cipher.size())) != 1 ||
      EVP_DecryptFinal_ex(context.get(), out + written, &finalWritten) != 1) {
    return std::nullopt;
  }
  plain.resize(static_cast<std::size_t>(written + finalWritten));
  QXLogHelper::Data json = QXLogHelper::gzipInflate(plain);
  if (!json) return std::nullopt;
  return platform::parseJson(*json);
}

class DiagnosisRecordsTest : public LibraryTest {
 protected:
  QXLogMessageFormat& format() { return QXLogCenter::center().format(); }

  Dictionary body(const std::string& key = "0123456789abcdef") {
    format().setLogEncryptionKey(key);
    return format().diagnosisLog("p1", "p2", "p3", "p5", "p4", "p6", "p7", "p8");
  }

  // The report inside a body, decoded.
  Dictionary report(const Dictionary& body, const std::string& key = "0123456789abcdef") {
    std::optional<Value> decoded = decodeReport(field(body, "diagnosis_log"), key);
    if (!decoded || !decoded->asDictionary()) {
      ADD_FAILURE() << "undecodable report: " << field(body, "diagnosis_log");
      return Dictionary();
    }
    return *decoded->asDictionary();
  }
};

TEST_F(DiagnosisRecordsTest, BodyHasItsSevenKeysWithTheCrossedVersionPair) {
  format().setUid("42");
  format().setIdfa("device-1");
  format().setPhone("555");
  format().setSoftVer("3.1.4");
  Dictionary result = body();
  std::vector<std::string> keys;
  for (const auto& [key, value] : result) keys.push_back(key);
  EXPECT_EQ(keys, (std::vector<std::string>{"user_id", "uid", "user_phone", "diagnosis_log",
                                            "velin", "version", "token"}));
  EXPECT_EQ(field(result, "user_id"), "42");
  EXPECT_EQ(field(result, "uid"), "device-1");
  EXPECT_EQ(field(result, "user_phone"), "555");
  EXPECT_EQ(field(result, "velin"), "3.1.4");
  EXPECT_EQ(field(result, "version"), "velin");
  EXPECT_EQ(field(result, "token"), QXLogHelper::tokenString("0").value_or(""));
  EXPECT_EQ(field(result, "token").size(), 32u);
}

TEST_F(DiagnosisRecordsTest, BodyWithoutContextIsEmptyButComplete) {
  Dictionary result = format().diagnosisOfCompleteInformation(Value(Dictionary()));
  EXPECT_EQ(result.size(), 7u);
  for (const char* key : {"user_id", "uid", "user_phone", "velin"}) {
    EXPECT_EQ(field(result, key), "") << key;
  }
  EXPECT_EQ(field(result, "version"), "velin");
  EXPECT_FALSE(field(result, "diagnosis_log").empty());
}

TEST_F(DiagnosisRecordsTest, ReportPutsEachArgumentUnderItsKey) {
  // The builder takes the prepare time fourth and the end time fifth.
  Dictionary play = *report(body()).find("play_info")->asDictionary();
  EXPECT_EQ(play, strings({{"playUrl", "p1"},
                           {"decodeType", "1"},
                           {"definition", "p8"},
                           {"isPlayOK", "p7"},
                           {"causeOfFailure", "p2"},
                           {"startTime", "p3"},
                           {"prepareTime", "p5"},
                           {"endTime", "p4"},
                           {"duration", "p6"}}));
}

TEST_F(DiagnosisRecordsTest, ReportCarriesUserAndDevice) {
  format().setUid("u");
  format().setPhone("ph");
  format().setIdfa("id");
  format().setDevModel("Pixel");
  format().setHardVer("14");
  format().setScreenScale(3.0);
  Dictionary decoded = report(body());
  std::vector<std::string> sections;
  for (const auto& [key, value] : decoded) sections.push_back(key);
  EXPECT_EQ(sections, (std::vector<std::string>{"user_info", "dev_info", "play_info"}));
  EXPECT_EQ(*decoded.find("user_info")->asDictionary(),
            strings({{"userID", "u"}, {"userPhone", "ph"}}));
  EXPECT_EQ(*decoded.find("dev_info")->asDictionary(),
            strings({{"deviceID", "id"},
                     {"devBrand", "Pixel"},
                     {"devMode", "Pixel"},
                     {"deviceResolution", "3.000000"},
                     {"devSystemVersion", "14"}}));
}

TEST_F(DiagnosisRecordsTest, ReportWithoutContextOrArguments) {
  format().setLogEncryptionKey(std::nullopt);
  Dictionary result = format().diagnosisLog(std::nullopt, std::nullopt, std::nullopt,
                                            std::nullopt, std::nullopt, std::nullopt,
                                            std::nullopt, std::nullopt);
  Dictionary decoded = report(result, "");
  for (const char* section : {"user_info", "dev_info", "play_info"}) {
    const Value* value = decoded.find(section);
    ASSERT_TRUE(value != nullptr && value->asDictionary() != nullptr) << section;
    for (const auto& [key, leaf] : *value->asDictionary()) {
      std::string expected = key == "decodeType"         ? "1"
                             : key == "deviceResolution" ? "1.000000"
                                                         : "";
      EXPECT_EQ(field(*value->asDictionary(), key), expected) << section << "." << key;
    }
  }
}

TEST_F(DiagnosisRecordsTest, HostReportIsEncodedAsGiven) {
  format().setLogEncryptionKey("k");
  Dictionary host;
  host.set("custom", Value("yes"));
  host.set("n", Value(int64_t{7}));
  Dictionary result = format().diagnosisOfCompleteInformation(Value(host));
  EXPECT_EQ(report(result, "k"), host);
}

}  // namespace
}  // namespace qxlog::testing
