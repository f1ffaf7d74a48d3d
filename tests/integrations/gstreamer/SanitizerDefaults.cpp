// What the sanitizers ignore in the GStreamer adapter's tests, and only there:
// GLib, GStreamer and the codecs (FFmpeg's too) are not instrumented. ThreadSanitizer cannot see
// how they synchronise (GLib's one-time initialisations, its futex mutexes), so reports from within
// their libraries are dropped: races whose top frame is theirs, or that their calls into the C
// library make; their mutex misuses. Leaks are read with whole stacks, so that only blocks that
// GLib's constructor, the plugin registry's interned names (GLib never frees them) and playbin's
// finalisation and the HTTP source's thread (a read cancelled in a stall) leave unreachable at exit
// are ignored.
extern "C" {

const char* __tsan_default_suppressions() {
  return "called_from_lib:libgstreamer-1.0.so\n"
         "called_from_lib:libgstbase-1.0.so\n"
         "called_from_lib:libglib-2.0.so\n"
         "called_from_lib:libgobject-2.0.so\n"
         "called_from_lib:libgio-2.0.so\n"
         "called_from_lib:libsoup-2.4.so\n"
         "called_from_lib:libsoup-3.0.so\n"
         "called_from_lib:libgstvideo-1.0.so\n"
         "called_from_lib:libgstaudio-1.0.so\n"
         "called_from_lib:libgstpbutils-1.0.so\n"
         "called_from_lib:libogg.so\n"
         "called_from_lib:libtheoraenc.so\n"
         "called_from_lib:libtheoradec.so\n"
         "called_from_lib:libgstvideotestsrc.so\n"
         "called_from_lib:libgsttheora.so\n"
         "called_from_lib:libgstogg.so\n"
         "called_from_lib:libgstcoreelements.so\n"
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
         "called_from_lib:libavcodec.so\n"
         "called_from_lib:libavutil.so\n"
         "called_from_lib:libavformat.so\n"
         "called_from_lib:libgsthls.so\n"
         "called_from_lib:libgstadaptivedemux2.so\n"
         "called_from_lib:libgstadaptivedemux-1.0.so\n"
         "called_from_lib:libgstvideoparsersbad.so\n"
         "called_from_lib:libgstcodecparsers-1.0.so\n"
         "called_from_lib:libgstmpegts-1.0.so\n"
         "called_from_lib:libgsttag-1.0.so\n"
         "called_from_lib:libgstmultifile.so\n"
         "called_from_lib:libgsturidownloader-1.0.so\n"
         "race_top:libgst\n"
         "race_top:libglib-2.0.so\n"
         "race_top:libgobject-2.0.so\n"
         "race_top:libgio-2.0.so\n"
         "race_top:libsoup-2.4.so\n"
         "race_top:libsoup-3.0.so\n"
         "mutex:libsoup-3.0.so\n"
         "race_top:libogg.so\n"
         "race_top:libtheora\n"
         "race_top:libav\n"
         "mutex:libav\n"
         "mutex:libgst\n"
         "mutex:libglib-2.0.so\n"
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
         "leak:gst_update_registry\n"
         "leak:libgstplayback.so\n"
         "leak:libgstsoup.so\n";
}

}  // extern "C"
