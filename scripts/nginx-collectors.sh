#!/usr/bin/env bash
# nginx on 127.0.0.1 balancing collectors, for the benchmark and the fleet
# check (the configuration docs/collector-scaling.md describes).
#   scripts/nginx-collectors.sh start DIR PORT COLLECTOR_PORT...
#   scripts/nginx-collectors.sh stop DIR
set -euo pipefail
action="${1:?start or stop}"
dir="${2:?directory}"
case "$action" in
start)
  port="${3:?port}"
  shift 3
  mkdir -p "$dir"
  dir=$(cd "$dir" && pwd)
  servers=""
  for p in "$@"; do servers+="    server 127.0.0.1:$p max_fails=0;"$'\n'; done
  cat >"$dir/nginx.conf" <<CONF
worker_processes 1;
pid $dir/nginx.pid;
error_log $dir/nginx-error.log;
events { worker_connections 4096; }
http {
  access_log off;
  client_body_temp_path $dir/body;
  proxy_temp_path $dir/proxy;
  upstream collectors {
$servers  }
  server {
    listen 127.0.0.1:$port;
    client_max_body_size 8m;
    location / {
      proxy_pass http://collectors;
      proxy_set_header X-Forwarded-For \$proxy_add_x_forwarded_for;
      # A repeated upload is stored once, so a request cut off by a
      # collector's end may be sent to the other one.
      proxy_next_upstream error timeout non_idempotent;
    }
  }
}
CONF
  nginx -p "$dir" -c "$dir/nginx.conf" -e "$dir/nginx-error.log" </dev/null >/dev/null 2>&1
  for _ in $(seq 200); do
    if (echo >"/dev/tcp/127.0.0.1/$port") 2>/dev/null; then exit 0; fi
    sleep 0.05
  done
  echo "nginx-collectors: nginx does not listen on $port" >&2
  exit 1
  ;;
stop)
  if [[ -f "$dir/nginx.pid" ]]; then
    kill "$(cat "$dir/nginx.pid")" 2>/dev/null || true
    for _ in $(seq 100); do [[ -f "$dir/nginx.pid" ]] || break; sleep 0.05; done
  fi
  ;;
esac
