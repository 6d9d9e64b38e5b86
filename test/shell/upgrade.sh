#!/usr/bin/env bash
# Upgrade path: every released version (sql/released/) updates to the current one, and an updated
# database equals a fresh installation. For each released version: a database gets the extension
# at that version and the user objects of upgrade/objects.sql (both GiST classes, an expression
# index, CHECK constraints, views); `ALTER EXTENSION ... UPDATE` must keep its indexes valid and
# used and the results of upgrade/queries.sql unchanged; then its schema (pg_dump --schema-only
# --binary-upgrade, which also dumps the extension's own objects) must equal that of a database
# where the current version was installed fresh and the same user objects created. A dump of that
# database restores into an empty one with the same results.
source "$(dirname "$0")/../../scripts/lib.sh"
prepare_test_server
here="$PROJECT_ROOT/test/shell/upgrade"
work=$(mktemp -d /tmp/kestrava-upgrade.XXXXXX)
on_exit 'rm -rf "$work"'
chmod 755 "$work"

fail() { log "upgrade: $*"; exit 1; }
run() { psql -X -q -v ON_ERROR_STOP=1 -d "$@"; }

current=$(sed -n "s/^default_version *= *'\(.*\)'/\1/p" kestrava_range_operators.control)
released=$(ls sql/released/kestrava_range_operators--*.sql | sed 's/.*--\(.*\)\.sql$/\1/')
[ -n "$released" ] || fail "no released version in sql/released"
# A released install script is never edited: every one is listed in SHA256SUMS with its checksum.
(cd sql/released && sha256sum --quiet --strict -c SHA256SUMS) || fail "a released install script differs from sql/released/SHA256SUMS"
[ "$(ls sql/released/*.sql | wc -l)" = "$(wc -l < sql/released/SHA256SUMS)" ] || fail "sql/released/SHA256SUMS does not list every released script"

# The schema as pg_dump writes it, without what differs between any two databases: the object
# identifiers and transaction horizons binary-upgrade mode records, the versions, and the random
# key of \restrict (written by newer minor releases of pg_dump).
schema_dump() {
    pg_dump --schema-only --binary-upgrade --no-owner -d "$1" |
        grep -v -e '^SELECT pg_catalog\.binary_upgrade_set_next_' -e '^-- For binary upgrade, ' \
                -e '^-- Dumped from database version' -e '^-- Dumped by pg_dump version' -e '^\\\(un\)\?restrict ' |
        sed -e "s/^SET relfrozenxid = '[0-9]*', relminmxid = '[0-9]*'\$/SET relfrozenxid = (xid), relminmxid = (xid)/" \
            -e "s/^WHERE oid = '[0-9]*';\$/WHERE oid = (oid);/" > "$2"
}

# Which index answers each query of queries.sql that an index should answer.
index_checks=(
    "bookings_minute_idx|SELECT id FROM bookings WHERE minute && '{0,59,600,659}'::int4[]"
    "bookings_minute_idx|SELECT id FROM bookings WHERE minute <@ zm_range_pack(100, 200)"
    "bookings_minute_idx|SELECT id FROM bookings WHERE minute <@ zm_int4set2bitfield_int4('s', ARRAY[3, 40, 77, 1000])"
    "bookings_slot_idx|SELECT id FROM bookings WHERE slot && zm_range_pack(100, 110)"
    "bookings_slot_idx|SELECT id FROM bookings WHERE slot @> 500"
    "bookings_slot_idx|SELECT id FROM bookings WHERE slot && '{5,6,900,905}'::int4[]"
    "bookings_lower_idx|SELECT id FROM bookings WHERE zm_rangepacked_lower(slot) = 111"
)
check_indexes() {
    local db=$1 check index query plan
    local broken
    broken=$(run "$db" -At -c "SELECT count(*) FROM pg_index WHERE indrelid = 'bookings'::regclass AND NOT (indisvalid AND indisready AND indislive)")
    [ "$broken" = 0 ] || fail "$db: $broken indexes of bookings are not valid"
    for check in "${index_checks[@]}"; do
        index=${check%%|*}
        query=${check#*|}
        plan=$(run "$db" -At -c "SET enable_seqscan = off; SET enable_bitmapscan = off; EXPLAIN (COSTS OFF) $query")
        grep -qE "Index (Only )?Scan using $index " <<<"$plan" || fail "$db: $index does not answer: $query"
    done
}

fresh=kestrava_upgrade_fresh
dropdb --if-exists "$fresh" 2>/dev/null
createdb "$fresh"
run "$fresh" -c "CREATE EXTENSION kestrava_range_operators"
[ "$(run "$fresh" -At -c "SELECT extversion FROM pg_extension WHERE extname = 'kestrava_range_operators'")" = "$current" ] ||
    fail "CREATE EXTENSION did not install $current"
run "$fresh" -f "$here/objects.sql"
run "$fresh" -f "$here/queries.sql" > "$work/fresh.out"
check_indexes "$fresh"
schema_dump "$fresh" "$work/fresh.schema"

# A dump of the fresh database (CREATE EXTENSION, then the user objects) restores into an empty
# database with the same results and working indexes.
restored=kestrava_upgrade_restored
dropdb --if-exists "$restored" 2>/dev/null
createdb "$restored"
pg_dump -Fc -d "$fresh" -f "$work/fresh.dump"
pg_restore --exit-on-error -d "$restored" "$work/fresh.dump"
run "$restored" -f "$here/queries.sql" > "$work/restored.out"
diff -u "$work/fresh.out" "$work/restored.out" || fail "a restored dump of $current answers otherwise"
check_indexes "$restored"
dropdb "$restored"

for version in $released; do
    [ "$version" != "$current" ] || fail "released version $version is the current version: give sql/ a new version"
    path=$(run "$fresh" -At -c "SELECT path FROM pg_extension_update_paths('kestrava_range_operators') WHERE source = '$version' AND target = '$current'")
    [ -n "$path" ] || fail "no upgrade path from $version to $current"
    log "upgrade from $version ($path)"
    db=kestrava_upgrade_from_$(echo "$version" | tr . _)
    dropdb --if-exists "$db" 2>/dev/null
    createdb "$db"
    run "$db" -c "CREATE EXTENSION kestrava_range_operators VERSION '$version'"
    run "$db" -f "$here/objects.sql"
    run "$db" -f "$here/queries.sql" > "$work/$version-before.out"
    check_indexes "$db"
    run "$db" -c "ALTER EXTENSION kestrava_range_operators UPDATE"
    [ "$(run "$db" -At -c "SELECT extversion FROM pg_extension WHERE extname = 'kestrava_range_operators'")" = "$current" ] ||
        fail "ALTER EXTENSION UPDATE from $version did not reach $current"
    check_indexes "$db"
    run "$db" -f "$here/queries.sql" > "$work/$version-after.out"
    diff -u "$work/$version-before.out" "$work/$version-after.out" || fail "results changed by the upgrade from $version"
    diff -u "$work/fresh.out" "$work/$version-after.out" || fail "results after the upgrade from $version differ from a fresh $current"
    # The updated indexes take new rows and still answer as a sequential scan does.
    run "$db" -c "INSERT INTO bookings SELECT i, 'new', i % 1440, zm_range_pack(i % 1440, i % 1440 + 3), NULL FROM generate_series(5001, 5400) i"
    mismatch=$(run "$db" -At -c "
        CREATE TEMP TABLE seq AS SELECT id FROM bookings WHERE minute <@ zm_range_pack(100, 200) OR slot && zm_range_pack(100, 110);
        SET enable_seqscan = off;
        CREATE TEMP TABLE idx AS SELECT id FROM bookings WHERE minute <@ zm_range_pack(100, 200)
                                 UNION SELECT id FROM bookings WHERE slot && zm_range_pack(100, 110);
        SELECT (SELECT count(*) FROM (TABLE idx EXCEPT TABLE seq) a) + (SELECT count(*) FROM (TABLE seq EXCEPT TABLE idx) b)")
    [ "$mismatch" = 0 ] || fail "after the upgrade from $version, index scans and sequential scans differ on new rows"
    run "$db" -c "DELETE FROM bookings WHERE id > 5000"
    schema_dump "$db" "$work/$version.schema"
    diff -u "$work/fresh.schema" "$work/$version.schema" || fail "the schema after the upgrade from $version differs from a fresh installation of $current"
    dropdb "$db"
done
members=$(run "$fresh" -At -c "SELECT count(*) FROM pg_depend WHERE refobjid = (SELECT oid FROM pg_extension WHERE extname = 'kestrava_range_operators') AND deptype = 'e'")
lines=$(wc -l < "$work/fresh.schema")
dropdb "$fresh"
echo "upgrade: $(echo "$released" | wc -w) released version(s) update to $current; schemas equal ($lines lines, $members extension objects), indexes valid and used, results unchanged, dump restored"
