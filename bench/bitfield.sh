#!/usr/bin/env bash
# Bitfield benchmark on a throwaway server.
#
# On one set of about 10^6 values (runs of 1..21 values over 0..2.5*10^6), the same membership
# tests are run against
#   - the bitfield (int4 <@ bytea, int8 && bytea),
#   - the range array (zm_int4_in_rangearray / zm_int4rangepacked_in_rangearray: binary search),
#   - PostgreSQL's int4multirange (@> for a value, && for a range),
#   - PostgreSQL's scalar array, value = ANY(int4[]) (hashed by the executor for a constant array).
# Every set is inlined in the query as a constant, as an application would pass it, so no run pays
# for detoasting it per row. Times are the second execution of a prepared statement (the first
# plans and folds the constant), minus the time of the same scan without a test.
# Then: building bitfields from range arrays in the server, in bytes per second, next to memset
# and the bitfield writer alone measured by bench/bitfield_memset.cpp on this machine.
#
# usage: bench/bitfield.sh [probes]    (default 10^6 value probes, a tenth as many 1000-value range
#                                      probes, and a thousandth for = ANY over a range)
source "$(dirname "$0")/../scripts/lib.sh"

PROBES=${1:-1000000}
RANGE_PROBES=$((PROBES / 10))
ANY_RANGE_PROBES=$((PROBES / 1000))

ensure_dependencies
cd "$PROJECT_ROOT"
build_extension
install_extension
start_throwaway_server

# Scratch files live in the server's directory, removed with it.
WORK="$THROWAWAY_DIR/bench"
mkdir -p "$WORK"

log "memset reference"
g++ -std=c++17 -O2 -I"$PROJECT_ROOT/common/inc" "$PROJECT_ROOT/bench/bitfield_memset.cpp" -o "$WORK/bitfield_memset"
"$WORK/bitfield_memset" 268435456 1 > "$WORK/memset_1.txt"
"$WORK/bitfield_memset" 268435456 1000000 > "$WORK/memset_1m.txt"

log "building the set and the probes"
psql -X -q -v ON_ERROR_STOP=1 <<SQL
CREATE EXTENSION kestrava_range_operators;
\o /dev/null
SELECT setseed(0.31);
\o
CREATE TABLE members AS
SELECT DISTINCT v FROM (SELECT (random() * 2500000)::int AS lo, (random() * 20)::int AS w
                        FROM generate_series(1, 110000)) r, generate_series(lo, lo + w) v;
CREATE TABLE islands AS
SELECT min(v) AS lo, max(v) AS hi FROM (SELECT v, v - row_number() OVER (ORDER BY v) AS g FROM members) t GROUP BY g;
CREATE TABLE sets AS
SELECT (SELECT array_agg(v ORDER BY v) FROM members) AS sc,
       (SELECT array_agg(x ORDER BY lo, o) FROM islands, unnest(ARRAY[lo, hi]) WITH ORDINALITY u(x, o)) AS ra,
       (SELECT range_agg(int4range(lo, hi, '[]')) FROM islands) AS mr;
ALTER TABLE sets ADD COLUMN bf bytea;
UPDATE sets SET bf = zm_int4set2bitfield_int4('r', ra);
CREATE TABLE probes AS
SELECT (random() * 2502000)::int - 1000 AS v FROM generate_series(1, $PROBES);
CREATE TABLE range_probes AS
SELECT lo, ((lo + 999)::int8 << 32) | (lo::int8 & 4294967295) AS pk, int4range(lo, lo + 999, '[]') AS r
FROM (SELECT (random() * 2502000)::int - 1000 AS lo FROM generate_series(1, $RANGE_PROBES)) x;
CREATE TABLE any_range_probes AS SELECT * FROM range_probes LIMIT $ANY_RANGE_PROBES;
VACUUM ANALYZE;
-- Sparse wide range arrays for the build speed: 1 range over 2^31 values (256 MB of bitfield) and
-- 10^6 ranges over the same span, each covering half of its share.
CREATE TABLE build_sets AS
SELECT 'one range' AS name, ARRAY[0, 2147483646] AS ra
UNION ALL
SELECT '10^6 ranges', (SELECT array_agg(x ORDER BY i, o) FROM generate_series(0, 999999) i,
                        unnest(ARRAY[i * 2147, i * 2147 + 1073]) WITH ORDINALITY u(x, o));
SQL

psql -X -q -At -v ON_ERROR_STOP=1 -c "SELECT cardinality(sc), cardinality(ra) / 2, length(bf) FROM sets" |
    { IFS='|' read -r n ranges bytes; echo "set: $n values in $ranges ranges; bitfield $bytes bytes"; }

# The constants, inlined into the prepared statements.
psql -X -q -At -v ON_ERROR_STOP=1 -c "SELECT quote_literal(sc::text) FROM sets" > "$WORK/sc"
psql -X -q -At -v ON_ERROR_STOP=1 -c "SELECT quote_literal(ra::text) FROM sets" > "$WORK/ra"
psql -X -q -At -v ON_ERROR_STOP=1 -c "SELECT quote_literal(mr::text) FROM sets" > "$WORK/mr"
psql -X -q -At -v ON_ERROR_STOP=1 -c "SELECT quote_literal('\\x' || encode(bf, 'hex')) FROM sets" > "$WORK/bf"
SC="$(cat "$WORK/sc")::int4[]"
RA="$(cat "$WORK/ra")::int4[]"
MR="$(cat "$WORK/mr")::int4multirange"
BF="$(cat "$WORK/bf")::bytea"

# Runs a query as a prepared statement twice; prints "<ms of the second run> <result>".
timed() {
    local query=$1
    {
        echo '\pset format unaligned'
        echo '\pset tuples_only on'
        echo "PREPARE q AS $query;"
        echo 'EXECUTE q;'
        echo '\timing on'
        echo 'EXECUTE q;'
    } > "$WORK/q.sql"
    psql -X -q -v ON_ERROR_STOP=1 -f "$WORK/q.sql" |
        awk 'NR == 1 { first = $0 } /^Time:/ { t = $2 } !/^Time:/ { r = $0 } END { print t, r }'
}

declare -A MS RESULT
run() {
    local name=$1 query=$2 out
    out=$(timed "$query")
    MS[$name]=${out%% *}
    RESULT[$name]=${out#* }
}

log "single values ($PROBES probes)"
run v_scan "SELECT count(*) FROM probes WHERE v IS NOT NULL"
run v_bitfield "SELECT count(*) FROM probes WHERE v <@ $BF"
run v_rangearray "SELECT count(*) FROM probes WHERE zm_int4_in_rangearray(v, $RA)"
run v_multirange "SELECT count(*) FROM probes WHERE $MR @> v"
run v_any "SELECT count(*) FROM probes WHERE v = ANY($SC)"

log "1000-value ranges ($RANGE_PROBES probes; = ANY on $ANY_RANGE_PROBES)"
run r_scan "SELECT count(*) FROM range_probes WHERE pk IS NOT NULL"
run r_bitfield "SELECT count(*) FROM range_probes WHERE pk && $BF"
run r_rangearray "SELECT count(*) FROM range_probes WHERE zm_int4rangepacked_in_rangearray(pk, $RA)"
run r_multirange "SELECT count(*) FROM range_probes WHERE $MR && r"
run r_any_scan "SELECT count(*) FROM any_range_probes WHERE lo IS NOT NULL"
run r_bitfield_small "SELECT count(*) FROM any_range_probes WHERE pk && $BF"
run r_any "SELECT count(*) FROM any_range_probes WHERE EXISTS (SELECT FROM generate_series(lo, lo + 999) x WHERE x = ANY($SC))"

log "building bitfields"
run b_one "SELECT length(zm_int4set2bitfield_int4('r', ra)) FROM build_sets WHERE name = 'one range'"
run b_many "SELECT length(zm_int4set2bitfield_int4('r', ra)) FROM build_sets WHERE name = '10^6 ranges'"

report() {
    awk -v probes="$PROBES" -v rangeprobes="$RANGE_PROBES" -v anyprobes="$ANY_RANGE_PROBES" "$@" 'BEGIN {
        printf "\n%-46s %10s %10s %10s %s\n", "test", "ms", "ns/test", "vs bitfield", "result"
    }
    function scanline(label, ms, result) {
        printf "%-46s %10.1f %10s %11s %s\n", label, ms, "-", "-", result
    }
    function line(label, ms, scan, n, base, result,   net, netbase) {
        net = ms - scan; if (net < 0.001) net = 0.001
        netbase = base - scan; if (netbase < 0.001) netbase = 0.001
        printf "%-46s %10.1f %10.1f %10.1fx %s\n", label, ms, net * 1e6 / n, net / netbase, result
    }
    END {
        printf "single values\n"
        scanline("  scan only (subtracted below)", vs, rs)
        line("  bitfield: v <@ bytea", vb, vs, probes, vb, rb)
        line("  range array: zm_int4_in_rangearray", vr, vs, probes, vb, rr)
        line("  int4multirange @> v", vm, vs, probes, vb, rm)
        line("  v = ANY(int4[])", va, vs, probes, vb, ra)
        printf "1000-value ranges\n"
        scanline("  scan only (subtracted below)", xs, "")
        line("  bitfield: int8 && bytea", xb, xs, rangeprobes, xb, xrb)
        line("  range array: zm_int4rangepacked_in_rangearray", xr, xs, rangeprobes, xb, xrr)
        line("  int4multirange && int4range", xm, xs, rangeprobes, xb, xrm)
        line("  bitfield (on the = ANY probes)", yb, ys, anyprobes, yb, yrb)
        line("  EXISTS(value = ANY(int4[])) over the range", ya, ys, anyprobes, yb, yra)
    }'
}
report -v vs="${MS[v_scan]}" -v vb="${MS[v_bitfield]}" -v vr="${MS[v_rangearray]}" -v vm="${MS[v_multirange]}" \
       -v va="${MS[v_any]}" -v rs="${RESULT[v_scan]}" -v rb="${RESULT[v_bitfield]}" -v rr="${RESULT[v_rangearray]}" \
       -v rm="${RESULT[v_multirange]}" -v ra="${RESULT[v_any]}" \
       -v xs="${MS[r_scan]}" -v xb="${MS[r_bitfield]}" -v xr="${MS[r_rangearray]}" -v xm="${MS[r_multirange]}" \
       -v xrb="${RESULT[r_bitfield]}" -v xrr="${RESULT[r_rangearray]}" -v xrm="${RESULT[r_multirange]}" \
       -v ys="${MS[r_any_scan]}" -v yb="${MS[r_bitfield_small]}" -v ya="${MS[r_any]}" \
       -v yrb="${RESULT[r_bitfield_small]}" -v yra="${RESULT[r_any]}"

echo
echo "building a bitfield from a range array (256 MB of bitfield, 2^31 values)"
awk -v one="${MS[b_one]}" -v many="${MS[b_many]}" 'BEGIN {
    mb = 268435456 / 1e6
    printf "  %-42s %10.0f MB/s  (%.1f ms)\n", "server, one range", mb / (one / 1000), one
    printf "  %-42s %10.0f MB/s  (%.1f ms, array detoast included)\n", "server, 10^6 ranges", mb / (many / 1000), many
}'
echo "  reference on this machine, 1 range:"
sed 's/^/    /' "$WORK/memset_1.txt"
echo "  reference on this machine, 10^6 ranges:"
sed 's/^/    /' "$WORK/memset_1m.txt"

# Every method must agree on the answers.
if [ "${RESULT[v_bitfield]}" != "${RESULT[v_rangearray]}" ] || [ "${RESULT[v_bitfield]}" != "${RESULT[v_multirange]}" ] ||
   [ "${RESULT[v_bitfield]}" != "${RESULT[v_any]}" ] || [ "${RESULT[r_bitfield]}" != "${RESULT[r_rangearray]}" ] ||
   [ "${RESULT[r_bitfield]}" != "${RESULT[r_multirange]}" ] || [ "${RESULT[r_bitfield_small]}" != "${RESULT[r_any]}" ]; then
    echo "MISMATCH between methods" >&2
    exit 1
fi
echo
echo "all methods agree"
