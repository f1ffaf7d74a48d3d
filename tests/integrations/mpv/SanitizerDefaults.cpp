// What the sanitizers ignore in the libmpv adapter's tests, and only there:
// libmpv, FFmpeg and the GStreamer that makes the tests' clip are not
// instrumented, so ThreadSanitizer cannot see how they synchronise; reports
// from within them are dropped. Leaks are read with whole stacks, so that
// only blocks that their one-time initialisations keep are ignored.
extern "C" {

const char* __tsan_default_suppressions() {
  return "called_from_lib:libmpv.so\n"
         "called_from_lib:libav\n"
         "called_from_lib:libsw\n"
         "called_from_lib:libass.so\n"
         "called_from_lib:libgstreamer-1.0.so\n"
         "called_from_lib:libgstbase-1.0.so\n"
         "called_from_lib:libglib-2.0.so\n"
         "called_from_lib:libgobject-2.0.so\n"
         "called_from_lib:libogg.so\n"
         "called_from_lib:libtheoraenc.so\n"
         "called_from_lib:libgstvideotestsrc.so\n"
         "called_from_lib:libgsttheora.so\n"
         "called_from_lib:libgstogg.so\n"
         "called_from_lib:libgstcoreelements.so\n"
         "race_top:libmpv.so\n"
         "race_top:libav\n"
         "race_top:libgst\n"
         "race_top:libglib-2.0.so\n"
         "race_top:libgobject-2.0.so\n"
         "mutex:libmpv.so\n"
         "mutex:libav\n"
         "mutex:libgst\n"
         "mutex:libglib-2.0.so\n"
         "deadlock:libmpv.so\n";
}

const char* __asan_default_options() {
  return "fast_unwind_on_malloc=0";
}

const char* __lsan_default_suppressions() {
  return "leak:_dl_init\n"
         "leak:libmpv.so\n"
         "leak:libav\n"
         "leak:libfontconfig\n";
}

}  // extern "C"
