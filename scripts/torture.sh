#!/usr/bin/env bash
# Long run of the SQL torture test: ROUNDS random calls per function and aggregate (default 2000),
# then a check that the server log shows no backend terminated by a signal.
source "$(dirname "$0")/lib.sh"
rounds=${1:-2000}

ensure_dependencies
build_extension
install_extension
start_throwaway_server
psql -X -q -c 'CREATE EXTENSION kestrava_range_operators'
log "torture test with $rounds calls per routine"
# The test's own output is compared with the expected file only in the regular suite; here the
# findings query must return no row.
PGOPTIONS="-c kestrava.torture_rounds=$rounds -c statement_timeout=0" \
    psql -X -q -v ON_ERROR_STOP=1 -f "$PROJECT_ROOT/test/sql/zz_torture.sql" | tee /tmp/kestrava-torture.out | tail -n 4
grep -q '^(0 rows)' /tmp/kestrava-torture.out
