// What the sanitizers ignore in the GStreamer adapter's tests, and only there:
// GLib and GStreamer are not instrumented. ThreadSanitizer cannot see how they
// synchronise, so reports from within their libraries are dropped. Leaks are
// read with whole stacks, so that only blocks that GLib's constructor and
// playbin's finalisation and the HTTP source's thread (a read cancelled in a
// stall) leave unreachable at exit are ignored.
extern "C" {

const char* __tsan_default_suppressions() {
  return "called_from_lib:libgstreamer-1.0.so\n"
         "called_from_lib:libgstbase-1.0.so\n"
         "called_from_lib:libglib-2.0.so\n"
         "called_from_lib:libgobject-2.0.so\n";
}

const char* __asan_default_options() {
  return "fast_unwind_on_malloc=0";
}

const char* __lsan_default_suppressions() {
  return "leak:_dl_init\n"
         "leak:libgstplayback.so\n"
         "leak:libgstsoup.so\n";
}

}  // extern "C"
