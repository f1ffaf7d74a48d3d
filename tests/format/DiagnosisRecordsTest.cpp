// Diagnosis report and body.
#include <gtest/gtest.h>

#include <string>

#include "QXLog/QXLogCenter.h"
#include "QXLog/QXLogHelper.h"
#include "collector/decode/EnvelopeDecoder.h"
#include "tests/support/TestPlatform.h"

namespace qxlog::testing {
namespace {

class DiagnosisRecordsTest : public LibraryTest {
 protected:
  QXLogMessageFormat& format() { return QXLogCenter::center().format(); }
  // The report inside a body, decoded, as JSON.
  std::string report(const Dictionary& body, const NullableString& key) {
    auto decoded = collector::decodeLogDataText(field(body, "diagnosis_log"), key);
    return decoded ? *decoded.value : "undecodable: " + decoded.error;
  }
};

TEST_F(DiagnosisRecordsTest, BodyHasSevenKeysWithTheCrossedVersionPairAndTheFullReport) {
  format().setUid("42");
  format().setIdfa("device-1");
  format().setPhone("555");
  format().setSoftVer("3.1.4");
  format().setDevModel("Pixel");
  format().setHardVer("14");
  format().setScreenScale(3.0);
  format().setLogEncryptionKey("0123456789abcdef");
  // The builder takes the prepare time fourth and the end time fifth.
  const Dictionary body = format().diagnosisLog("p1", "p2", "p3", "p5", "p4", "p6", "p7", "p8");
  EXPECT_EQ(json(body), R"({"user_id":"42","uid":"device-1","user_phone":"555","diagnosis_log":")" +
                            field(body, "diagnosis_log") +
                            R"(","velin":"3.1.4","version":"velin","token":")" +
                            *QXLogHelper::tokenString("0") + "\"}");
  EXPECT_EQ(report(body, "0123456789abcdef"),
            R"({"user_info":{"userID":"42","userPhone":"555"},"dev_info":{"deviceID":"device-1",)"
            R"("devBrand":"Pixel","devMode":"Pixel","deviceResolution":"3.000000",)"
            R"("devSystemVersion":"14"},"play_info":{"playUrl":"p1","decodeType":"1",)"
            R"("definition":"p8","isPlayOK":"p7","causeOfFailure":"p2","startTime":"p3",)"
            R"("prepareTime":"p5","endTime":"p4","duration":"p6"}})");
}

TEST_F(DiagnosisRecordsTest, ReportWithoutContextOrArguments) {
  format().setLogEncryptionKey(std::nullopt);
  const Dictionary body =
      format().diagnosisLog(std::nullopt, std::nullopt, std::nullopt, std::nullopt, std::nullopt,
                            std::nullopt, std::nullopt, std::nullopt);
  EXPECT_EQ(json(body), R"({"user_id":"","uid":"","user_phone":"","diagnosis_log":")" +
                            field(body, "diagnosis_log") +
                            R"(","velin":"","version":"velin","token":")" +
                            *QXLogHelper::tokenString("0") + "\"}");
  EXPECT_EQ(report(body, std::nullopt),
            R"({"user_info":{"userID":"","userPhone":""},"dev_info":{"deviceID":"",)"
            R"("devBrand":"","devMode":"","deviceResolution":"1.000000","devSystemVersion":""},)"
            R"("play_info":{"playUrl":"","decodeType":"1","definition":"","isPlayOK":"",)"
            R"("causeOfFailure":"","startTime":"","prepareTime":"","endTime":"","duration":""}})");
}

TEST_F(DiagnosisRecordsTest, HostReportIsEncodedAsGiven) {
  format().setLogEncryptionKey("k");
  Dictionary host = strings({{"custom", "yes"}});
  host.set("n", Value(int64_t{7}));
  EXPECT_EQ(report(format().diagnosisOfCompleteInformation(Value(host)), "k"),
            R"({"custom":"yes","n":7})");
}

}  // namespace
}  // namespace qxlog::testing
