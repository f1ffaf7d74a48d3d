#!/usr/bin/env python3
"""The cost of one report from a Python host through the qxlog module, to set
beside the same report from C (bench/CReportCost.c): at least once, the log
server unreachable, the median over chunks of reports of the time per report.

    python_report_cost.py LIBRARY DOCUMENTS-DIRECTORY [CHUNKS [REPORTS-PER-CHUNK]]

Prints one JSON line: {"host": "python", "report_us": ...}.
"""
import json
import os
import pathlib
import statistics
import sys
import time

library, documents = sys.argv[1:3]
chunks = int(sys.argv[3]) if len(sys.argv) > 3 else 21
per_chunk = int(sys.argv[4]) if len(sys.argv) > 4 else 200
os.environ["QXLOG_LIBRARY"] = library
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "python"))
import qxlog  # noqa: E402

qxlog.configure(documents=documents, delivery=qxlog.Delivery.AT_LEAST_ONCE, uid="bench",
                logEncryptionKey="bench-key-012345", pushLogUrl="http://127.0.0.1:9/log")
qxlog.ready(ask_settings=False)
qxlog.record_action("warm.up", "0")

per_report = []
for _ in range(chunks):
    start = time.perf_counter()
    for _ in range(per_chunk):
        qxlog.record_action("bench.action", "7")
    per_report.append((time.perf_counter() - start) * 1e6 / per_chunk)
print(json.dumps({"host": "python", "report_us": round(statistics.median(per_report), 3)}))
