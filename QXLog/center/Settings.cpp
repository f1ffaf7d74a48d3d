// Server settings: the batch size and the push interval come from the settings
// endpoint, which the host asks the library to query.
#include "QXLog/QXLogCenter.h"
#include "QXLog/center/PushTimer.h"
#include "QXLog/platform/Env.h"
#include "QXLog/serial/Json.h"
#include "QXLog/serial/Text.h"
#include "QXLog/support/Token.h"

namespace platform = qxlog::platform;
namespace serial = qxlog::serial;
using qxlog::Value;

namespace {

// The value under `key` of the answer's "result" dictionary; null if absent.
Value resultField(const std::optional<Value>& answer, std::string_view key) {
  if (!answer || !answer->isDictionary()) return Value();
  const Value* result = answer->asDictionary()->find("result");
  if (result == nullptr || !result->isDictionary()) return Value();
  const Value* field = result->asDictionary()->find(key);
  return field != nullptr ? *field : Value();
}

}  // namespace

void QXLogCenter::getLogServerInfo() {
  // The query values go in as they are, unescaped; "(null)" stands for nil.
  QXLogMessageFormat& settings = format();
  platform::HttpRequest request;
  request.url = serial::describe(settings.pushUrl()) +
                "?token=" + serial::describe(qxlog::support::dayToken(env().clock())) +
                "&uid=" + serial::describe(settings.idfa());
  request.timeout = std::chrono::seconds(30);
  env().globalQueue()->async(
      [this, request = std::move(request)] { settingsAnswered(env().performHttp(request)); });
}

void QXLogCenter::settingsAnswered(const platform::HttpResponse& response) {
  if (!response.completed) {
    // Repeated once at once, once in the life of the process.
    if (!hasRepeatRequestLogServer_.exchange(true)) getLogServerInfo();
    return;
  }
  // Any answer counts, whatever its status; what is missing becomes nil.
  std::optional<Value> answer = serial::parseJson(response.body);
  Value interval = resultField(answer, "push_interval_time");
  QXLogMessageFormat& settings = format();
  settings.setPush_interval_time(interval);
  settings.setLimitLogCount(serial::integerValue(resultField(answer, "push_interval_number")));
  settings.setCurrent_time(resultField(answer, "current_time"));
  settings.setServerInfoUpdateTime(env().wallSeconds() * 1000.0);
  startTime(qxlog::center::pushIntervalSeconds(interval));
}
