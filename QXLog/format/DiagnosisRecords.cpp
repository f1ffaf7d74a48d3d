// Diagnosis report and body.
#include "QXLog/QXLogMessageFormat.h"
#include "QXLog/platform/Env.h"
#include "QXLog/serial/Json.h"
#include "QXLog/serial/Text.h"
#include "QXLog/support/Codecs.h"
#include "QXLog/support/Token.h"

namespace support = qxlog::support;

namespace serial = qxlog::serial;

QXLogMessageFormat::Dictionary QXLogMessageFormat::diagnosisLog(
    const NullableString& diagnosisLog, const NullableString& causeOfFailure,
    const NullableString& playStartTime, const NullableString& prepareTime,
    const NullableString& endTime, const NullableString& duration, const NullableString& isPlayOK,
    const NullableString& definition) const {
  std::string resolution = serial::formatFixed(screenScale(), 6);

  Dictionary user;
  user.setString("userID", uid());
  user.setString("userPhone", phone());

  // Brand and mode both carry the device model.
  NullableString model = devModel();
  Dictionary device;
  device.setString("deviceID", idfa());
  device.setString("devBrand", model);
  device.setString("devMode", model);
  device.setString("deviceResolution", resolution);
  device.setString("devSystemVersion", hardVer());

  Dictionary play;
  play.setString("playUrl", diagnosisLog);
  play.setString("decodeType", "1");
  play.setString("definition", definition);
  play.setString("isPlayOK", isPlayOK);
  play.setString("causeOfFailure", causeOfFailure);
  play.setString("startTime", playStartTime);
  play.setString("prepareTime", prepareTime);
  play.setString("endTime", endTime);
  play.setString("duration", duration);

  Dictionary report;
  report.set("user_info", Value(std::move(user)));
  report.set("dev_info", Value(std::move(device)));
  report.set("play_info", Value(std::move(play)));
  return diagnosisOfCompleteInformation(Value(std::move(report)));
}

QXLogMessageFormat::Dictionary QXLogMessageFormat::diagnosisOfCompleteInformation(
    const Value& report) const {
  // Sealed under this format object's key, read afresh on each call.
  const std::string json = qxlog::serial::toJson(report);
  NullableString encoded = support::sealJson(std::string_view(json), logEncryptionKey());
  NullableString token = support::dayToken(env().clock());

  // "uid" carries the device identifier, and the software version travels
  // under "velin" while "version" holds the fixed text "velin": the server
  // reads the body in this form.
  Dictionary body;
  body.reserve(7);
  body.setString("user_id", uid());
  body.setString("uid", idfa());
  body.setString("user_phone", phone());
  body.setString("diagnosis_log", encoded);
  body.setString("velin", softVer());
  body.setString("version", "velin");
  body.setString("token", token);
  return body;
}
