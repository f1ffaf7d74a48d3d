/* A C program on the installed GStreamer adapter: attaches to an empty
 * pipeline and detaches. */
#include <QXLog/QXLogGst.h>

int main(int argc, char** argv) {
  gst_init(&argc, &argv);
  GstElement* pipeline = gst_pipeline_new(NULL);
  QXLogGstSession* session = QXLogGstAttach(pipeline, NULL);
  const int attached = session != NULL;
  QXLogGstDetach(session);
  gst_object_unref(pipeline);
  return attached ? 0 : 1;
}
