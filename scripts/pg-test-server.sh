#!/usr/bin/env bash
# A throwaway PostgreSQL server for tests and benchmarks: a cluster in a
# fresh temporary directory (named in DIR/cluster), listening on a Unix socket
# there only, run by an unprivileged user when this runs as root.
#   scripts/pg-test-server.sh start DIR   prints the server's URI (also in DIR/uri)
#   scripts/pg-test-server.sh stop DIR
# Without PostgreSQL on the machine, start says so on stderr, writes no URI
# and succeeds, so that the tests that need it skip.
# QXLOG_PG_FSYNC=on keeps fsync on (benchmarks); tests run without it.
set -euo pipefail
action="${1:?start or stop}"
dir="${2:?directory}"

bin=$(ls -d /usr/lib/postgresql/*/bin 2>/dev/null | sort -V | tail -1 || true)
as_owner() {
  if [[ $(id -u) -eq 0 ]]; then runuser -u nobody -- "$@"; else "$@"; fi
}

case "$action" in
start)
  if [[ -z "$bin" || ! -x "$bin/initdb" ]]; then
    echo "pg-test-server: PostgreSQL is not installed (scripts/install-deps.sh installs it)" >&2
    exit 0
  fi
  mkdir -p "$dir"
  rm -f "$dir/uri"
  # Under /tmp, so that the unprivileged user reaches it whatever DIR's parents allow.
  cluster=$(mktemp -d /tmp/qxlog-pg.XXXXXX)
  echo "$cluster" >"$dir/cluster"
  if [[ $(id -u) -eq 0 ]]; then chown nobody "$cluster"; fi
  as_owner "$bin/initdb" -D "$cluster/data" -U qxlog -A trust -E UTF8 --no-sync \
    >"$dir/initdb.log" 2>&1
  as_owner "$bin/pg_ctl" -D "$cluster/data" -l "$cluster/server.log" -w -t 30 \
    -o "-k $cluster -c listen_addresses='' -c fsync=${QXLOG_PG_FSYNC:-off} -c max_connections=200" \
    start >/dev/null
  uri="postgresql:///postgres?host=$cluster&user=qxlog"
  echo "$uri" >"$dir/uri"
  echo "$uri"
  ;;
stop)
  cluster=$(cat "$dir/cluster" 2>/dev/null || true)
  if [[ -n "$bin" && -n "$cluster" && -f "$cluster/data/postmaster.pid" ]]; then
    as_owner "$bin/pg_ctl" -D "$cluster/data" -m immediate -w stop >/dev/null 2>&1 || true
  fi
  if [[ "$cluster" == /tmp/qxlog-pg.* ]]; then rm -rf "$cluster"; fi
  rm -rf "$dir"
  ;;
*)
  echo "usage: $0 start|stop DIR" >&2
  exit 2
  ;;
esac
