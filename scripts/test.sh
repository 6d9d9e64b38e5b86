#!/usr/bin/env bash
# Runs the whole test suite: unit tests (GoogleTest), the SQL regression tests (pg_regress: the fast
# suite of `make installcheck`, then the extended schedule), a load smoke test and the shell tests of
# test/shell (upgrades, packaging, clients, ...) on a throwaway server, then both schedules on an
# assert-enabled server (scripts/cassert.sh). Installs what is missing
# first. Exit status 0 only when everything passed.
source "$(dirname "$0")/lib.sh"

ensure_dependencies
cd "$PROJECT_ROOT"

# Error locations: only error_locations shows them, exactly the fixed sites of the catalogue (less
# those it names as not triggered); no expected output shows any other location, in the
# extension's sources or PostgreSQL's, which would move with every release.
expected_sites=$(perl -0777 -ne '
    my %files = /constexpr const char\* (\w+) = "[^"]*\/([^"\/]+)";/g;
    while (/ZM_FIXED_SITE\(\s*\w+,\s*"([^"]+)",\s*file::(\w+),\s*(\d+),/g) { print "$1, $files{$2}:$3\n" }
' pluginimpl/inc/zelmorraPgErrorSites.h | sort)
shown_sites=$( { sed -n 's/^LOCATION:  //p' test/expected/error_locations.out;
                 sed -n 's/^-- not triggered: \([^ ]* [^ ]*\) .*/\1/p' test/sql/error_locations.sql; } | sort)
stray_locations=$(grep -Hn '^LOCATION:' test/expected/*.out | grep -v '^test/expected/error_locations.out:' || true)
if [ -z "$expected_sites" ] || [ "$expected_sites" != "$shown_sites" ] || [ -n "$stray_locations" ]; then
    log "error locations differ from the catalogue of fixed sites (catalogue <, error_locations >):"
    diff <(echo "$expected_sites") <(echo "$shown_sites") >&2 || true
    [ -z "$stray_locations" ] || { log "locations shown outside error_locations:"; echo "$stray_locations" >&2; }
    exit 1
fi

log "unit tests"
cmake -S unittests -B build/unittests -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build/unittests -j"$(nproc)" >/dev/null
ctest --test-dir build/unittests --output-on-failure -j"$(nproc)" | tail -n 3
unit_summary=$(ctest --test-dir build/unittests -N | sed -n 's/^Total Tests: //p')

build_extension
install_extension
start_throwaway_server

# The fast suite (`make installcheck`), then the extended schedule (memory, torture, cancellation,
# index pages: `make installcheck-extended`), each followed by its differences when it fails.
status=0
: > build/regress.log
for suite in installcheck installcheck-extended; do
    log "SQL regression tests: make $suite"
    suite_status=0
    make -s "$suite" > build/$suite.log 2>&1 || suite_status=$?
    tee -a build/regress.log < build/$suite.log
    if [ -f build/regress/regression.diffs ] && [ $suite_status -ne 0 ]; then
        head -n 200 build/regress/regression.diffs
    fi
    [ $suite_status -eq 0 ] || status=$suite_status
done
sql_passed=$(grep -cE '^(ok|test) .* ok|^ok ' build/regress.log || true)
sql_failed=$(grep -cE 'FAILED|failed \(ignored\)|diff command failed' build/regress.log || true)
[ $status -eq 0 ] || [ "$sql_failed" -gt 0 ] || sql_failed=1

# A short run of the load test (scripts/load.sh) on the same server.
log "load smoke test (8 clients, 5 s)"
load_failed=0
KESTRAVA_LOAD_REUSE_SERVER=1 LOAD_ROWS=20000 bash scripts/load.sh 5 > build/load-smoke.log 2>&1 || load_failed=1
if [ $load_failed -ne 0 ]; then
    tail -n 40 build/load-smoke.log
    status=1
else
    tail -n 1 build/load-smoke.log
fi

# The shell tests (test/shell/*.sh, in name order: out-of-tree build, upgrades, the trusted install,
# the README's examples, a client driver, the Debian package) on the same server, under the same
# install lock; each prints one line when it passes.
export KESTRAVA_TEST_SERVER=1
shell_passed=0
shell_failed=0
for t in test/shell/*.sh; do
    name=$(basename "$t" .sh)
    log "shell test: $name"
    if bash "$t" > "build/shell-$name.log" 2>&1; then
        shell_passed=$((shell_passed + 1))
        tail -n 1 "build/shell-$name.log"
    else
        shell_failed=$((shell_failed + 1))
        tail -n 60 "build/shell-$name.log"
        log "shell test $name FAILED (log: build/shell-$name.log)"
        status=1
    fi
done

# Both schedules again on an assert-enabled server built from the Debian source of the installed
# one (scripts/cassert.sh; built once, then cached): failed Asserts, crashes, memory-context
# warnings and resource leaks in its log fail the run.
log "SQL regression tests on an assert-enabled server"
cassert_failed=0
bash scripts/cassert.sh > build/cassert.log 2>&1 || cassert_failed=1
cassert_line=$(grep -E '^cassert: [0-9]+ passed, [0-9]+ failed$' build/cassert.log | tail -n 1 || true)
cassert_passed=$(echo "$cassert_line" | sed -n 's/^cassert: \([0-9]*\) passed.*/\1/p')
cassert_count=$(echo "$cassert_line" | sed -n 's/.* \([0-9]*\) failed$/\1/p')
cassert_passed=${cassert_passed:-0}
cassert_count=${cassert_count:-0}
if [ $cassert_failed -ne 0 ]; then
    [ "$cassert_count" -gt 0 ] || cassert_count=1
    tail -n 80 build/cassert.log
    log "assert-enabled run FAILED (log: build/cassert.log)"
    status=1
else
    echo "$cassert_line"
fi

echo "unit: ${unit_summary} tests; sql: ${sql_passed} passed, ${sql_failed} failed; load smoke: $((1 - load_failed)) passed, ${load_failed} failed; shell: ${shell_passed} passed, ${shell_failed} failed; assert-enabled sql: ${cassert_passed} passed, ${cassert_count} failed"
echo "$((unit_summary + sql_passed + 1 - load_failed + shell_passed + cassert_passed)) passed, $((sql_failed + load_failed + shell_failed + cassert_count)) failed"
exit $status
