#!/usr/bin/env python3
"""Prints the at-least-once table from qxlog_bench_journal's JSON lines: each
figure, the ratios of the same run and their goals."""
import json
import sys


def main(path):
    rows = [json.loads(line) for line in open(path) if line.strip()]
    reports = [r for r in rows if r["figure"] == "at_least_once_report"]
    batch = next(r for r in rows if r["figure"] == "at_least_once_batch_20")
    base = next(r for r in reports if r["backlog"] == 1)["report_median_us"]
    print("At least once, log server unreachable (times in µs, medians unless marked)")
    print(f"{'L':>6} {'report':>7} {'p90':>6} {'p99':>6} {'floor':>6} {'sqlite':>7} "
          f"{'med/L1':>7} {'p90/L1':>7} {'rep/sql':>8} {'rep/floor':>9} {'bytes/rep':>9} "
          f"{'framed':>6}  goals")
    for r in reports:
        med, p90 = r["report_median_us"], r["report_p90_us"]
        checks = [med <= 1.2 * base, p90 <= 2 * base, med <= 0.5 * r["sqlite_median_us"],
                  med <= 1.5 * r["floor_median_us"],
                  r["write_bytes_per_report"] <= 2 * r["framed_bytes"]]
        print(f"{r['backlog']:>6} {med:>7.2f} {p90:>6.2f} {r['report_p99_us']:>6.2f} "
              f"{r['floor_median_us']:>6.2f} {r['sqlite_median_us']:>7.2f} {med / base:>7.2f} "
              f"{p90 / base:>7.2f} {med / r['sqlite_median_us']:>8.2f} "
              f"{med / r['floor_median_us']:>9.2f} {r['write_bytes_per_report']:>9.1f} "
              f"{r['framed_bytes']:>6}  {'met' if all(checks) else 'NOT MET'}")
    ratio = batch["report_p99_us"] / batch["report_median_us"]
    print(f"Batch size 20, loopback server: median {batch['report_median_us']:.2f}, "
          f"p90 {batch['report_p90_us']:.2f}, p99 {batch['report_p99_us']:.2f}, "
          f"p99/median {ratio:.2f} (goal <= 3: {'met' if ratio <= 3 else 'NOT MET'}), "
          f"unconfirmed after QXLogFlush {batch['unconfirmed_after_flush']}")
    print("Goals per row: median <= 1.2 x L1 median, p90 <= 2 x L1 median, "
          "report <= 0.5 x sqlite, report <= 1.5 x floor, bytes <= 2 x framed")


if __name__ == "__main__":
    main(sys.argv[1])
