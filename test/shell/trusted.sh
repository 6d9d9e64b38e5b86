#!/usr/bin/env bash
# Trusted extension: a database owner who is not a superuser installs, updates, relocates and drops
# the extension, and runs the demo with the same output as a superuser; another user calls the
# functions but cannot drop the extension; no function of the extension runs with other rights
# than its caller's, and none that takes `internal` can be called from SQL.
source "$(dirname "$0")/../../scripts/lib.sh"
prepare_test_server
work=$(mktemp -d /tmp/kestrava-trusted.XXXXXX)
on_exit 'rm -rf "$work"'

fail() { log "trusted: $*"; exit 1; }
as() { local role=$1; shift; psql -X -q -v ON_ERROR_STOP=1 -U "$role" -d kestrava_trusted "$@"; }

db=kestrava_trusted
owner=kestrava_trusted_owner
user=kestrava_trusted_user
dropdb --if-exists "$db" 2>/dev/null
psql -X -q -v ON_ERROR_STOP=1 -c "SET client_min_messages = warning" -c "DROP ROLE IF EXISTS $owner" -c "DROP ROLE IF EXISTS $user" \
     -c "CREATE ROLE $owner LOGIN NOSUPERUSER NOCREATEDB NOCREATEROLE" -c "CREATE ROLE $user LOGIN NOSUPERUSER"
createdb -O "$owner" "$db"
[ "$(as "$owner" -At -c "SELECT rolsuper FROM pg_roles WHERE rolname = current_user")" = f ] || fail "$owner is a superuser"
[ "$(as "$owner" -At -c "SELECT trusted FROM pg_available_extension_versions WHERE name = 'kestrava_range_operators' AND version = (SELECT default_version FROM pg_available_extensions WHERE name = 'kestrava_range_operators')")" = t ] ||
    fail "the current version is not marked trusted"

# Installed at a released version, updated, dropped by the owner.
oldest=$(ls sql/released/kestrava_range_operators--*.sql | sed 's/.*--\(.*\)\.sql$/\1/' | sort -V | head -n 1)
as "$owner" -c "CREATE EXTENSION kestrava_range_operators VERSION '$oldest'" -c "ALTER EXTENSION kestrava_range_operators UPDATE"
as "$owner" -c "DROP EXTENSION kestrava_range_operators"

# The demo, run by the owner (it creates the extension) and by a superuser in a database of its own.
as "$owner" -f demo/demo.sql > $work/demo-owner.out 2>&1 || { cat $work/demo-owner.out; fail "the demo failed for $owner"; }
dropdb --if-exists kestrava_trusted_reference 2>/dev/null
createdb kestrava_trusted_reference
psql -X -q -v ON_ERROR_STOP=1 -d kestrava_trusted_reference -f demo/demo.sql > $work/demo-superuser.out 2>&1
dropdb kestrava_trusted_reference
diff -u $work/demo-superuser.out $work/demo-owner.out || fail "the demo's output differs for $owner"
[ "$(grep -c . $work/demo-owner.out)" -gt 20 ] || fail "the demo printed almost nothing"

# The extension's objects belong to the bootstrap superuser, the extension to the owner.
[ "$(as "$owner" -At -c "SELECT extowner::regrole FROM pg_extension WHERE extname = 'kestrava_range_operators'")" = "$owner" ] ||
    fail "the extension does not belong to $owner"
foreign=$(as "$owner" -At -c "
    SELECT count(*) FROM pg_depend d JOIN pg_proc p ON d.classid = 'pg_proc'::regclass AND p.oid = d.objid
    JOIN pg_extension e ON e.oid = d.refobjid AND e.extname = 'kestrava_range_operators'
    WHERE d.deptype = 'e' AND (p.proowner <> 10 OR p.prosecdef OR p.proconfig IS NOT NULL)")
[ "$foreign" = 0 ] || fail "$foreign functions are not owned by the bootstrap superuser, are SECURITY DEFINER or set parameters"

# Another user calls functions, operators and aggregates, but cannot drop the extension.
[ "$(as "$user" -At -c "SELECT zm_int4range_union('{1,3}', '{4,6}'), 5 <@ '{1,3,5,9}', zm_sort_int4('{3,1}'),
                          (SELECT zm_int4set_agg(x, 'r') FROM unnest('{1,2,3,7}'::int4[]) x)")" = '{1,6}|t|{1,3}|{1,3,7,7}' ] || fail "$user cannot use the extension"
as "$user" -c "DROP EXTENSION kestrava_range_operators" 2>/dev/null && fail "$user dropped the extension"

# No function that takes internal can be called from SQL: PostgreSQL converts nothing, not even NULL,
# to internal, so each call below fails at lookup (42883), for the owner as for anyone.
calls=$(as "$owner" -At -c "
    SELECT format('SELECT %I(%s)', p.proname, (SELECT string_agg('NULL', ', ') FROM unnest(p.proargtypes::oid[]) t))
    FROM pg_depend d JOIN pg_proc p ON d.classid = 'pg_proc'::regclass AND p.oid = d.objid
    JOIN pg_extension e ON e.oid = d.refobjid AND e.extname = 'kestrava_range_operators'
    WHERE d.deptype = 'e' AND 'internal'::regtype::oid = ANY (p.proargtypes::oid[]) ORDER BY 1")
[ "$(echo "$calls" | wc -l)" -gt 20 ] || fail "found only $(echo "$calls" | wc -l) functions taking internal"
while read -r call; do
    state=$( (as "$owner" -At -v VERBOSITY=verbose -c "$call" 2>&1 || true) | sed -n 's/^ERROR:  \([0-9A-Z]\{5\}\):.*/\1/p' | head -n 1)
    [ "$state" = 42883 ] || fail "$call: SQLSTATE '${state:-none}', expected 42883"
done <<<"$calls"

# Relocated into a schema of the database (by a superuser: the objects are the bootstrap
# superuser's, so the owner may not move them): the text forms, bound to the int4[] forms when
# created, follow.
as "$owner" -c "CREATE SCHEMA ranges" -c "GRANT USAGE ON SCHEMA ranges TO PUBLIC"
as "$owner" -c "ALTER EXTENSION kestrava_range_operators SET SCHEMA ranges" 2>/dev/null && fail "$owner relocated objects that are not its own"
psql -X -q -v ON_ERROR_STOP=1 -d "$db" -c "ALTER EXTENSION kestrava_range_operators SET SCHEMA ranges"
[ "$(as "$user" -At -c "SET search_path = ranges, public" -c "SELECT zm_sort_int4('{3,1}'), 5 <@ '{1,3,5,9}'")" = '{1,3}|t' ] ||
    fail "the relocated extension does not answer"
as "$owner" -c "DROP EXTENSION kestrava_range_operators" -c "CREATE EXTENSION kestrava_range_operators WITH SCHEMA ranges"
[ "$(as "$owner" -At -c "SELECT extnamespace::regnamespace FROM pg_extension WHERE extname = 'kestrava_range_operators'")" = ranges ] ||
    fail "CREATE EXTENSION ... WITH SCHEMA ranges did not install into ranges"

dropdb "$db"
psql -X -q -c "DROP ROLE $owner" -c "DROP ROLE $user"
echo "trusted: a database owner without superuser installed (also WITH SCHEMA), updated and dropped the extension and ran the demo; $(echo "$calls" | wc -l) functions taking internal refuse SQL calls"
