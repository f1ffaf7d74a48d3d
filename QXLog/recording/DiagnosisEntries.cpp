// Diagnosis reports bypass the queues: the body is posted at once to the
// diagnosis URL.
#include "QXLog/QXLog.h"
#include "QXLog/QXLogCenter.h"
#include "QXLog/recording/Gate.h"
#include "QXLog/recording/HostDictionary.h"
#include "QXLog/recording/HostStrings.h"

namespace {

using qxlog::NullableString;
using qxlog::recording::deferUntilReady;
using qxlog::recording::DictionaryHandle;
using qxlog::recording::fromHost;

void postDiagnosis(qxlog::Dictionary body) {
  QXLogCenter& center = QXLogCenter::center();
  center.pushLog(std::move(body), center.format().pushDiagnosisUrl(), true);
}

// Parameters in the host's order; the 4th and 5th cross over into the
// builder, which takes the prepare time before the end time.
void diagnosis(NullableString diagnosisLog, NullableString causeOfFailure,
               NullableString playStartTime, NullableString endTime, NullableString prepareTime,
               NullableString duration, NullableString isPlayOK, NullableString definition) {
  if (deferUntilReady(diagnosis, diagnosisLog, causeOfFailure, playStartTime, endTime, prepareTime,
                      duration, isPlayOK, definition)) {
    return;
  }
  QXLogMessageFormat& format = QXLogCenter::center().format();
  postDiagnosis(format.diagnosisLog(diagnosisLog, causeOfFailure, playStartTime, prepareTime,
                                    endTime, duration, isPlayOK, definition));
}

void completeDiagnosis(DictionaryHandle report) {
  if (deferUntilReady(completeDiagnosis, report)) return;
  QXLogMessageFormat& format = QXLogCenter::center().format();
  qxlog::Value contents = report.isNull() ? qxlog::Value() : qxlog::Value(report.snapshot());
  postDiagnosis(format.diagnosisOfCompleteInformation(contents));
}

}  // namespace

void recordDiagnosLog(const char* diagnosisLog, const char* causeOfFailure,
                      const char* playStartTime, const char* endTime, const char* prepareTime,
                      const char* duration, const char* isPlayOK, const char* definition) {
  diagnosis(fromHost(diagnosisLog), fromHost(causeOfFailure), fromHost(playStartTime),
            fromHost(endTime), fromHost(prepareTime), fromHost(duration), fromHost(isPlayOK),
            fromHost(definition));
}

void recordDiagnosCompleteLog(QXLogDictionary* diagnosisOfCompleteInformation) {
  completeDiagnosis(DictionaryHandle(diagnosisOfCompleteInformation));
}
