// The HTTP side of an upload: the form POST of an envelope and the reading of
// the log server's answer.
#ifndef QXLOG_CENTER_UPLOAD_H_
#define QXLOG_CENTER_UPLOAD_H_

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "QXLog/QXLogValue.h"
#include "QXLog/platform/Env.h"
#include "QXLog/platform/HttpTransport.h"

namespace qxlog::center {

// The most records one upload carries. In the described delivery a longer
// backlog is discarded rather than sent; at least once it goes out in batches.
inline constexpr std::size_t kMaxBatchRecords = 500;

// Writes the envelope's "log_data_str" to the env's console, as every upload
// does, and returns the envelope without it: it is not posted.
Dictionary traceEnvelopeText(const platform::Env& env, Dictionary envelope);

// The POST of an envelope's parameters to `url`. "Content-Encoding: gzip" is
// announced when the caller named the URL itself (as the log server expects
// of diagnosis and repeated uploads), not on a first ordinary attempt.
platform::HttpRequest makeUploadRequest(const Dictionary& envelope, const std::string& url,
                                        bool announceGzip);

// The parsed answer when the exchange succeeded at the HTTP level: status
// 200-299, an accepted content type and a JSON body. Nothing otherwise.
std::optional<Value> acceptedAnswer(const platform::HttpResponse& response);

// Whether the answer confirms the batch: "operate_code" is the string "200".
bool confirmsBatch(const Value& answer);

// One line on why an exchange brought no accepted answer, or why an accepted
// answer refused the batch, for the console and the delivery handler.
std::string failureReason(const platform::HttpResponse& response);
std::string refusalReason(const Value& answer);

// What an answer means for the records it carried, at least once: confirmed;
// transient (no answer, 408, 429, 5xx, or an unreadable 2xx answer: sent
// again later); or refused (any other 4xx, or a readable answer with another
// "operate_code": the content itself is turned down). `retryAfterSeconds` is
// the "Retry-After" of a 429 or 503, -1 otherwise.
struct AnswerVerdict {
  enum class Kind { kConfirmed, kTransient, kRefused };
  Kind kind = Kind::kTransient;
  std::string reason;
  int64_t retryAfterSeconds = -1;
};
AnswerVerdict judgeAnswer(const platform::HttpResponse& response);

}  // namespace qxlog::center

#endif  // QXLOG_CENTER_UPLOAD_H_
