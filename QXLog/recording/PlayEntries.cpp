// Play reports: a play start becomes the play header; player events go to the
// play queue, to be folded under that header later.
#include "QXLog/QXLog.h"
#include "QXLog/QXLogCenter.h"
#include "QXLog/platform/Env.h"
#include "QXLog/recording/Gate.h"
#include "QXLog/recording/HostStrings.h"
#include "QXLog/serial/Text.h"

namespace {

using qxlog::NullableString;
using qxlog::Value;
using qxlog::recording::deferUntilReady;
using qxlog::recording::fromHost;
using qxlog::serial::describe;

void consoleWrite(const std::string& line) {
  QXLogCenter::center().env().consoleWrite(line);
}

void play(NullableString movie_id, NullableString playLog, NullableString view_source,
          bool isDownload, NullableString isPcdn, NullableString videoType) {
  if (deferUntilReady(play, movie_id, playLog, view_source, isDownload, isPcdn, videoType)) return;
  // Closes the previous play before its header is replaced.
  QXLogCenter::center().makePlayLog();
  QXLogMessageFormat& format = QXLogCenter::center().format();
  auto header = format.playLog(playLog, view_source, movie_id, isDownload, isPcdn, videoType);
  QXLogCenter::center().setCurrentPlayHeader(std::move(header));
  auto current = QXLogCenter::center().currentPlayHeader();
  consoleWrite("Play-currentPlayHeader:" + (current ? describe(Value(*current)) : "(null)"));
}

// Player events and trailer events share the play-action record; only the
// console line tells them apart.
void playAction(const char* tracePrefix, NullableString playActionLog, NullableString playStatu,
                NullableString startTime, NullableString endTime, NullableString startPosition,
                NullableString endPosition, NullableString playTime) {
  if (deferUntilReady(playAction, tracePrefix, playActionLog, playStatu, startTime, endTime,
                      startPosition, endPosition, playTime)) {
    return;
  }
  QXLogMessageFormat& format = QXLogCenter::center().format();
  auto record = format.playActionLog(playActionLog, playStatu, startTime, endTime, startPosition,
                                     endPosition, playTime);
  consoleWrite(tracePrefix + describe(Value(record)));
  QXLogCenter::center().storePlayLog(std::move(record));
}

}  // namespace

void recordPlayLog(const char* movie_id, const char* playLog, const char* view_source,
                   bool isDownload, const char* isPcdn, const char* videoType) {
  play(fromHost(movie_id), fromHost(playLog), fromHost(view_source), isDownload, fromHost(isPcdn),
       fromHost(videoType));
}

void recordMoviePlayLog(const char* movie_id, const char* playLog, const char* view_source,
                        bool isDownload, const char* isPcdn) {
  recordPlayLog(movie_id, playLog, view_source, isDownload, isPcdn, "1");
}

void recordSmallPlayLog(const char* movie_id, const char* playLog, const char* view_source,
                        bool isDownload, const char* isPcdn) {
  recordPlayLog(movie_id, playLog, view_source, isDownload, isPcdn, "5");
}

void recordChannelPlayLog(const char* movie_id, const char* playLog, const char* view_source,
                          bool isDownload, const char* isPcdn) {
  recordPlayLog(movie_id, playLog, view_source, isDownload, isPcdn, "6");
}

void recordPlayActionLog(const char* playActionLog, const char* playStatu, const char* startTime,
                         const char* endTime, const char* startPosition, const char* endPosition,
                         const char* playTime) {
  playAction("Play-log:", fromHost(playActionLog), fromHost(playStatu), fromHost(startTime),
             fromHost(endTime), fromHost(startPosition), fromHost(endPosition), fromHost(playTime));
}

void recordPlayTrailerLog(const char* playActionLog, const char* playStatu, const char* startTime,
                          const char* endTime, const char* startPosition, const char* endPosition,
                          const char* playTime) {
  playAction("PlayTrailer-log:", fromHost(playActionLog), fromHost(playStatu), fromHost(startTime),
             fromHost(endTime), fromHost(startPosition), fromHost(endPosition), fromHost(playTime));
}
