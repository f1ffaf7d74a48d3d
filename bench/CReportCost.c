/* The cost of one report from a C host, to set beside the same report made
 * from Python (bench/python_report_cost.py): at least once, the log server
 * unreachable, the median over chunks of reports of the time per report.
 *
 *   qxlog_bench_c_report DOCUMENTS-DIRECTORY [CHUNKS [REPORTS-PER-CHUNK]]
 *
 * Prints one JSON line: {"host": "c", "report_us": ...}. */
#define _POSIX_C_SOURCE 200809L /* clock_gettime */

#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#include "QXLog/QXLog.h"

static double now_us(void) {
  struct timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return (double)t.tv_sec * 1e6 + (double)t.tv_nsec / 1e3;
}

static int by_value(const void* a, const void* b) {
  const double x = *(const double*)a, y = *(const double*)b;
  return (x > y) - (x < y);
}

int main(int argc, char** argv) {
  if (argc < 2) {
    fprintf(stderr, "usage: %s DOCUMENTS-DIRECTORY [CHUNKS [REPORTS-PER-CHUNK]]\n", argv[0]);
    return 2;
  }
  const int chunks = argc > 2 ? atoi(argv[2]) : 21;
  const int per_chunk = argc > 3 ? atoi(argv[3]) : 200;
  if (chunks <= 0 || chunks > 1000 || per_chunk <= 0) return 2;
  QXLogSetDocumentsDirectory(argv[1]);
  QXLogSetDelivery(QXLogDeliveryAtLeastOnce);
  QXLogFormatSetString("uid", "bench");
  QXLogFormatSetString("logEncryptionKey", "bench-key-012345");
  QXLogFormatSetString("pushLogUrl", "http://127.0.0.1:9/log");
  logEnvReady(true);
  recordActionLog("warm.up", "0");

  double* per_report = malloc(sizeof(double) * (size_t)chunks);
  if (per_report == NULL) return 1;
  for (int c = 0; c < chunks; ++c) {
    const double start = now_us();
    for (int i = 0; i < per_chunk; ++i) recordActionLog("bench.action", "7");
    per_report[c] = (now_us() - start) / per_chunk;
  }
  qsort(per_report, (size_t)chunks, sizeof(double), by_value);
  printf("{\"host\": \"c\", \"report_us\": %.3f}\n", per_report[chunks / 2]);
  free(per_report);
  return 0;
}
