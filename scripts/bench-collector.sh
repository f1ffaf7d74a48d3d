#!/usr/bin/env bash
# The collector's throughput and the dashboard's queries, in one run:
#   - records/s and uploads/s of one collector on SQLite, and of one, two and
#     four collectors on one PostgreSQL behind nginx, under the same load
#     (sealed uploads of 20 records sent from several processes at once);
#   - every dashboard query on a store of 1 million records, SQLite and
#     PostgreSQL (best and worst of five, in ms);
#   - the collector's resident memory before and after settings requests of
#     120 000 distinct uids.
# PostgreSQL runs as a throwaway server with fsync on, like SQLite's WAL.
#   scripts/bench-collector.sh
# Environment:
#   QXLOG_BENCH_BUILD          build directory (default build-release)
#   QXLOG_BENCH_DIR            where the SQLite files go; a disk, not tmpfs
#                              (default <build>/collector-bench)
#   QXLOG_BENCH_PROCESSES      load processes (default 8)
#   QXLOG_BENCH_UPLOADS        uploads per process (default 250)
#   QXLOG_BENCH_QUERY_RECORDS  records of the query runs (default 1000000)
#   QXLOG_BENCH_UIDS           distinct uids of the memory run (default 120000)
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh >&2
build="${QXLOG_BENCH_BUILD:-build-release}"
if [[ ! -f "$build/CMakeCache.txt" ]]; then
  cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DQXLOG_BUILD_TESTS=OFF >/dev/null
fi
cmake -S . -B "$build" -DQXLOG_BUILD_BENCH=ON >/dev/null
cmake --build "$build" -j 2 --target qxlog-collector qxlog_collector_load qxlog_store_queries >&2

processes="${QXLOG_BENCH_PROCESSES:-8}"
uploads="${QXLOG_BENCH_UPLOADS:-250}"
query_records="${QXLOG_BENCH_QUERY_RECORDS:-1000000}"
key=0123456789abcdef
work="${QXLOG_BENCH_DIR:-$PWD/$build/collector-bench}"
rm -rf "$work"
mkdir -p "$work"

pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  wait 2>/dev/null || true
  scripts/nginx-collectors.sh stop "$work/nginx" || true
  scripts/pg-test-server.sh stop "$work/pg" >/dev/null 2>&1 || true
}
trap cleanup EXIT

QXLOG_PG_FSYNC=on scripts/pg-test-server.sh start "$work/pg" >/dev/null
pg_uri=$(cat "$work/pg/uri" 2>/dev/null || true)
[[ -n "$pg_uri" ]] || { echo "bench-collector: PostgreSQL is needed" >&2; exit 1; }
psql_run() { psql "$pg_uri" -qAtc "$1" >/dev/null; }
db_uri() { echo "${pg_uri/\/postgres\?//$1?}"; }

free_port() { python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])'; }

wait_port() {
  for _ in $(seq 200); do
    if (echo >"/dev/tcp/127.0.0.1/$1") 2>/dev/null; then return 0; fi
    sleep 0.05
  done
  echo "bench-collector: nothing listens on $1" >&2
  return 1
}

# Starts a collector on database $1; its port in $port.
start_collector() {
  port=$(free_port)
  "$build/collector/qxlog-collector" --quiet --listen "127.0.0.1:$port" --key "$key" \
    --db "$1" --trusted-proxy 127.0.0.1 --max-client-connections 64 \
    >/dev/null 2>>"$work/collectors.log" &
  pids+=($!)
  wait_port "$port"
}

# nginx on a free port in front of the given collector ports; its port in $port.
start_nginx() {
  scripts/nginx-collectors.sh stop "$work/nginx"
  port=$(free_port)
  scripts/nginx-collectors.sh start "$work/nginx" "$port" "$@"
}

stop_collectors() {
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  for pid in "${pids[@]}"; do wait "$pid" 2>/dev/null || true; done
  pids=()
}

load() { "$build/bench/qxlog_collector_load" "$1" "$processes" "$uploads" 20 "$key" "$2" || true; }

# Resident memory of the collector with pid $1, in kB.
rss() { awk '/^VmRSS/ {print $2}' "/proc/$1/status"; }

declare -A result
uids="${QXLOG_BENCH_UIDS:-120000}"
start_collector "$work/settings.db"
rss_before=$(rss "${pids[-1]}")
settings=$("$build/bench/qxlog_collector_load" "$port" 8 $((uids / 8)) 0 "$key" uid || true)
rss_after=$(rss "${pids[-1]}")
stop_collectors

start_collector "$work/sqlite.db"
result[sqlite]=$(load "$port" sqlite)
stop_collectors

for n in 1 2 4; do
  psql_run "CREATE DATABASE bench_$n"
  ports=()
  for _ in $(seq "$n"); do
    start_collector "$(db_uri "bench_$n")"
    ports+=("$port")
  done
  start_nginx "${ports[@]}"
  result[pg$n]=$(load "$port" "pg$n")
  stop_collectors
done

field() { awk -v k="$2" '{for (i = 1; i < NF; i++) if ($i == k) print $(i + 1)}' <<<"$1"; }
echo
echo "Collector throughput: $processes load processes x $uploads uploads of 20 records"
printf '%-32s %10s %10s %6s\n' "setup" "records/s" "uploads/s" "503s"
for row in "sqlite:1 collector, SQLite" "pg1:1 collector, PostgreSQL, nginx" \
  "pg2:2 collectors, PostgreSQL, nginx" "pg4:4 collectors, PostgreSQL, nginx"; do
  k=${row%%:*}
  printf '%-32s %10s %10s %6s\n' "${row#*:}" "$(field "${result[$k]}" records/s)" \
    "$(field "${result[$k]}" uploads/s)" "$(field "${result[$k]}" 503s)"
done
sqlite_rate=$(field "${result[sqlite]}" records/s)
pg2_rate=$(field "${result[pg2]}" records/s)
ratio=$(python3 -c "print(f'{$pg2_rate / $sqlite_rate:.2f}')")
verdict=$(python3 -c "print('met' if $pg2_rate >= 1.5 * $sqlite_rate else 'NOT met')")
echo "2 collectors on PostgreSQL / 1 on SQLite: $ratio (goal >= 1.5: $verdict)"

echo
growth=$(((rss_after - rss_before) / 1024))
echo "Settings requests of $uids distinct uids (SQLite): $(awk '{print $8}' <<<"$settings") requests/s;" \
  "resident ${rss_before} kB before, ${rss_after} kB after: +${growth} MB" \
  "(goal < 20 MB: $([[ $growth -lt 20 ]] && echo met || echo 'NOT met'))"

echo
echo "Dashboard queries at $query_records records (ms, best / worst of 5; goal < 1000)"
psql_run "CREATE DATABASE queries"
"$build/bench/qxlog_store_queries" "$work/queries.db" "$query_records" >"$work/queries-sqlite.txt"
"$build/bench/qxlog_store_queries" "$(db_uri queries)" "$query_records" >"$work/queries-pg.txt"
printf '%-22s %16s %16s\n' "query" "SQLite" "PostgreSQL"
grep '^fill' "$work/queries-sqlite.txt" | sed 's/^/SQLite /'
grep '^fill' "$work/queries-pg.txt" | sed 's/^/PostgreSQL /'
slow=0
while read -r _ name best worst; do
  pg=$(grep "^query $name " "$work/queries-pg.txt" | awk '{print $3 " / " $4}')
  pg_worst=$(grep "^query $name " "$work/queries-pg.txt" | awk '{print $4}')
  printf '%-22s %16s %16s\n' "$name" "$best / $worst" "$pg"
  if python3 -c "import sys; sys.exit(0 if max($worst, $pg_worst) >= 1000 else 1)"; then slow=1; fi
done < <(grep '^query' "$work/queries-sqlite.txt")
echo "every query under 1 s: $([[ $slow == 0 ]] && echo met || echo 'NOT met')"
