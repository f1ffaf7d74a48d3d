// Diagnosis report and body.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "QXLog/QXLogCenter.h"
#include "QXLog/QXLogHelper.h"
#include "collector/decode/EnvelopeDecoder.h"
#include "tests/support/TestPlatform.h"

namespace qxlog::testing {
namespace {

class DiagnosisRecordsTest : public LibraryTest {
 protected:
  QXLogMessageFormat& format() { return QXLogCenter::center().format(); }

  Dictionary body(const std::string& key = "0123456789abcdef") {
    format().setLogEncryptionKey(key);
    return format().diagnosisLog("p1", "p2", "p3", "p5", "p4", "p6", "p7", "p8");
  }

  // The report inside a body, decoded.
  Dictionary report(const Dictionary& body, const NullableString& key = "0123456789abcdef") {
    auto decoded = collector::decodeLogData(field(body, "diagnosis_log"), key);
    if (!decoded || !decoded.value->asDictionary()) {
      ADD_FAILURE() << "undecodable report: " << decoded.error;
      return Dictionary();
    }
    return *decoded.value->asDictionary();
  }

  // One section of a decoded report; empty when it is missing.
  static Dictionary section(const Dictionary& report, std::string_view name) {
    const Value* value = report.find(name);
    if (value == nullptr || value->asDictionary() == nullptr) {
      ADD_FAILURE() << "no section " << name;
      return Dictionary();
    }
    return *value->asDictionary();
  }
};

TEST_F(DiagnosisRecordsTest, BodyHasItsSevenKeysWithTheCrossedVersionPair) {
  format().setUid("42");
  format().setIdfa("device-1");
  format().setPhone("555");
  format().setSoftVer("3.1.4");
  const Dictionary result = body();
  EXPECT_EQ(json(result),
            R"({"user_id":"42","uid":"device-1","user_phone":"555","diagnosis_log":")" +
                field(result, "diagnosis_log") +
                R"(","velin":"3.1.4","version":"velin","token":")" +
                QXLogHelper::tokenString("0").value_or("") + "\"}");
  EXPECT_EQ(field(result, "token").size(), 32u);
}

TEST_F(DiagnosisRecordsTest, ReportPutsEachArgumentUnderItsKey) {
  // The builder takes the prepare time fourth and the end time fifth.
  Dictionary play = section(report(body()), "play_info");
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
  EXPECT_EQ(section(decoded, "user_info"), strings({{"userID", "u"}, {"userPhone", "ph"}}));
  EXPECT_EQ(section(decoded, "dev_info"), strings({{"deviceID", "id"},
                                                   {"devBrand", "Pixel"},
                                                   {"devMode", "Pixel"},
                                                   {"deviceResolution", "3.000000"},
                                                   {"devSystemVersion", "14"}}));
}

TEST_F(DiagnosisRecordsTest, ReportWithoutContextOrArguments) {
  format().setLogEncryptionKey(std::nullopt);
  Dictionary result = format().diagnosisLog(std::nullopt, std::nullopt, std::nullopt, std::nullopt,
                                            std::nullopt, std::nullopt, std::nullopt, std::nullopt);
  EXPECT_EQ(result.size(), 7u);
  for (const char* key : {"user_id", "uid", "user_phone", "velin"}) {
    EXPECT_EQ(field(result, key), "") << key;
  }
  EXPECT_EQ(field(result, "version"), "velin");
  Dictionary decoded = report(result, std::nullopt);
  std::size_t leaves = 0;
  for (const char* name : {"user_info", "dev_info", "play_info"}) {
    Dictionary leavesOf = section(decoded, name);
    for (const auto& [key, leaf] : leavesOf) {
      std::string expected = key == "decodeType"         ? "1"
                             : key == "deviceResolution" ? "1.000000"
                                                         : "";
      EXPECT_EQ(field(leavesOf, key), expected) << name << "." << key;
      ++leaves;
    }
  }
  EXPECT_EQ(leaves, 16u);
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
