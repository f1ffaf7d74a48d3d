// QXLogMessageFormat: the host's context (user, device, channel, versions,
// server URLs, key), the values the settings endpoint returned, and the
// builders that turn reports into records.
#ifndef QXLOG_QXLOGMESSAGEFORMAT_H_
#define QXLOG_QXLOGMESSAGEFORMAT_H_

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "QXLog/QXLogValue.h"

namespace qxlog::platform {
class Env;
}

// The string properties, in declaration order: (getter, setter).
#define QXLOG_FORMAT_STRING_PROPERTIES(X)                    \
  X(packageName, setPackageName)                             \
  X(bundleVer, setBundleVer)                                 \
  X(networkState, setNetworkState)                           \
  X(logEncryptionKey, setLogEncryptionKey)                   \
  X(pushUrl, setPushUrl)                                     \
  X(pushLogUrl, setPushLogUrl)                               \
  X(pushDiagnosisUrl, setPushDiagnosisUrl)                   \
  X(terminal_category, setTerminal_category)                 \
  X(uid, setUid)                                             \
  X(phone, setPhone)                                         \
  X(vipState, setVipState)                                   \
  X(idfa, setIdfa)                                           \
  X(devModel, setDevModel)                                   \
  X(channel, setChannel)                                     \
  X(hardwareSimpleDescription, setHardwareSimpleDescription) \
  X(hardVer, setHardVer)                                     \
  X(softVer, setSoftVer)                                     \
  X(ver, setVer)                                             \
  X(city, setCity)

class QXLogMessageFormat {
 public:
  using NullableString = qxlog::NullableString;
  using Dictionary = qxlog::Dictionary;
  using Array = qxlog::Array;
  using Value = qxlog::Value;

  // Initial values: networkState "0", terminal_category "2", limitLogCount 1,
  // packageName the program's name, bundleVer "". The builders read the
  // clock and write the console through `env`; the log center gives its own,
  // and without one it is the system's.
  QXLogMessageFormat();
  explicit QXLogMessageFormat(std::shared_ptr<qxlog::platform::Env> env);
  qxlog::platform::Env& env() const;
  QXLogMessageFormat(const QXLogMessageFormat&) = delete;
  QXLogMessageFormat& operator=(const QXLogMessageFormat&) = delete;

  // Context and settings. Properties may be read and written from any thread.
#define QXLOG_DECLARE_STRING_PROPERTY(getter, setter) \
  NullableString getter() const;                      \
  void setter(NullableString value);
  QXLOG_FORMAT_STRING_PROPERTIES(QXLOG_DECLARE_STRING_PROPERTY)
#undef QXLOG_DECLARE_STRING_PROPERTY

  bool isDev() const;
  void setIsDev(bool isDev);
  // The effective batch size: 2 while isDev is set, otherwise the stored value.
  int64_t limitLogCount() const;
  void setLimitLogCount(int64_t limitLogCount);
  // The settings answer's values, kept as they came (string, number or nil).
  Value push_interval_time() const;
  void setPush_interval_time(Value value);
  Value current_time() const;
  void setCurrent_time(Value value);
  // Local time of the last settings answer, milliseconds since 1970.
  double serverInfoUpdateTime() const;
  void setServerInfoUpdateTime(double millis);
  // The main screen's scale factor reported in diagnoses; 1.0 unless the host sets it.
  double screenScale() const;
  void setScreenScale(double scale);

  // A string property by name, for hosts that reach the object through the C
  // interface. Setting returns false and reading gives nothing for an unknown name.
  bool setStringProperty(std::string_view name, NullableString value);
  std::optional<NullableString> stringProperty(std::string_view name) const;

  // The common header "t_1" ... "t_12" that heads every upload.
  Dictionary publicLog() const;
  // A local time in milliseconds on the server's clock, as "%lld" text. A
  // server clock or elapsed time beyond 2^53 ms is left out: the local time.
  std::string returnsSendTime(double localMillis) const;

  // Launch, network and action records.
  Dictionary launchLog(const NullableString& launchLog, const NullableString& start_time,
                       const NullableString& push_id) const;
  Dictionary networkLog(const NullableString& networkLog, const NullableString& wasteTime,
                        const NullableString& errorCode) const;
  Dictionary actionLog(const NullableString& actionLog, const NullableString& actionTime,
                       const NullableString& movie_index) const;

  // Download record. The last argument is not recorded.
  Dictionary downLog(const NullableString& downLog, const NullableString& movieUrl,
                     const NullableString& downsState, const NullableString& dataAmount,
                     const NullableString& storagePath, const NullableString& movieName) const;

  // Play records.
  Dictionary playLog(const NullableString& playLog, const NullableString& view_source,
                     const NullableString& movie_id, bool isDownload, const NullableString& isPcdn,
                     const NullableString& videoType) const;
  Dictionary playActionLog(const NullableString& playActionLog, const NullableString& playStatu,
                           const NullableString& startTime, const NullableString& endTime,
                           const NullableString& startPosition, const NullableString& endPosition,
                           const NullableString& playTime);
  Dictionary playTrailerLog(const NullableString& playTrailerLog,
                            const NullableString& is_play_status,
                            const NullableString& buffer_start_time,
                            const NullableString& buffer_end_time,
                            const NullableString& start_position,
                            const NullableString& end_position,
                            const NullableString& play_total_time) const;

  // Diagnosis: the report builder returns the finished body.
  Dictionary diagnosisLog(const NullableString& diagnosisLog, const NullableString& causeOfFailure,
                          const NullableString& playStartTime, const NullableString& prepareTime,
                          const NullableString& endTime, const NullableString& duration,
                          const NullableString& isPlayOK, const NullableString& definition) const;
  Dictionary diagnosisOfCompleteInformation(const Value& report) const;

  // The upload envelope of an array of records (nullptr for nil).
  Dictionary combinationLog(const Array* records) const;

 private:
  friend class QXLogCenter;

  // The same envelope from the records' JSON array text "[...]", as the
  // center keeps it beside its action queue.
  Dictionary combinationLogOfJson(std::string_view recordsJson) const;

  enum class Field {
#define QXLOG_FIELD(getter, setter) getter,
    QXLOG_FORMAT_STRING_PROPERTIES(QXLOG_FIELD)
#undef QXLOG_FIELD
        kCount
  };

  NullableString get(Field field) const;
  void set(Field field, NullableString value);

  // Where downLog finds the start time the host saved for an item. The log
  // center that owns this object gives its start-time table, once, before
  // the object is shared; without one every item reads as never started.
  using StartTimeLookup = std::function<NullableString(const std::string& key)>;
  void setStartTimeLookup(StartTimeLookup lookup) {
    startTimeLookup_ = std::move(lookup);
  }

  const std::shared_ptr<qxlog::platform::Env> env_;
  StartTimeLookup startTimeLookup_;
  mutable std::mutex mutex_;
  std::array<NullableString, static_cast<std::size_t>(Field::kCount)> strings_;
  bool isDev_ = false;
  int64_t limitLogCount_ = 0;
  Value pushIntervalTime_;
  Value currentTime_;
  double serverInfoUpdateTime_ = 0.0;
  double screenScale_ = 1.0;
  // Start time of the last play-action record built; filters repeated buffering.
  NullableString buffer_start_time_;
};

#endif  // QXLOG_QXLOGMESSAGEFORMAT_H_
