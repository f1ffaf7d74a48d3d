#!/usr/bin/env bash
# Runs the reliability checks and prints one summary table:
#   - the queue-file and journal torture tests (a host killed with SIGKILL at
#     random moments),
#   - the hostile-server, host-input, disk-trouble and hostile-queue-file tests,
#   - start-up against hostile queue files and journal segments: time and
#     peak memory per case,
#   - refused records against a real collector: a 17 MB record answered 413
#     with 250 records after it, and a wrong key (memory, disk and CPU of the
#     host sampled over 20 s, or 10 minutes in the long run),
#   - every libFuzzer harness,
#   - the delivery check: host processes report to a real collector while
#     nothing goes wrong, while the collector is killed and restarted, and
#     while the host is killed and restarted; for each delivery mode it counts
#     reported, delivered, lost and duplicated records;
#   - the attacks on the collector of scripts/attack.sh;
#   - the fleet check: nginx balancing two collectors on one PostgreSQL while
#     one of them is killed and restarted twice (skipped, saying so, without
#     PostgreSQL or nginx).
#   scripts/reliability.sh          short run: 30 kills, 5 s per harness, 20 s of wrong key
#   scripts/reliability.sh --long   300 kills, 300 s per harness, 600 s of wrong key
# Both report 20 000 records per delivery scenario (QXLOG_DELIVERY_RECORDS).
# QXLOG_FUZZ_SECONDS overrides the time per harness of either run.
set -euo pipefail
cd "$(dirname "$0")/.."

kills=30
fuzz_seconds=5
wrong_key_seconds=20
if [[ "${1:-}" == "--long" ]]; then
  kills=300
  fuzz_seconds=300
  wrong_key_seconds=600
fi
fuzz_seconds="${QXLOG_FUZZ_SECONDS:-$fuzz_seconds}"

scripts/install-deps.sh >&2
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQXLOG_BUILD_BENCH=ON >/dev/null
cmake --build build -j "$(nproc 2>/dev/null || echo 2)" --target qxlog_tests \
  qxlog_delivery_check qxlog_delivery_host qxlog-collector qxlog-decode qxlog_hostile_file_check qxlog_fault_check >&2

status=0
torture_log=$(QXLOG_TORTURE_KILLS=$kills build/tests/qxlog_tests \
  --gtest_filter='QueueTortureTest.*:JournalTortureTest.*' 2>&1) || status=1
torture=$(grep -o 'queue torture:.*' <<<"$torture_log" || echo "queue torture: did not run")
journal=$(grep -o 'journal torture:.*' <<<"$torture_log" || echo "journal torture: did not run")

tests_log=$(build/tests/qxlog_tests \
  --gtest_filter='HostileServerTest.*:EarlyRefusalTest.*:HostInputTest.*:*DiskTroubleTest.*:InterruptedWriteTest.*:*HostileQueueFileTest.*' \
  2>&1) || status=1
passed=$(grep -c '^\[       OK \]' <<<"$tests_log" || true)
failed=$(grep -c '^\[  FAILED  \].*(' <<<"$tests_log" || true)
skipped=$(grep -c '^\[  SKIPPED \]' <<<"$tests_log" || true)

faults_log=$(build/tests/qxlog_tests --gtest_filter='DeliveryTest.ARecordTooLarge*:DeliveryTest.Diagnoses*' \
  2>&1) || status=1
poison=$(grep -o 'poison record:.*' <<<"$faults_log" || echo "poison record: did not run")
diagnoses=$(grep -o 'diagnoses outage:.*' <<<"$faults_log" || echo "diagnoses outage: did not run")
restarted=$(grep -o 'diagnoses across a restart:.*' <<<"$faults_log" ||
  echo "diagnoses across a restart: did not run")

files_table=$(build/bench/reliability/qxlog_hostile_file_check) || status=1

refused_table=$(build/bench/reliability/qxlog_fault_check build/collector/qxlog-collector \
  "${QXLOG_WRONG_KEY_SECONDS:-$wrong_key_seconds}") || status=1

fuzz_table=$(scripts/fuzz.sh "$fuzz_seconds" 2>/dev/null) || status=1

attack_table=$(QXLOG_ATTACK_NO_BUILD=1 scripts/attack.sh) || status=1

delivery_table=$(build/bench/reliability/qxlog_delivery_check build/collector/qxlog-collector \
  build/bench/reliability/qxlog_delivery_host "${QXLOG_DELIVERY_RECORDS:-20000}") || status=1

fleet_table="skipped: PostgreSQL or nginx is not installed"
fleet_dir=$(mktemp -d)
if command -v nginx >/dev/null && scripts/pg-test-server.sh start "$fleet_dir/pg" >/dev/null &&
  [[ -s "$fleet_dir/pg/uri" ]]; then
  read -r port_a port_b port_front < <(python3 -c '
import socket
sockets = [socket.socket() for _ in range(3)]
for s in sockets: s.bind(("127.0.0.1", 0))
print(*[s.getsockname()[1] for s in sockets])')
  if scripts/nginx-collectors.sh start "$fleet_dir/nginx" "$port_front" "$port_a" "$port_b"; then
    fleet_table=$(build/bench/reliability/qxlog_delivery_check --fleet build/collector/qxlog-collector \
      build/bench/reliability/qxlog_delivery_host "$(cat "$fleet_dir/pg/uri")" "$port_a" "$port_b" \
      "$port_front" "${QXLOG_DELIVERY_RECORDS:-20000}") || status=1
  else
    fleet_table="nginx did not start" && status=1
  fi
  scripts/nginx-collectors.sh stop "$fleet_dir/nginx"
fi
scripts/pg-test-server.sh stop "$fleet_dir/pg" >/dev/null 2>&1 || true
rm -rf "$fleet_dir"

echo
echo "Reliability summary ($([[ $kills == 300 ]] && echo long || echo short) run)"
echo "----------------------------------------------------------------"
echo "Queue-file torture"
sed 's/^queue torture: /  /; s/, /\n  /g' <<<"$torture"
echo "Journal torture (at least once)"
sed 's/^journal torture: /  /; s/, /\n  /g' <<<"$journal"
echo "Hostile servers, host input, disk trouble, hostile queue files"
echo "  passed $passed, failed $failed, skipped $skipped"
echo "Refused records and diagnoses, at least once"
echo "  $poison"
echo "  $diagnoses"
echo "  $restarted"
echo "Refused records against qxlog-collector, at least once"
sed 's/^/  /' <<<"$refused_table"
echo "Hostile queue files and journal segments at start-up (goal: under 2 s and 64 MB each)"
sed 's/^/  /' <<<"$files_table"
echo "Fuzzing, $fuzz_seconds s per harness"
sed 's/^/  /' <<<"$fuzz_table"
echo "Delivery, batch size 20 (at least once must lose nothing)"
sed 's/^/  /' <<<"$delivery_table"
echo "Fleet: two collectors on one PostgreSQL behind nginx (0 lost, 0 duplicated)"
sed 's/^/  /' <<<"$fleet_table"
echo "Attacks on the collector (scripts/attack.sh)"
sed 's/^/  /' <<<"$attack_table"
echo "----------------------------------------------------------------"
if ((status != 0)); then
  echo "FAILED"
  grep -E 'Failure|FAILED' <<<"$torture_log$tests_log$faults_log" | head -20 || true
fi
exit $status
