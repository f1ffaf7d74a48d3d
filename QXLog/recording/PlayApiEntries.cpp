// The play API's exported functions (QXLog/QXLogPlay.h): a handle per play.
#include <memory>

#include "QXLog/QXLogPlay.h"
#include "QXLog/recording/HostStrings.h"
#include "QXLog/recording/PlayApi.h"
#include "QXLog/recording/PlaySession.h"
#include "QXLog/recording/PlaySessions.h"

// The push timer may hold a play's session a moment after QXLogPlayEnd.
struct QXLogPlay {
  explicit QXLogPlay(qxlog::format::PlayDescription description)
      : session(std::make_shared<qxlog::recording::PlaySession>(std::move(description))) {}
  const std::shared_ptr<qxlog::recording::PlaySession> session;
};

namespace {

using qxlog::recording::fromHost;

}  // namespace

void qxlog::recording::discardPlayForTesting(QXLogPlay* play) {
  delete play;
}

QXLogPlay* QXLogPlayBegin(const QXLogPlayInfo* info) {
  if (info == nullptr) return nullptr;
  qxlog::recording::PlaySessions& sessions = qxlog::recording::PlaySessions::instance();
  qxlog::format::PlayDescription description{
      sessions.newId(),           fromHost(info->movie_id),
      fromHost(info->url),        fromHost(info->view_source),
      fromHost(info->video_type), info->is_download,
      fromHost(info->is_pcdn)};
  // Listed before its file is first written, so that a crash leaves it found.
  sessions.opened(description.playId);
  auto* play = new QXLogPlay(std::move(description));
  sessions.track(play->session);
  return play;
}

void QXLogPlaySetState(QXLogPlay* play, QXLogPlayerState state, int64_t position_ms) {
  if (play == nullptr || state < QXLogPlayerStarting || state > QXLogPlayerSeeking) return;
  play->session->setState(static_cast<qxlog::format::PlayerState>(state), position_ms);
}

void QXLogPlayRendition(QXLogPlay* play, int height, int64_t bitrate_bps) {
  if (play != nullptr) play->session->rendition(height, bitrate_bps);
}

void QXLogPlayError(QXLogPlay* play, const char* cause) {
  if (play != nullptr) play->session->fail(fromHost(cause).value_or(""));
}

void QXLogPlayEnd(QXLogPlay* play) {
  if (play == nullptr) return;
  play->session->end();
  delete play;
}

const char* QXLogPlayId(const QXLogPlay* play) {
  return play != nullptr ? play->session->id().c_str() : nullptr;
}

const char* QXLogPlayOperationString(int operation) {
  return QXLogPlayOperationText(static_cast<QXLogPlayOperation>(operation));
}

const char* QXLogPlayStatusString(int status) {
  return QXLogPlayStatusText(static_cast<QXLogPlayStatus>(status));
}
