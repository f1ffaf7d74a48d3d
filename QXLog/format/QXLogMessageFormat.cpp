// The format object's context: initial values and thread-safe properties.
#include "QXLog/QXLogMessageFormat.h"

#include "QXLog/platform/Console.h"
#include "QXLog/platform/Env.h"
#include "QXLog/serial/Text.h"

namespace {

constexpr std::string_view kStringPropertyNames[] = {
#define QXLOG_NAME(getter, setter) #getter,
    QXLOG_FORMAT_STRING_PROPERTIES(QXLOG_NAME)
#undef QXLOG_NAME
};

}  // namespace

QXLogMessageFormat::QXLogMessageFormat() : QXLogMessageFormat(qxlog::platform::Env::Default()) {}

QXLogMessageFormat::QXLogMessageFormat(std::shared_ptr<qxlog::platform::Env> env)
    : env_(std::move(env)) {
  setNetworkState("0");
  setTerminal_category("2");
  setLimitLogCount(1);
  // Linux has no application bundle: the program's name stands in for the
  // bundle identifier, and there is no short version string.
  setPackageName(qxlog::platform::programName());
  setBundleVer("");
}

qxlog::platform::Env& QXLogMessageFormat::env() const {
  return *env_;
}

QXLogMessageFormat::NullableString QXLogMessageFormat::get(Field field) const {
  std::lock_guard lock(mutex_);
  return strings_[static_cast<std::size_t>(field)];
}

void QXLogMessageFormat::set(Field field, NullableString value) {
  std::lock_guard lock(mutex_);
  strings_[static_cast<std::size_t>(field)] = std::move(value);
}

#define QXLOG_DEFINE_STRING_PROPERTY(getter, setter)                      \
  QXLogMessageFormat::NullableString QXLogMessageFormat::getter() const { \
    return get(Field::getter);                                            \
  }                                                                       \
  void QXLogMessageFormat::setter(NullableString value) {                 \
    set(Field::getter, std::move(value));                                 \
  }
QXLOG_FORMAT_STRING_PROPERTIES(QXLOG_DEFINE_STRING_PROPERTY)
#undef QXLOG_DEFINE_STRING_PROPERTY

bool QXLogMessageFormat::isDev() const {
  std::lock_guard lock(mutex_);
  return isDev_;
}

void QXLogMessageFormat::setIsDev(bool isDev) {
  std::lock_guard lock(mutex_);
  isDev_ = isDev;
}

int64_t QXLogMessageFormat::limitLogCount() const {
  std::lock_guard lock(mutex_);
  return isDev_ ? 2 : limitLogCount_;
}

void QXLogMessageFormat::setLimitLogCount(int64_t limitLogCount) {
  std::lock_guard lock(mutex_);
  limitLogCount_ = limitLogCount;
}

qxlog::Value QXLogMessageFormat::push_interval_time() const {
  std::lock_guard lock(mutex_);
  return pushIntervalTime_;
}

void QXLogMessageFormat::setPush_interval_time(Value value) {
  std::lock_guard lock(mutex_);
  pushIntervalTime_ = std::move(value);
}

qxlog::Value QXLogMessageFormat::current_time() const {
  std::lock_guard lock(mutex_);
  return currentTime_;
}

void QXLogMessageFormat::setCurrent_time(Value value) {
  std::lock_guard lock(mutex_);
  currentTime_ = std::move(value);
}

double QXLogMessageFormat::serverInfoUpdateTime() const {
  std::lock_guard lock(mutex_);
  return serverInfoUpdateTime_;
}

void QXLogMessageFormat::setServerInfoUpdateTime(double millis) {
  std::lock_guard lock(mutex_);
  serverInfoUpdateTime_ = millis;
}

double QXLogMessageFormat::screenScale() const {
  std::lock_guard lock(mutex_);
  return screenScale_;
}

void QXLogMessageFormat::setScreenScale(double scale) {
  std::lock_guard lock(mutex_);
  screenScale_ = scale;
}

bool QXLogMessageFormat::setStringProperty(std::string_view name, NullableString value) {
  for (std::size_t i = 0; i < std::size(kStringPropertyNames); ++i) {
    if (kStringPropertyNames[i] == name) {
      set(static_cast<Field>(i), std::move(value));
      return true;
    }
  }
  // The two settings values are also reachable by name, as text.
  if (name == "push_interval_time") {
    setPush_interval_time(Value::fromNullable(value));
  } else if (name == "current_time") {
    setCurrent_time(Value::fromNullable(value));
  } else {
    return false;
  }
  return true;
}

std::optional<QXLogMessageFormat::NullableString> QXLogMessageFormat::stringProperty(
    std::string_view name) const {
  for (std::size_t i = 0; i < std::size(kStringPropertyNames); ++i) {
    if (kStringPropertyNames[i] == name) return get(static_cast<Field>(i));
  }
  Value value;
  if (name == "push_interval_time") {
    value = push_interval_time();
  } else if (name == "current_time") {
    value = current_time();
  } else {
    return std::nullopt;
  }
  if (value.isNull()) return NullableString();
  if (const std::string* text = value.asString()) return NullableString(*text);
  return NullableString(qxlog::serial::describe(value));
}
