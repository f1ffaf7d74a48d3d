#include "QXLog/center/Upload.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <string_view>

#include "QXLog/platform/Env.h"
#include "QXLog/serial/FormEncoding.h"
#include "QXLog/serial/Json.h"
#include "QXLog/serial/Text.h"

namespace qxlog::center {
namespace {

constexpr std::array<std::string_view, 6> kAcceptedContentTypes = {
    "application/json", "text/json", "text/javascript", "text/html", "text/xml", "application/xml"};

// The media type of a Content-Type header, without parameters, lower-cased.
std::string mediaType(std::string_view contentType) {
  contentType = contentType.substr(0, contentType.find(';'));
  std::string type;
  for (char c : contentType) {
    if (c != ' ' && c != '\t')
      type += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  }
  return type;
}

}  // namespace

Dictionary traceEnvelopeText(const platform::Env& env, Dictionary envelope) {
  const Value* text = envelope.find("log_data_str");
  env.consoleWrite("Ostra->LogContent:" +
                   (text != nullptr ? serial::describe(*text) : std::string("(null)")));
  envelope.erase("log_data_str");
  return envelope;
}

platform::HttpRequest makeUploadRequest(const Dictionary& envelope, const std::string& url,
                                        bool announceGzip) {
  platform::HttpRequest request;
  request.method = "POST";
  request.url = url;
  request.body = serial::formEncode(envelope);
  request.headers.emplace_back("Content-Type", "application/x-www-form-urlencoded");
  if (announceGzip) request.headers.emplace_back("Content-Encoding", "gzip");
  // The log server may present any certificate.
  request.verifyPeer = false;
  return request;
}

std::optional<Value> acceptedAnswer(const platform::HttpResponse& response) {
  if (!response.completed || response.status < 200 || response.status > 299) return std::nullopt;
  std::string type = mediaType(response.contentType);
  if (std::find(kAcceptedContentTypes.begin(), kAcceptedContentTypes.end(), type) ==
      kAcceptedContentTypes.end()) {
    return std::nullopt;
  }
  return serial::parseJson(response.body);
}

bool confirmsBatch(const Value& answer) {
  const Dictionary* fields = answer.asDictionary();
  if (fields == nullptr) return false;
  const Value* code = fields->find("operate_code");
  return code != nullptr && code->asString() != nullptr && *code->asString() == "200";
}

std::string failureReason(const platform::HttpResponse& response) {
  if (!response.completed) return "no answer: " + response.error;
  if (response.status < 200 || response.status > 299) {
    return "status " + std::to_string(response.status);
  }
  return "answer not JSON of an accepted type";
}

std::string refusalReason(const Value& answer) {
  const Dictionary* fields = answer.asDictionary();
  const Value* code = fields != nullptr ? fields->find("operate_code") : nullptr;
  if (code == nullptr) return "refused: no operate_code";
  return "refused: operate_code " + serial::describe(*code);
}

AnswerVerdict judgeAnswer(const platform::HttpResponse& response) {
  using Kind = AnswerVerdict::Kind;
  const long status = response.status;
  if (!response.completed || status < 200 || status > 299) {
    bool refused =
        response.completed && status >= 400 && status <= 499 && status != 408 && status != 429;
    AnswerVerdict verdict{refused ? Kind::kRefused : Kind::kTransient, failureReason(response)};
    if (response.completed && (status == 429 || status == 503)) {
      verdict.retryAfterSeconds = response.retryAfterSeconds;
    }
    return verdict;
  }
  std::optional<Value> answer = acceptedAnswer(response);
  if (!answer) return {Kind::kTransient, failureReason(response)};
  if (confirmsBatch(*answer)) return {Kind::kConfirmed, ""};
  return {Kind::kRefused, refusalReason(*answer)};
}

}  // namespace qxlog::center
