// Download reports: built into download records and queued as actions.
#include "QXLog/QXLog.h"
#include "QXLog/QXLogCenter.h"
#include "QXLog/recording/Gate.h"
#include "QXLog/recording/HostStrings.h"

namespace {

using qxlog::NullableString;
using qxlog::recording::deferUntilReady;
using qxlog::recording::fromHost;

void download(NullableString downLog, NullableString movieUrl, NullableString movieName,
              NullableString dataAmount, NullableString storagePath, NullableString downsState) {
  if (!movieUrl || movieUrl->empty()) return;
  if (deferUntilReady(download, downLog, movieUrl, movieName, dataAmount, storagePath,
                      downsState)) {
    return;
  }
  // The builder takes the arguments in the order (1, 2, 6, 4, 5, 3).
  QXLogMessageFormat& format = QXLogCenter::center().format();
  auto record = format.downLog(downLog, movieUrl, downsState, dataAmount, storagePath, movieName);
  QXLogCenter::center().storeActionLog(std::move(record));
}

}  // namespace

void recordDownLog(const char* downLog, const char* movieUrl, const char* movieName,
                   const char* dataAmount, const char* storagePath, const char* downsState) {
  download(fromHost(downLog), fromHost(movieUrl), fromHost(movieName), fromHost(dataAmount),
           fromHost(storagePath), fromHost(downsState));
}
