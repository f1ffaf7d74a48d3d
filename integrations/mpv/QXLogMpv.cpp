// The C interface of qxlog-mpv.
#include "QXLog/QXLogMpv.h"

#include <memory>

#include "integrations/mpv/MpvSession.h"

namespace {

std::optional<std::string> copied(const char* text) {
  return text != nullptr ? std::optional<std::string>(text) : std::nullopt;
}

qxlog::mpv::PlayIdentity identityOf(const QXLogMpvOptions* options) {
  qxlog::mpv::PlayIdentity identity;
  if (options == nullptr) return identity;
  identity.movieId = copied(options->movie_id);
  identity.viewSource = copied(options->view_source);
  identity.videoType = copied(options->video_type);
  identity.isDownload = options->is_download;
  identity.isPcdn = copied(options->is_pcdn);
  return identity;
}

}  // namespace

struct QXLogMpvSession {
  QXLogMpvSession(mpv_handle* client, qxlog::mpv::PlayIdentity identity)
      : session(client, std::move(identity)) {}
  qxlog::mpv::MpvSession session;
};

QXLogMpvSession* QXLogMpvAttach(mpv_handle* mpv, const QXLogMpvOptions* options) {
  if (mpv == nullptr) return nullptr;
  mpv_handle* client = mpv_create_client(mpv, "qxlog");
  if (client == nullptr) return nullptr;
  return new QXLogMpvSession(client, identityOf(options));
}

void QXLogMpvDetach(QXLogMpvSession* session) {
  delete session;
}
