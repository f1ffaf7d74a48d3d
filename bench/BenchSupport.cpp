#include "bench/BenchSupport.h"

#include <cstdlib>
#include <filesystem>

#include "QXLog/QXLog.h"
#include "QXLog/center/CenterRegistry.h"
#include "QXLog/platform/Env.h"
#include "QXLog/serial/Text.h"
#include "QXLog/support/Time.h"

namespace qxlog::bench {
namespace {

void discardLine(const char* /*line*/, void* /*context*/) {}

void setContext(QXLogMessageFormat& format, int64_t batchSize) {
  format.setUid("1048576");
  format.setPackageName("com.example.video");
  format.setBundleVer("8.4.2");
  format.setLogEncryptionKey("0123456789abcdef");
  format.setDevModel("Linux x86_64");
  format.setChannel("bench");
  format.setHardVer("pc");
  format.setSoftVer("6.1");
  format.setVer("8.4.2");
  format.setCity("上海");
  format.setPushLogUrl("http://127.0.0.1:9/log");
  format.setLimitLogCount(batchSize);
}

}  // namespace

std::string benchDirectory() {
  const char* configured = std::getenv("QXLOG_BENCH_DIR");
  std::string directory = configured != nullptr && *configured != '\0' ? configured : "bench-data";
  std::filesystem::create_directories(directory);
  return std::filesystem::absolute(directory).string();
}

void setUpHost(const std::string& directory) {
  QXLogSetDocumentsDirectory(directory.c_str());
  // The console is the host's concern; a discarding handler keeps stderr out
  // of the figures.
  QXLogSetConsoleHandler(discardLine, nullptr);
  logEnvReady(true);
  setContext(QXLogCenter::center().format(), 1);
}

QXLogCenter& freshCenter(int64_t batchSize, std::shared_ptr<platform::Env> env) {
  QXLogCenter& center = center::CenterRegistry::replaceForTesting(std::move(env));
  setContext(center.format(), batchSize);
  return center;
}

std::string actionName(std::size_t i) {
  static const char* const kActions[] = {"home/recommend/click_play", "search/result/open",
                                         "首页/推荐/点击播放",        "player/pause",
                                         "detail/episode_select",     "me/history/open"};
  return kActions[i % (sizeof kActions / sizeof kActions[0])];
}

std::string movieIndex(std::size_t i) {
  return "movie_" + std::to_string(100000 + i * 37 % 90000);
}

Array typicalRecords(std::size_t count) {
  QXLogMessageFormat& format = QXLogCenter::center().format();
  Array records;
  records.reserve(count);
  for (std::size_t i = 0; i < count; ++i) {
    records.emplace_back(format.actionLog(
        actionName(i), qxlog::support::currentMillisText(format.env().clock()), movieIndex(i)));
  }
  return records;
}

}  // namespace qxlog::bench
