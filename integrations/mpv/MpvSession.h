// One attached mpv core: a client handle of the session's own, a thread that
// waits for its events, and the driver that turns them into play reports.
#ifndef QXLOG_INTEGRATIONS_MPV_MPVSESSION_H_
#define QXLOG_INTEGRATIONS_MPV_MPVSESSION_H_

#include <mpv/client.h>

#include <atomic>
#include <thread>

#include "integrations/mpv/MpvPlayDriver.h"

namespace qxlog::mpv {

class MpvSession {
 public:
  // Takes `client`, a handle made for the session with mpv_create_client.
  MpvSession(mpv_handle* client, PlayIdentity identity);
  // Ends an open play, stops the thread and destroys the handle.
  ~MpvSession();
  MpvSession(const MpvSession&) = delete;
  MpvSession& operator=(const MpvSession&) = delete;

 private:
  // The session's thread: waits for events until the core shuts down or the
  // session is detached.
  void run();
  // False once the loop should stop.
  bool handle(const mpv_event& event);
  void propertyChanged(const mpv_event_property& property);
  // Destroys the handle once; the core waits for it at shutdown.
  void releaseClient();

  MpvPlayDriver driver_;  // fed by the session's thread, then by the detach after the join
  // Shared by the thread and the detach: the handle (null once destroyed)
  // and whether the session is being detached.
  std::atomic<mpv_handle*> client_;
  std::atomic<bool> stopping_{false};
  std::thread thread_;
};

}  // namespace qxlog::mpv

#endif  // QXLOG_INTEGRATIONS_MPV_MPVSESSION_H_
