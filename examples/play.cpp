// qxlog-play URI: a headless player that reports its play through the
// GStreamer adapter (qxlog-gst), or with --player mpv through the libmpv
// adapter (qxlog-mpv), and checks that the log server received it.
//
// playbin plays the URI into fake sinks that keep the clock (--fast: as fast
// as it decodes; --show: the real audio and video sinks). As in qxlog-demo, a
// collector runs in this process on a free port of 127.0.0.1 and prints what
// arrives, unless --server points at a running one. The GLib main loop serves
// both the pipeline's bus and the library's main queue (through its
// descriptor). Exit status 0 when the play, its actions and its diagnoses
// arrived.
#include <curl/curl.h>
#include <glib-unix.h>
#include <gst/gst.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "QXLog/QXLog.h"
#include "QXLog/QXLogGst.h"
#ifdef QXLOG_PLAY_WITH_MPV
#include "QXLog/QXLogMpv.h"
#endif
#include "collector/server/LocalCollector.h"
#include "examples/ReceivedCounts.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kUsage = R"(usage: qxlog-play [options] URI

  --player P       gstreamer (default) or mpv (when built with libmpv)
  --show           real audio and video sinks (default: fake sinks)
  --fast           fake sinks that do not wait for the clock
  --type T         video type: 1 film (default), 5 short video, 6 channel
  --server URL     report to the collector at URL (default: start one in this process)
  --key KEY        the logEncryptionKey (default demo-key-0123456; must match the server's)
  --timeout SEC    how long to wait for the reports to arrive after the play (default 20)
  --quiet          do not print the uploads as the embedded collector receives them
  --trace          print the library's console lines on stderr
)";

struct Settings {
  std::string uri;
  std::string given;  // the URI or path as given, for players that take either
  std::string player = "gstreamer";
  bool show = false;
  bool fast = false;
  std::string videoType = "1";
  std::optional<std::string> server;
  std::string key = "demo-key-0123456";
  double timeoutSeconds = 20;
  bool quiet = false;
  bool trace = false;
};

struct Player {
  GstElement* playbin = nullptr;
  GMainLoop* loop = nullptr;
  bool failed = false;
};

// Every play action writes one console line, "Play-log:" from
// recordPlayActionLog or "PlaySession-log:" from the play API the adapter
// uses: how the player knows how many actions to wait for.
struct Console {
  bool trace = false;
  std::atomic<int64_t> playActions{0};
};

void console(const char* line, void* context) {
  auto* state = static_cast<Console*>(context);
  if (std::strncmp(line, "Play-log:", 9) == 0 || std::strncmp(line, "PlaySession-log:", 16) == 0) {
    ++state->playActions;
  }
  if (state->trace) std::fprintf(stderr, "qxlog: %s\n", line);
}

gboolean drainMainQueue(gint /*fd*/, GIOCondition /*condition*/, gpointer /*data*/) {
  QXLogMainQueueDrain();
  return G_SOURCE_CONTINUE;
}

// The host's own part of the bus: buffering pauses the play, the end quits.
void onMessage(GstBus* /*bus*/, GstMessage* message, gpointer data) {
  auto* player = static_cast<Player*>(data);
  switch (GST_MESSAGE_TYPE(message)) {
    case GST_MESSAGE_BUFFERING: {
      gint percent = 100;
      gst_message_parse_buffering(message, &percent);
      gst_element_set_state(player->playbin, percent < 100 ? GST_STATE_PAUSED : GST_STATE_PLAYING);
      break;
    }
    case GST_MESSAGE_ERROR: {
      GError* error = nullptr;
      gst_message_parse_error(message, &error, nullptr);
      std::fprintf(stderr, "qxlog-play: %s\n", error != nullptr ? error->message : "error");
      g_clear_error(&error);
      player->failed = true;
      g_main_loop_quit(player->loop);
      break;
    }
    case GST_MESSAGE_EOS:
      g_main_loop_quit(player->loop);
      break;
    default:
      break;
  }
}

GstElement* fakeSink(bool sync) {
  GstElement* sink = gst_element_factory_make("fakesink", nullptr);
  g_object_set(sink, "sync", sync ? TRUE : FALSE, nullptr);
  return sink;
}

// Plays the URI to its end or its error; false when playbin is missing.
bool play(const Settings& settings, bool& failed) {
  Player player;
  player.playbin = gst_element_factory_make("playbin", nullptr);
  if (player.playbin == nullptr) {
    std::fprintf(stderr, "qxlog-play: no playbin (gstreamer1.0-plugins-base)\n");
    return false;
  }
  g_object_set(player.playbin, "uri", settings.uri.c_str(), nullptr);
  if (!settings.show) {
    g_object_set(player.playbin, "video-sink", fakeSink(!settings.fast), "audio-sink",
                 fakeSink(!settings.fast), nullptr);
  }
  player.loop = g_main_loop_new(nullptr, FALSE);
  GstBus* bus = gst_element_get_bus(player.playbin);
  gst_bus_add_signal_watch(bus);
  const gulong handler = g_signal_connect(bus, "message", G_CALLBACK(onMessage), &player);

  QXLogGstOptions options{"qxlog-play", "command line", settings.videoType.c_str(), false, "0"};
  QXLogGstSession* session = QXLogGstAttach(player.playbin, &options);
  gst_element_set_state(player.playbin, GST_STATE_PLAYING);
  g_main_loop_run(player.loop);
  QXLogGstDetach(session);

  gst_element_set_state(player.playbin, GST_STATE_NULL);
  g_signal_handler_disconnect(bus, handler);
  gst_bus_remove_signal_watch(bus);
  gst_object_unref(bus);
  gst_object_unref(player.playbin);
  g_main_loop_unref(player.loop);
  failed = player.failed;
  return true;
}

#ifdef QXLOG_PLAY_WITH_MPV
// Plays the file or URL headless in an mpv core with the adapter attached, to
// its end or its error, serving the library's main queue meanwhile.
bool playWithMpv(const Settings& settings, bool& failed) {
  mpv_handle* mpv = mpv_create();
  if (mpv == nullptr) {
    std::fprintf(stderr, "qxlog-play: mpv_create failed\n");
    return false;
  }
  mpv_set_option_string(mpv, "vo", settings.show ? "gpu" : "null");
  mpv_set_option_string(mpv, "ao", settings.show ? "auto" : "null");
  if (settings.fast) mpv_set_option_string(mpv, "untimed", "yes");
  mpv_set_option_string(mpv, "idle", "yes");
  if (mpv_initialize(mpv) < 0) {
    std::fprintf(stderr, "qxlog-play: mpv_initialize failed\n");
    mpv_terminate_destroy(mpv);
    return false;
  }
  QXLogMpvOptions options{"qxlog-play", "command line", settings.videoType.c_str(), false, "0"};
  QXLogMpvSession* session = QXLogMpvAttach(mpv, &options);
  const char* load[] = {"loadfile", settings.given.c_str(), nullptr};
  mpv_command(mpv, load);
  for (bool ended = false; !ended;) {
    const mpv_event* event = mpv_wait_event(mpv, 0.01);
    if (event->event_id == MPV_EVENT_END_FILE) {
      const auto* end = static_cast<const mpv_event_end_file*>(event->data);
      if (end->reason == MPV_END_FILE_REASON_ERROR) {
        std::fprintf(stderr, "qxlog-play: %s\n", mpv_error_string(end->error));
        failed = true;
      }
      ended = true;
    }
    while (g_main_context_iteration(nullptr, FALSE)) {
    }
  }
  QXLogMpvDetach(session);
  mpv_terminate_destroy(mpv);
  return true;
}
#endif

// Runs the default main context (the bus and the main queue) for a while.
void serveFor(std::chrono::milliseconds period) {
  const auto until = Clock::now() + period;
  while (Clock::now() < until) {
    if (!g_main_context_iteration(nullptr, FALSE)) g_usleep(10000);
  }
}

bool waitForSettings(const std::string& base, Clock::time_point deadline) {
  for (;;) {
    char* serverTime = QXLogFormatCopyString("current_time");
    QXLogFree(serverTime);
    if (serverTime != nullptr) return true;
    if (Clock::now() > deadline) {
      std::fprintf(stderr, "qxlog-play: no settings answer from %s/settings\n", base.c_str());
      return false;
    }
    serveFor(std::chrono::milliseconds(20));
  }
}

// Waits until the collector holds the play's header, its actions (at least a
// start and an end, and at least `actions` when the library's console counted
// them) and `diagnoses` diagnoses for this device.
bool waitForDelivery(const std::string& receivedUrl, const std::string& type, int64_t actions,
                     int64_t diagnoses, Clock::time_point deadline) {
  using qxlog::examples::count;
  const int64_t least = std::max<int64_t>(actions, 2);
  std::optional<nlohmann::json> received;
  const auto complete = [&] {
    return received && count(*received, "records", type) >= 1 &&
           count(*received, "play_actions", type) >= least &&
           received->value("diagnoses", int64_t{0}) == diagnoses;
  };
  for (;;) {
    serveFor(std::chrono::milliseconds(200));
    received = qxlog::examples::fetchJson(receivedUrl);
    if (complete() || Clock::now() > deadline) break;
  }
  std::printf("\nplay actions received %lld; diagnoses reported %lld, received %lld\n",
              static_cast<long long>(received ? count(*received, "play_actions", type) : 0),
              static_cast<long long>(diagnoses),
              static_cast<long long>(received ? received->value("diagnoses", int64_t{0}) : 0));
  return complete();
}

std::unique_ptr<qxlog::collector::LocalCollector> startCollector(
    const Settings& settings, const std::filesystem::path& scratch) {
  qxlog::collector::LocalCollectorOptions options;
  options.database = (scratch / "collector.db").string();
  options.collector.key = settings.key;
  options.collector.pushIntervalTime = 1000;
  options.collector.pushIntervalNumber = 50;
  options.output =
      settings.quiet ? qxlog::collector::Output::kQuiet : qxlog::collector::Output::kReadable;
  options.name = "collector";
  std::string error;
  auto collector = qxlog::collector::LocalCollector::start(options, error);
  if (!collector)
    std::fprintf(stderr, "qxlog-play: cannot start the collector: %s\n", error.c_str());
  return collector;
}

void setContext(const Settings& settings, const std::string& base, const std::string& device,
                const std::filesystem::path& scratch) {
  QXLogSetDocumentsDirectory((scratch / "Documents").c_str());
  QXLogSetDelivery(QXLogDeliveryAtLeastOnce);
  QXLogFormatSetString("uid", "10086");
  QXLogFormatSetString("idfa", device.c_str());
  QXLogFormatSetString("devModel", "linux-qxlog-play");
  QXLogFormatSetString("softVer", "1.0.0");
  QXLogFormatSetString("logEncryptionKey", settings.key.c_str());
  QXLogFormatSetString("pushUrl", (base + "/settings").c_str());
  QXLogFormatSetString("pushLogUrl", (base + "/log").c_str());
  QXLogFormatSetString("pushDiagnosisUrl", (base + "/diagnosis").c_str());
}

int run(const Settings& settings) {
  namespace fs = std::filesystem;
  char pattern[] = "/tmp/qxlog-play-XXXXXX";
  if (::mkdtemp(pattern) == nullptr) {
    std::perror("qxlog-play: mkdtemp");
    return 1;
  }
  const fs::path scratch = pattern;
  struct RemoveScratch {
    fs::path path;
    ~RemoveScratch() {
      std::error_code ignored;
      fs::remove_all(path, ignored);
    }
  } removeScratch{scratch};

  std::unique_ptr<qxlog::collector::LocalCollector> collector;
  std::string base = settings.server.value_or("");
  if (!settings.server) {
    if (!(collector = startCollector(settings, scratch))) return 1;
    base = collector->baseUrl();
    std::printf("collector listening on %s\n", base.c_str());
  }
  const std::string device =
      "play-" + std::to_string(::getpid()) + "-" + std::to_string(g_get_real_time() / 1000);
  Console state;
  state.trace = settings.trace;
  QXLogSetConsoleHandler(console, &state);
  setContext(settings, base, device, scratch);
  g_unix_fd_add(QXLogMainQueueFileDescriptor(), G_IO_IN, drainMainQueue, nullptr);

  const auto timeout =
      std::chrono::milliseconds(static_cast<int64_t>(settings.timeoutSeconds * 1000));
  QXLogCenterGetLogServerInfo();
  logEnvReady(true);
  if (!waitForSettings(base, Clock::now() + timeout)) return 1;

  bool failed = false;
#ifdef QXLOG_PLAY_WITH_MPV
  if (settings.player == "mpv") {
    if (!playWithMpv(settings, failed)) return 1;
  } else if (!play(settings, failed)) {
    return 1;
  }
#else
  if (!play(settings, failed)) return 1;
#endif
  std::printf("play %s\n", failed ? "failed" : "ended");
  const int64_t diagnoses = failed ? 2 : 1;  // the error's, and the summary
  const bool arrived = waitForDelivery(base + "/received?uid=" + device, settings.videoType,
                                       state.playActions.load(), diagnoses, Clock::now() + timeout);
  std::printf("%s\n", arrived ? "everything arrived" : "NOT everything arrived");
  return arrived ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  gst_init(&argc, &argv);
  Settings settings;
  for (int i = 1; i < argc; ++i) {
    const std::string_view arg = argv[i];
    const bool hasValue = i + 1 < argc;
    if (arg == "--help" || arg == "-h") {
      std::fputs(kUsage, stdout);
      return 0;
    } else if (arg == "--show") {
      settings.show = true;
    } else if (arg == "--fast") {
      settings.fast = true;
    } else if (arg == "--quiet") {
      settings.quiet = true;
    } else if (arg == "--trace") {
      settings.trace = true;
    } else if (arg == "--player" && hasValue) {
      settings.player = argv[++i];
    } else if (arg == "--type" && hasValue) {
      settings.videoType = argv[++i];
    } else if (arg == "--server" && hasValue) {
      settings.server = argv[++i];
    } else if (arg == "--key" && hasValue) {
      settings.key = argv[++i];
    } else if (arg == "--timeout" && hasValue) {
      settings.timeoutSeconds = std::atof(argv[++i]);
    } else if (settings.uri.empty() && !arg.starts_with("-")) {
      settings.uri = arg;
    } else {
      std::fprintf(stderr, "qxlog-play: unexpected argument: %s\n%s", argv[i], kUsage);
      return 2;
    }
  }
  if (settings.uri.empty()) {
    std::fputs(kUsage, stderr);
    return 2;
  }
#ifdef QXLOG_PLAY_WITH_MPV
  const bool mpvBuilt = true;
#else
  const bool mpvBuilt = false;
#endif
  if (settings.player != "gstreamer" && !(settings.player == "mpv" && mpvBuilt)) {
    std::fprintf(stderr, "qxlog-play: no player %s in this build\n", settings.player.c_str());
    return 2;
  }
  settings.given = settings.uri;
  if (gst_uri_is_valid(settings.uri.c_str()) == FALSE) {
    gchar* uri = gst_filename_to_uri(settings.uri.c_str(), nullptr);  // a file path
    if (uri != nullptr) settings.uri = uri;
    g_free(uri);
  }
  curl_global_init(CURL_GLOBAL_DEFAULT);
  const int status = run(settings);
  std::fflush(stdout);
  return status;
}
