/* A C program on the installed libmpv adapter: attaches to an idle headless
 * core and detaches. */
#include <QXLog/QXLogMpv.h>

int main(void) {
  mpv_handle* mpv = mpv_create();
  if (mpv == NULL) return 1;
  mpv_set_option_string(mpv, "vo", "null");
  mpv_set_option_string(mpv, "ao", "null");
  mpv_set_option_string(mpv, "idle", "yes");
  if (mpv_initialize(mpv) < 0) return 1;
  QXLogMpvSession* session = QXLogMpvAttach(mpv, NULL);
  const int attached = session != NULL;
  QXLogMpvDetach(session);
  mpv_terminate_destroy(mpv);
  return attached ? 0 : 1;
}
