#!/usr/bin/env bash
# Load test: pgbench with 8 clients (2 threads) on the server's unix socket for SECONDS (default
# 60), running a weighted mix of scripts/load/*.sql: set operators and membership tests, the
# aggregates (also as parallel partial aggregates), conversions, and GiST index scans with
# concurrent inserts and updates. Fails unless every transaction succeeds, the indexes still
# answer as sequential scans do afterwards, and the server log shows no backend terminated by a
# signal. Prints pgbench's report (TPS, latencies per script and per statement).
#
# Usage: bash scripts/load.sh [seconds]
# Environment: LOAD_ROWS (rows of the indexed tables, default 200000);
#              KESTRAVA_LOAD_REUSE_SERVER=1 runs against the server that PGHOST/PGPORT name (the
#              test suite's), with the extension already installed.
source "$(dirname "$0")/lib.sh"
seconds=${1:-60}
rows=${LOAD_ROWS:-200000}
load_dir="$PROJECT_ROOT/scripts/load"

if [ "${KESTRAVA_LOAD_REUSE_SERVER:-}" != 1 ]; then
    ensure_dependencies
    build_extension
    install_extension
    start_throwaway_server
fi

db=kestrava_load
log "load test database ($rows indexed rows)"
dropdb --if-exists "$db" 2>/dev/null || true
createdb "$db"
psql -X -q -d "$db" -v ON_ERROR_STOP=1 -v rows="$rows" -f "$load_dir/setup.sql"

log "pgbench: 8 clients, 2 threads, $seconds s"
report=$(mktemp)
status=0
pgbench -n -c 8 -j 2 -T "$seconds" -r -P "$(( seconds >= 20 ? 10 : seconds ))" \
    -f "$load_dir/set_operators.sql@4" -f "$load_dir/aggregates.sql@2" -f "$load_dir/parallel_aggregates.sql@1" \
    -f "$load_dir/conversions.sql@3" -f "$load_dir/index_scans.sql@3" "$db" >"$report" 2>&1 || status=$?
cat "$report"
failed=$(sed -n 's/^number of failed transactions: \([0-9]*\).*/\1/p' "$report" | head -n 1)
processed=$(sed -n 's/^number of transactions actually processed: \([0-9]*\).*/\1/p' "$report" | head -n 1)
if [ $status -ne 0 ] || [ "${failed:-x}" != 0 ] || [ "${processed:-0}" -eq 0 ] || grep -q 'aborted' "$report"; then
    log "load test FAILED (pgbench status $status, failed transactions: ${failed:-unknown})"
    rm -f "$report"
    exit 1
fi
rm -f "$report"

log "index scans against sequential scans after the run"
mismatches=$(psql -X -q -At -d "$db" -v ON_ERROR_STOP=1 -f "$load_dir/check.sql" | tail -n 1)
if [ "$mismatches" != 0 ]; then
    log "load test FAILED: $mismatches index probes differ from sequential scans"
    exit 1
fi
dropdb "$db"
echo "load: $processed transactions, 0 failed, 0 index mismatches"
