#!/usr/bin/env python3
"""Prints the benchmark table from the results directory that bench.sh fills."""
import glob
import json
import os
import re
import sys


def medians(path):
    with open(path) as f:
        suite = json.load(f)
    # The median aggregate of each benchmark, or its single run when it ran once.
    found = {}
    for run in suite["benchmarks"]:
        name = run["run_name"]
        if run.get("aggregate_name") == "median" or (
                run.get("run_type") == "iteration" and name not in found):
            found[name] = run
    return found


def leak_summary(path):
    with open(path) as f:
        text = f.read()
    in_use = re.search(r"in use at exit: ([\d,]+) bytes in ([\d,]+) blocks", text)
    lost = re.search(r"definitely lost: ([\d,]+) bytes", text)
    number = lambda m, i=1: int(m.group(i).replace(",", "")) if m else 0
    return number(in_use), number(in_use, 2), number(lost)


# What is in flight when the host exits (an upload's task, an answer, a
# timer) varies from run to run by up to about 20 KiB at any number of
# reports; growth with the number of reports would exceed this at 10 times
# the reports.
SLACK = 32 * 1024


def main():
    out = sys.argv[1]
    suite = medians(os.path.join(out, "suite.json"))
    rows = []

    def row(figure, value, limit, ratio, goal, ok, cpu=""):
        rows.append((figure, value, limit, ratio, goal, "pass" if ok else "FAIL" if ok is not None else "",
                     cpu))

    for n in (1, 20, 100, 500):
        r = suite[f"StoreVsFloor/{n}"]
        ratio = r["store_us"] / r["floor_us"]
        row(f"1 store, L={n}", f"{r['store_us']:.0f} us (p90 {r['store_p90_us']:.0f})",
            f"floor {r['floor_us']:.0f} us (p90 {r['floor_p90_us']:.0f})",
            f"{ratio:.2f}", "<= 1.30", ratio <= 1.30,
            f"{r['store_cpu_us']:.0f} / {r['floor_cpu_us']:.0f} us = "
            f"{r['store_cpu_us'] / r['floor_cpu_us']:.2f}")
        tail = r["store_p90_us"] / r["floor_us"]
        row(f"1 store p90, L={n}", f"{r['store_p90_us']:.0f} us", f"floor median {r['floor_us']:.0f} us",
            f"{tail:.2f}", "<= 2.00", tail <= 2.0)
        old = r["rename_us"] / r["floor_us"]
        row(f"1 old rename, L={n}", f"{r['rename_us']:.0f} us (p90 {r['rename_p90_us']:.0f})",
            f"floor {r['floor_us']:.0f} us", f"{old:.2f}", "(reference)", None)
        db = r["store_us"] / r["sqlite_us"]
        row(f"1 store vs SQLite, L={n}", f"{r['store_us']:.0f} us",
            f"insert {r['sqlite_us']:.0f} us (p90 {r['sqlite_p90_us']:.0f})", f"{db:.2f}",
            "<= 2.00" if n <= 100 else "(reported)", db <= 2.0 if n <= 100 else None)
    for n in (1, 20, 100, 500):
        r = suite[f"EnvelopeVsGzip/{n}"]
        ratio = r["envelope_us"] / r["gzip_us"]
        row(f"2 envelope, {n} rec", f"{r['envelope_us']:.1f} us", f"gzip {r['gzip_us']:.1f} us",
            f"{ratio:.2f}", "<= 1.25", ratio <= 1.25,
            f"{r['envelope_cpu_us']:.1f} / {r['gzip_cpu_us']:.1f} us = "
            f"{r['envelope_cpu_us'] / r['gzip_cpu_us']:.2f}")
    for n in (100, 500):
        j, g = suite.get(f"Json/{n}"), suite[f"EnvelopeVsGzip/{n}"]
        if j:
            share = j["cpu_time"] / g["gzip_cpu_us"]
            row(f"2 of which JSON, {n} rec", f"{j['cpu_time']:.1f} us", f"gzip {g['gzip_cpu_us']:.1f} us",
                f"{share:.2f}", "(breakdown)", None, "thread CPU")
    r = suite["ReportWithUpload"]
    parts = r["store_l1_us"] + r["envelope_1_us"]
    ratio = r["report_us"] / parts
    cpu_parts = r["store_l1_cpu_us"] + r["envelope_1_cpu_us"]
    row("3 report + upload, batch 1", f"{r['report_us']:.0f} us",
        f"store L=1 + env 1: {parts:.0f} us", f"{ratio:.2f}", "<= 1.30", ratio <= 1.30,
        f"{r['report_cpu_us']:.0f} / {cpu_parts:.0f} us = {r['report_cpu_us'] / cpu_parts:.2f}")
    cold, parse = suite["ColdStart"], suite["LibplistParse"]
    ratio = cold["real_time"] / parse["real_time"]
    row("4 cold start, 500 rec", f"{cold['real_time']:.0f} us",
        f"libplist {parse['real_time']:.0f} us", f"{ratio:.2f}", "(reported)", None)

    p = suite.get("PlayEventVsAction")
    if p:
        ratio = p["play_event_us"] / p["play_action_us"]
        row("7 play event (API)", f"{p['play_event_us']:.0f} us (p90 {p['play_event_p90_us']:.0f})",
            f"recordPlayActionLog {p['play_action_us']:.0f} us", f"{ratio:.2f}", "<= 1.00",
            ratio <= 1.0,
            f"{p['play_event_cpu_us']:.0f} / {p['play_action_cpu_us']:.0f} us = "
            f"{p['play_event_cpu_us'] / p['play_action_cpu_us']:.2f}")

    def runs(name):
        with open(os.path.join(out, name)) as f:
            return [json.loads(line) for line in f if line.strip()]

    memory = sorted(runs("memory.jsonl"), key=lambda h: h["records"])
    hosts = runs("throughput.jsonl")
    if len(memory) >= 2:
        small, large = memory[-2], memory[-1]
        ratio = large["peak_rss_kb"] / small["peak_rss_kb"]
        row(f"5 peak RSS, {large['records']} rep",
            f"{large['peak_rss_kb'] / 1024:.1f} MiB",
            f"{small['records']} rep: {small['peak_rss_kb'] / 1024:.1f} MiB", f"{ratio:.2f}",
            "(reported)", None, "push timers: see README")
    logs = sorted(glob.glob(os.path.join(out, "valgrind-*.log")),
                  key=lambda p: int(re.search(r"-(\d+)\.log", p).group(1)))
    if len(logs) >= 2:
        (a_bytes, a_blocks, a_lost), (b_bytes, b_blocks, b_lost) = map(leak_summary, logs[:2])
        na = re.search(r"-(\d+)\.log", logs[0]).group(1)
        nb = re.search(r"-(\d+)\.log", logs[1]).group(1)
        row(f"5 heap at exit, {nb} rep", f"{b_bytes} B / {b_blocks} blk",
            f"{na} rep: {a_bytes} B / {a_blocks} blk", f"lost {a_lost + b_lost} B",
            "no leak, no growth", a_lost == 0 and b_lost == 0 and b_bytes <= a_bytes + SLACK)
    for batch in (1, 20, 100):
        runs = [h for h in hosts if h["batch"] == batch]
        if runs:  # one run per batch size
            h = runs[0]
            row(f"6 throughput, batch {batch}", f"{h['reports_per_second']:.0f} reports/s",
                f"{h['records']} rep, {h['uploads']} uploads", "", "(context)", None)

    if os.path.exists(os.path.join(out, "languages.jsonl")):
        with open(os.path.join(out, "languages.jsonl")) as f:
            hosts_by_language = {h["host"]: h for h in map(json.loads, filter(str.strip, f))}
        c, py = hosts_by_language.get("c"), hosts_by_language.get("python")
        if c and py:
            ratio = py["report_us"] / c["report_us"]
            row("8 report from Python", f"{py['report_us']:.1f} us", f"from C {c['report_us']:.1f} us",
                f"{ratio:.2f}", "<= 3.00", ratio <= 3.0)

    rows = [r if len(r) == 7 else r + ("",) for r in rows]
    header = ("figure", "median", "limit (same run)", "ratio", "goal", "", "thread CPU (context)")
    widths = [max(len(str(r[i])) for r in rows + [header]) for i in range(7)]
    line = lambda r: "| " + " | ".join(str(c).ljust(w) for c, w in zip(r, widths)) + " |"
    print(line(header))
    print("|" + "|".join("-" * (w + 2) for w in widths) + "|")
    for r in rows:
        print(line(r))


if __name__ == "__main__":
    main()
