// The C interface of qxlog-mpv.
#include "QXLog/QXLogMpv.h"

#include <memory>

#include "integrations/mpv/MpvSession.h"

struct QXLogMpvSession {
  QXLogMpvSession(mpv_handle* client, qxlog::mpv::PlayIdentity identity)
      : session(client, std::move(identity)) {}
  qxlog::mpv::MpvSession session;
};

QXLogMpvSession* QXLogMpvAttach(mpv_handle* mpv, const QXLogMpvOptions* options) {
  if (mpv == nullptr) return nullptr;
  mpv_handle* client = mpv_create_client(mpv, "qxlog");
  if (client == nullptr) return nullptr;
  return new QXLogMpvSession(client, qxlog::integrations::identityOf(options));
}

void QXLogMpvDetach(QXLogMpvSession* session) {
  delete session;
}
