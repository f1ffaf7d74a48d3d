"""The Python module against the built library and a real qxlog-collector.

    test_qxlog.py LIBRARY COLLECTOR HEADERS-DIR

Each test that reports runs in a child process of its own: the library's
center lives once per process.
"""

import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import textwrap
import unittest
import urllib.request

LIBRARY, COLLECTOR, HEADERS = sys.argv[1:4]
MODULE_DIR = pathlib.Path(__file__).resolve().parents[2] / "python"
sys.path.insert(0, str(MODULE_DIR))
os.environ["QXLOG_LIBRARY"] = LIBRARY
import qxlog  # noqa: E402

KEY = "python-key-01234"


def header_text(name):
    return (pathlib.Path(HEADERS) / name).read_text()


def c_enum(text, prefix):
    """{NAME_IN_PYTHON: value} of a typedef enum whose members start with `prefix`."""
    values, next_value = {}, 0
    for name, value in re.findall(rf"\b({prefix}\w+)\s*(?:=\s*(\d+))?\s*[,}}/]", text):
        next_value = int(value) if value else next_value
        values[re.sub(r"(?<=[a-z])(?=[A-Z])", "_", name[len(prefix):]).upper()] = next_value
        next_value += 1
    return values


class DeclarationsMatchTheHeaders(unittest.TestCase):
    def test_every_exported_function_is_declared_and_loaded(self):
        exported = set()
        for header in ("QXLog.h", "QXLogPlay.h"):
            exported |= set(re.findall(r"^QXLOG_EXPORT[^;(]*?\b(\w+)\s*\(", header_text(header), re.M))
        self.assertTrue({"recordActionLog", "QXLogPlayBegin"} <= exported, exported)
        self.assertEqual(exported - set(qxlog._FUNCTIONS), set(),
                         "functions of the C interface without a declaration")
        self.assertEqual({name for name in exported if not hasattr(qxlog.library(), name)}, set(),
                         f"not found in {LIBRARY}")

    def test_enums_have_the_headers_values(self):
        for header, prefix, python_enum in [
            ("QXLog.h", "QXLogDelivery", qxlog.Delivery),
            ("QXLog.h", "QXLogBatch", qxlog.BatchOutcome),
            ("QXLogPlayEvents.h", "QXLogPlayOperation", qxlog.PlayOperation),
            ("QXLogPlayEvents.h", "QXLogPlayStatus", qxlog.PlayStatus),
            ("QXLogPlay.h", "QXLogPlayer", qxlog.PlayerState),
        ]:
            with self.subTest(prefix=prefix):
                values = c_enum(header_text(header), prefix)
                self.assertTrue(values, f"no {prefix}* members found")
                self.assertEqual(values, {m.name: int(m) for m in python_enum})


HOST = textwrap.dedent("""
    import json, sys
    import qxlog
    base, documents, key = sys.argv[1:4]
    outcomes = []
    qxlog.set_delivery_handler(lambda o, n, reason: outcomes.append((o.name, n, reason)))
    qxlog.configure(documents=documents, delivery=qxlog.Delivery.AT_LEAST_ONCE,
                    uid="py-host", idfa="py-device", logEncryptionKey=key,
                    pushUrl=base + "/settings", pushLogUrl=base + "/log",
                    pushDiagnosisUrl=base + "/diagnosis")
    assert qxlog.setting("uid") == "py-host"
    qxlog.ready()
    qxlog.record_launch("cold")
    for i in range(5):
        qxlog.record_action(f"python.action.{i}", str(i))
    qxlog.record_network("https://example.com/api", 120, "0")
    with qxlog.Play(movie_id="film-py", url="file:///clip.ogv", video_type="1") as play:
        play_id = play.id
        play.state(qxlog.PlayerState.PLAYING, 0)
        play.state(qxlog.PlayerState.PAUSED, 500)
        play.state(qxlog.PlayerState.PLAYING, 500)
    left = qxlog.flush(10000)
    print(json.dumps({"left": left, "outcomes": outcomes, "play_id": play_id}))
""")


class ReportsFromAPythonHost(unittest.TestCase):
    def test_records_arrive_and_flush_says_so(self):
        with tempfile.TemporaryDirectory() as temporary:
            directory = pathlib.Path(temporary)
            collector = subprocess.Popen(
                [COLLECTOR, "--listen", "127.0.0.1:0", "--db", str(directory / "db"),
                 "--key", KEY, "--push-interval-number", "20", "--quiet"],
                stderr=subprocess.PIPE, text=True)
            try:
                line = collector.stderr.readline()
                base = re.search(r"listening on (http://[\d.:]+)", line)
                self.assertTrue(base, f"collector did not start: {line}")
                env = dict(os.environ, PYTHONPATH=str(MODULE_DIR), QXLOG_CONSOLE="off")
                host = subprocess.run(
                    [sys.executable, "-c", HOST, base[1], str(directory / "docs"), KEY],
                    capture_output=True, text=True, timeout=60, env=env)
                self.assertEqual(host.returncode, 0, host.stderr)
                result = json.loads(host.stdout.strip().splitlines()[-1])
                self.assertEqual(result["left"], 0, result)
                confirmed = sum(n for o, n, _ in result["outcomes"] if o == "CONFIRMED")
                self.assertGreaterEqual(confirmed, 7, result)
                self.assertFalse([o for o in result["outcomes"] if o[0] == "DROPPED"], result)
                with urllib.request.urlopen(f"{base[1]}/received?uid=py-device", timeout=10) as got:
                    received = json.load(got)
                self.assertGreaterEqual(sum(received["records"].values()), 7, received)
                self.assertRegex(result["play_id"], r"^[0-9a-zA-Z-]{8,}$")
            finally:
                collector.terminate()
                collector.wait(timeout=10)
                collector.stderr.close()


class HandlesOutliveTheirUse(unittest.TestCase):
    def test_an_ended_play_refuses_further_calls(self):
        with tempfile.TemporaryDirectory() as temporary:
            qxlog.configure(documents=temporary)
            play = qxlog.Play(movie_id="m")
            play.end()
            play.end()  # a second end is harmless
            with self.assertRaises(ValueError):
                play.state(qxlog.PlayerState.PLAYING)


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0]], verbosity=2)
