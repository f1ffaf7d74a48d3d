// What the sanitizers ignore in the libmpv adapter's tests, and only there:
// libmpv, FFmpeg, libass and fontconfig, and the GStreamer that makes the
// tests' clip are not
// instrumented, so ThreadSanitizer cannot see how they synchronise; reports
// from within them are dropped. Leaks are read with whole stacks, so that
// only blocks that their one-time initialisations keep are ignored.
// mpv_wakeup ends in a tail call to pthread_mutex_unlock on libmpv's own
// wakeup lock, so its frame is gone from the stack and the unlock shows under
// the session's destructor, which holds no mutex of its own: mutex reports
// there are libmpv's.
extern "C" {

const char* __tsan_default_suppressions() {
  return "mutex:qxlog::mpv::MpvSession::~MpvSession\n"
         "called_from_lib:libmpv.so\n"
         "called_from_lib:libfontconfig.so\n"
         "called_from_lib:libfreetype.so\n"
         "called_from_lib:libharfbuzz.so\n"
         "called_from_lib:libplacebo.so\n"
         "called_from_lib:libdav1d.so\n"
         "race_top:libfontconfig.so\n"
         "race_top:libfreetype.so\n"
         "race_top:libass.so\n"
         "mutex:libfontconfig.so\n"
         "called_from_lib:libavcodec.so\n"
         "called_from_lib:libavfilter.so\n"
         "called_from_lib:libavformat.so\n"
         "called_from_lib:libavutil.so\n"
         "called_from_lib:libavdevice.so\n"
         "called_from_lib:libswscale.so\n"
         "called_from_lib:libswresample.so\n"
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
         "deadlock:libmpv.so\n"
         "called_from_lib:libgio-2.0.so\n"
         "called_from_lib:libsoup-2.4.so\n"
         "called_from_lib:libsoup-3.0.so\n"
         "called_from_lib:libgstvideo-1.0.so\n"
         "called_from_lib:libgstaudio-1.0.so\n"
         "called_from_lib:libgstpbutils-1.0.so\n"
         "called_from_lib:libtheoradec.so\n"
         "called_from_lib:libgstplayback.so\n"
         "called_from_lib:libgsttypefindfunctions.so\n"
         "called_from_lib:libgstsoup.so\n"
         "called_from_lib:libgstvideoconvertscale.so\n"
         "called_from_lib:libgstaudioconvert.so\n"
         "called_from_lib:libgstaudioresample.so\n"
         "called_from_lib:libgstvolume.so\n"
         "called_from_lib:libgstmpegtsmux.so\n"
         "called_from_lib:libgstmpegtsdemux.so\n"
         "called_from_lib:libgstlibav.so\n"
         "called_from_lib:libgsthls.so\n"
         "called_from_lib:libgstadaptivedemux2.so\n"
         "called_from_lib:libgstadaptivedemux-1.0.so\n"
         "called_from_lib:libgstvideoparsersbad.so\n"
         "called_from_lib:libgstcodecparsers-1.0.so\n"
         "called_from_lib:libgstmpegts-1.0.so\n"
         "called_from_lib:libgsttag-1.0.so\n"
         "called_from_lib:libgstmultifile.so\n"
         "called_from_lib:libgsturidownloader-1.0.so\n"
         "race_top:libgio-2.0.so\n"
         "race_top:libsoup-2.4.so\n"
         "race_top:libsoup-3.0.so\n"
         "mutex:libsoup-3.0.so\n"
         "race_top:libogg.so\n"
         "race_top:libtheora\n"
         "mutex:libgio\n"
         "mutex:libsoup-\n"
         "race_top:libgio\n"
         "race_top:libproxy\n"
         "called_from_lib:/libproxy.so.1\n"
         "mutex:libproxy\n";
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
