"""QXLog from Python: the library's C interface through ctypes.

    import qxlog
    qxlog.configure(documents="/var/lib/app/Documents", uid="10086",
                    logEncryptionKey=key, pushUrl=base + "/settings",
                    pushLogUrl=base + "/log", pushDiagnosisUrl=base + "/diagnosis",
                    delivery=qxlog.Delivery.AT_LEAST_ONCE)
    qxlog.ready()
    qxlog.record_action("home.open", "0")
    with qxlog.Play(movie_id="film-1", url=url, video_type="1") as play:
        play.state(qxlog.PlayerState.PLAYING, 0)
    qxlog.flush(5000)

The library is found through $QXLOG_LIBRARY, then where the install step
put it (cmake --install --component python writes its path beside the
module), then in the build tree (build/libqxlog.so.1 beside python/), then by
the system's loader. Every function of the C interface is declared once, in _FUNCTIONS;
functions that the loaded library lacks (an older build) raise
AttributeError when called.

Threads: the library calls back (delivery handler, console handler) on the
thread that serves its main queue (drain(), run() or flush()) or, for the
console, on the thread that wrote the line. Python callbacks take the GIL
there, so any thread may serve the queue. A callback may call back into the
library.
"""

import ctypes
import ctypes.util
import enum
import os
import pathlib

__all__ = [
    "Delivery", "BatchOutcome", "PlayOperation", "PlayStatus", "PlayerState",
    "Play", "configure", "ready", "flush", "drain", "run", "stop",
    "set_delivery_handler", "set_console_handler", "library",
]


class Delivery(enum.IntEnum):
    DESCRIBED = 0
    AT_LEAST_ONCE = 1


class BatchOutcome(enum.IntEnum):
    CONFIRMED = 0
    RETRYING = 1
    DROPPED = 2


class PlayOperation(enum.IntEnum):
    START = 1
    END = 2
    PAUSE = 3
    RESUME = 4
    BUFFERING = 5
    SEEK = 6
    FIRST_FRAME = 7
    ERROR = 8
    QUALITY_CHANGE = 9

    @property
    def text(self):
        return str(int(self))


class PlayStatus(enum.IntEnum):
    STOPPED = 0
    PLAYING = 1
    PAUSED = 2
    BUFFERING = 3
    FAILED = 4

    @property
    def text(self):
        return str(int(self))


class PlayerState(enum.IntEnum):
    STARTING = 0
    PLAYING = 1
    PAUSED = 2
    BUFFERING = 3
    SEEKING = 4


class _PlayInfo(ctypes.Structure):
    _fields_ = [
        ("movie_id", ctypes.c_char_p),
        ("url", ctypes.c_char_p),
        ("view_source", ctypes.c_char_p),
        ("video_type", ctypes.c_char_p),
        ("is_download", ctypes.c_bool),
        ("is_pcdn", ctypes.c_char_p),
    ]


_str = ctypes.c_char_p
_ptr = ctypes.c_void_p
_DeliveryHandler = ctypes.CFUNCTYPE(None, ctypes.c_int, ctypes.c_size_t, _str, _ptr)
_ConsoleHandler = ctypes.CFUNCTYPE(None, _str, _ptr)
_Task = ctypes.CFUNCTYPE(None, _ptr)
_Post = ctypes.CFUNCTYPE(None, _Task, _ptr, ctypes.c_uint64, _ptr)

# name: (result, argument types). Strings the library returns for the caller
# to free come back as c_void_p and are freed with QXLogFree.
_FUNCTIONS = {
    "logEnvReady": (None, [ctypes.c_bool]),
    "currentTime": (_ptr, []),
    "put": (None, [_ptr, _str, _str]),
    "recordLaunchLog": (None, [_str]),
    "recordLaunchLogWithPushId": (None, [_str, _str]),
    "recordActionLog": (None, [_str, _str]),
    "recordBehaviorLog": (None, [_ptr, _str, ctypes.c_bool]),
    "recordNetworkLog": (None, [_str, ctypes.c_int64, _str]),
    "recordDownLog": (None, [_str] * 6),
    "recordDiagnosLog": (None, [_str] * 8),
    "recordDiagnosCompleteLog": (None, [_ptr]),
    "recordPlayLog": (None, [_str, _str, _str, ctypes.c_bool, _str, _str]),
    "recordMoviePlayLog": (None, [_str, _str, _str, ctypes.c_bool, _str]),
    "recordSmallPlayLog": (None, [_str, _str, _str, ctypes.c_bool, _str]),
    "recordChannelPlayLog": (None, [_str, _str, _str, ctypes.c_bool, _str]),
    "recordPlayActionLog": (None, [_str] * 7),
    "recordPlayTrailerLog": (None, [_str] * 7),
    "QXLogDictionaryCreate": (_ptr, []),
    "QXLogDictionaryCreateWithJSON": (_ptr, [_str]),
    "QXLogDictionaryCopyJSON": (_ptr, [_ptr]),
    "QXLogDictionaryRelease": (None, [_ptr]),
    "QXLogFree": (None, [_ptr]),
    "QXLogFormatSetString": (None, [_str, _str]),
    "QXLogFormatCopyString": (_ptr, [_str]),
    "QXLogFormatSetIsDev": (None, [ctypes.c_bool]),
    "QXLogSetScreenScale": (None, [ctypes.c_double]),
    "QXLogCenterGetLogServerInfo": (None, []),
    "QXLogCenterSaveActionStartTime": (None, [_str]),
    "QXLogSetDocumentsDirectory": (None, [_str]),
    "QXLogSetConsoleHandler": (None, [_ConsoleHandler, _ptr]),
    "QXLogSetDelivery": (None, [ctypes.c_int]),
    "QXLogSetQueueLimit": (None, [ctypes.c_size_t]),
    "QXLogSetDeliveryHandler": (None, [_DeliveryHandler, _ptr]),
    "QXLogMainQueueDrain": (None, []),
    "QXLogMainQueueRun": (None, []),
    "QXLogMainQueueStop": (None, []),
    "QXLogMainQueueFileDescriptor": (ctypes.c_int, []),
    "QXLogSetMainQueueExecutor": (None, [_Post, _ptr]),
    "QXLogFlush": (ctypes.c_int, [ctypes.c_int64]),
    "QXLogPlayBegin": (_ptr, [ctypes.POINTER(_PlayInfo)]),
    "QXLogPlaySetState": (None, [_ptr, ctypes.c_int, ctypes.c_int64]),
    "QXLogPlayRendition": (None, [_ptr, ctypes.c_int, ctypes.c_int64]),
    "QXLogPlayError": (None, [_ptr, _str]),
    "QXLogPlayEnd": (None, [_ptr]),
    "QXLogPlayId": (_str, [_ptr]),
    "QXLogPlayOperationString": (_str, [ctypes.c_int]),
    "QXLogPlayStatusString": (_str, [ctypes.c_int]),
}

# Format properties that configure() sets as text; anything else by name
# goes to QXLogFormatSetString too, which traces names it does not know.
_SPECIAL_SETTINGS = ("documents", "delivery", "queue_limit", "is_dev", "screen_scale")


def _candidates():
    explicit = os.environ.get("QXLOG_LIBRARY")
    if explicit:
        yield explicit
        return
    try:  # written by the install step: where the library went
        from . import _location
        yield _location.LIBRARY
    except ImportError:
        pass
    # Build tree: python/qxlog -> build/.
    here = pathlib.Path(__file__).resolve().parent
    yield str(here.parents[1] / "build" / "libqxlog.so.1")
    found = ctypes.util.find_library("qxlog")
    if found:
        yield found


def _load():
    errors = []
    for path in _candidates():
        if os.path.sep in path and not os.path.exists(path):
            continue
        try:
            return ctypes.CDLL(path)
        except OSError as error:
            errors.append(f"{path}: {error}")
    raise OSError("libqxlog not found; set QXLOG_LIBRARY to libqxlog.so.1"
                  + ("".join("\n  " + e for e in errors)))


class _Library:
    """The loaded library with every function's signature declared."""

    def __init__(self, cdll):
        self.cdll = cdll
        for name, (result, arguments) in _FUNCTIONS.items():
            try:
                function = getattr(cdll, name)
            except AttributeError:
                continue
            function.restype = result
            function.argtypes = arguments
            setattr(self, name, function)

    def __getattr__(self, name):
        if name in _FUNCTIONS:
            raise AttributeError(f"{name} is not in the loaded libqxlog")
        raise AttributeError(name)

    def take_string(self, pointer):
        """A string the library allocated, freed here; None for NULL."""
        if not pointer:
            return None
        try:
            return ctypes.string_at(pointer).decode("utf-8")
        finally:
            self.QXLogFree(pointer)


_library = None
# Callbacks handed to the library must outlive every call the library makes.
_delivery_callback = None
_console_callback = None


def library():
    """The declared C interface (loaded on first use)."""
    global _library
    if _library is None:
        _library = _Library(_load())
    return _library


def _text(value):
    if value is None:
        return None
    if isinstance(value, bytes):
        return value
    return str(value).encode("utf-8")


def configure(**settings):
    """Sets the host's context before the first report.

    Keywords: documents (the Documents directory), delivery (a Delivery),
    queue_limit, is_dev, screen_scale, and any string property of the format
    object by its name (uid, idfa, logEncryptionKey, pushUrl, pushLogUrl,
    pushDiagnosisUrl, ...). None sets a property to nil.
    """
    lib = library()
    if "documents" in settings:
        lib.QXLogSetDocumentsDirectory(_text(settings["documents"]))
    if "delivery" in settings:
        lib.QXLogSetDelivery(int(Delivery(settings["delivery"])))
    if "queue_limit" in settings:
        lib.QXLogSetQueueLimit(int(settings["queue_limit"]))
    if "is_dev" in settings:
        lib.QXLogFormatSetIsDev(bool(settings["is_dev"]))
    if "screen_scale" in settings:
        lib.QXLogSetScreenScale(float(settings["screen_scale"]))
    for name, value in settings.items():
        if name not in _SPECIAL_SETTINGS:
            lib.QXLogFormatSetString(_text(name), _text(value))


def setting(name):
    """A string property of the format object; None when nil or unknown."""
    lib = library()
    return lib.take_string(lib.QXLogFormatCopyString(_text(name)))


def ready(value=True, ask_settings=True):
    """Declares the context ready; by default asks the settings endpoint first."""
    lib = library()
    if ask_settings and value:
        lib.QXLogCenterGetLogServerInfo()
    lib.logEnvReady(bool(value))


def current_time():
    lib = library()
    return lib.take_string(lib.currentTime())


def set_delivery_handler(handler):
    """handler(outcome: BatchOutcome, records: int, reason: str), or None.

    Runs on the thread that serves the main queue.
    """
    global _delivery_callback
    lib = library()
    if handler is None:
        lib.QXLogSetDeliveryHandler(ctypes.cast(None, _DeliveryHandler), None)
        _delivery_callback = None
        return

    def call(outcome, records, reason, _context):
        handler(BatchOutcome(outcome), int(records), (reason or b"").decode("utf-8", "replace"))

    callback = _DeliveryHandler(call)
    lib.QXLogSetDeliveryHandler(callback, None)
    _delivery_callback = callback


def set_console_handler(handler):
    """handler(line: str) receives every console line; None restores stderr."""
    global _console_callback
    lib = library()
    if handler is None:
        lib.QXLogSetConsoleHandler(ctypes.cast(None, _ConsoleHandler), None)
        _console_callback = None
        return
    callback = _ConsoleHandler(lambda line, _c: handler((line or b"").decode("utf-8", "replace")))
    lib.QXLogSetConsoleHandler(callback, None)
    _console_callback = callback


def flush(timeout_ms=5000):
    """Submits what is queued now and waits for the answers; the number of
    records still not confirmed (0: everything arrived)."""
    return int(library().QXLogFlush(int(timeout_ms)))


def drain():
    library().QXLogMainQueueDrain()


def run():
    library().QXLogMainQueueRun()


def stop():
    library().QXLogMainQueueStop()


class Dictionary:
    """A library dictionary, for record_behavior and record_diagnosis_complete."""

    def __init__(self, values=None):
        lib = library()
        self._handle = lib.QXLogDictionaryCreate()
        for key, value in (values or {}).items():
            lib.put(self._handle, _text(key), _text(value))

    @property
    def handle(self):
        return self._handle

    def json(self):
        lib = library()
        return lib.take_string(lib.QXLogDictionaryCopyJSON(self._handle))

    def __del__(self):
        if getattr(self, "_handle", None) and _library is not None:
            _library.QXLogDictionaryRelease(self._handle)
            self._handle = None


def _reporter(name, doc):
    def report(*arguments):
        converted = [a.handle if isinstance(a, Dictionary) else
                     a if isinstance(a, (bool, int)) else _text(a) for a in arguments]
        getattr(library(), name)(*converted)
    report.__name__ = name
    report.__doc__ = doc
    return report


record_launch = _reporter("recordLaunchLog", "record_launch(launch_log)")
record_launch_with_push_id = _reporter("recordLaunchLogWithPushId",
                                       "record_launch_with_push_id(launch_log, push_id)")
record_action = _reporter("recordActionLog", "record_action(action, movie_index)")
record_behavior = _reporter("recordBehaviorLog", "record_behavior(Dictionary, url, diagnosis)")
record_network = _reporter("recordNetworkLog", "record_network(network_log, waste_ms, error_code)")
record_download = _reporter("recordDownLog", "record_download(down_log, movie_url, movie_name, "
                            "data_amount, storage_path, downs_state)")
record_diagnosis = _reporter("recordDiagnosLog", "record_diagnosis(diagnosis_log, cause, "
                             "play_start_time, end_time, prepare_time, duration, is_play_ok, "
                             "definition)")
record_diagnosis_complete = _reporter("recordDiagnosCompleteLog",
                                      "record_diagnosis_complete(Dictionary)")
record_play = _reporter("recordPlayLog", "record_play(movie_id, play_log, view_source, "
                        "is_download, is_pcdn, video_type)")
record_play_action = _reporter("recordPlayActionLog", "record_play_action(operation, status, "
                               "start_time, end_time, start_position, end_position, play_time)")


class Play:
    """One play through the play API; a context manager that ends the play.

    Any number of plays at once, from any thread.
    """

    def __init__(self, movie_id=None, url=None, view_source=None, video_type="1",
                 is_download=False, is_pcdn="0"):
        self._info = _PlayInfo(_text(movie_id), _text(url), _text(view_source),
                               _text(video_type), bool(is_download), _text(is_pcdn))
        self._handle = library().QXLogPlayBegin(ctypes.byref(self._info))
        if not self._handle:
            raise RuntimeError("the library refused the play")

    @property
    def id(self):
        self._check()
        value = library().QXLogPlayId(self._handle)
        return value.decode("utf-8") if value else None

    def state(self, state, position_ms=0):
        self._check()
        library().QXLogPlaySetState(self._handle, int(PlayerState(state)), int(position_ms))

    def rendition(self, height, bitrate_bps):
        self._check()
        library().QXLogPlayRendition(self._handle, int(height), int(bitrate_bps))

    def error(self, cause):
        self._check()
        library().QXLogPlayError(self._handle, _text(cause))

    def end(self):
        """Ends the play and frees it; further calls raise."""
        if self._handle:
            handle, self._handle = self._handle, None
            library().QXLogPlayEnd(handle)

    def _check(self):
        if not self._handle:
            raise ValueError("the play has ended")

    def __enter__(self):
        return self

    def __exit__(self, kind, value, traceback):
        if kind is not None and self._handle:
            self.error(f"{kind.__name__}: {value}")
        self.end()
        return False
