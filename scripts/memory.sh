#!/usr/bin/env bash
# Memory measurements with the backend's own memory context statistics (pg_backend_memory_contexts),
# larger than the regression test's: 10^6 calls of the set operators, tests and conversions in one
# query; the aggregates over ROWS rows (default 10^8) sampled while they run; the size of each
# aggregate's state; hashed GROUP BY over many groups under two work_mem settings; requests at and
# past the 1 GB allocation limit. Prints bytes; fails when memory grows where it must not.
#
# Usage: bash scripts/memory.sh [rows]   (default 100000000, at least 10^6)
source "$(dirname "$0")/lib.sh"
rows=${1:-100000000}

ensure_dependencies
build_extension
install_extension
start_throwaway_server

out=$(mktemp)
psql -X -q -v ON_ERROR_STOP=1 -v rows="$rows" <<'SQL' | tee "$out"
CREATE EXTENSION kestrava_range_operators;
SET max_parallel_workers_per_gather = 0;  -- the samples see this backend only
SET jit = off;
\pset footer off

-- Bytes held by all memory contexts of this backend, and by the aggregate states' own contexts
-- (named after the support function that creates them), read while the calling query runs.
CREATE FUNCTION backend_bytes(sample bigint) RETURNS bigint LANGUAGE sql VOLATILE
  AS 'SELECT sum(total_bytes)::bigint FROM pg_backend_memory_contexts';
CREATE FUNCTION state_bytes(sample anyelement) RETURNS bigint LANGUAGE sql VOLATILE
  AS $$SELECT coalesce(sum(total_bytes), 0)::bigint FROM pg_backend_memory_contexts WHERE name LIKE 'zm\_%'$$;
CREATE TABLE growth (what text, calls bigint, first_sample bigint, max_sample bigint, growth bigint, state_at_end bigint);

-- 10^6 calls per query; samples every 10^5 rows, the first one after 10^5 rows.
SELECT setseed(0.5) \g /dev/null
CREATE TABLE sets AS
SELECT i, ARRAY[i * 100, i * 100 + (random() * 40)::int, i * 100 + 50, i * 100 + 60 + (random() * 30)::int] AS a,
          ARRAY[i * 100 + 20, i * 100 + 55 + (random() * 10)::int] AS b
FROM generate_series(1, 1000000) i;
INSERT INTO growth
SELECT 'set operators and tests x 9', count(r), min(m), max(m), max(m) - min(m), NULL
FROM (SELECT cardinality(zm_int4range_union(a, b)) + cardinality(zm_int4range_intersection(a, b))
             + cardinality(zm_int4range_exclusion(a, b)) + (a &&& b)::int + (b <@@ a)::int
             + zm_int4range_is_overlap(a, b)::int + zm_int4range_is_strictly_include(b, a)::int
             + (i * 100 + 20 <@ a)::int + (zm_range_pack(a[1], a[2]) && b)::int AS r,
             CASE WHEN i % 100000 = 0 THEN backend_bytes(i) END AS m FROM sets) s;
INSERT INTO growth
SELECT 'conversions x 8', count(r), min(m), max(m), max(m) - min(m), NULL
FROM (SELECT cardinality(zm_int4setconv_int4('r', a, 's')) + cardinality(zm_int4setconv_int4('r', a, 'm'))
             + cardinality(zm_int4setconv_int4('s', zm_int4setconv_int4('r', a, 's'), 'r'))
             + cardinality(zm_int4setconv_int4('m', zm_int4setconv_int4('r', a, 'm'), 's'))
             + cardinality(zm_sort_int4(a || b)) + zm_count_scalar_in_int4set('r', a) AS r,
             CASE WHEN i % 100000 = 0 THEN backend_bytes(i) END AS m FROM sets) s;
INSERT INTO growth
SELECT 'bitfield builds and tests x 7', count(r), min(m), max(m), max(m) - min(m), NULL
FROM (SELECT octet_length(zm_int4set2bitfield_int4('r', a))
             + zm_int4set_overlap_bitfield('r', b, zm_int4set2bitfield_int4('r', a))::int
             + zm_int4set_included_in_bitfield('s', b, zm_int4set2bitfield_int4('r', a))::int
             + (i * 100 <@ zm_int4set2bitfield_int4('r', a))::int AS r,
             CASE WHEN i % 100000 = 0 THEN backend_bytes(i) END AS m FROM sets) s;
INSERT INTO growth
SELECT 'array_agg (control: grows)', c, mn, mx, mx - mn, NULL
FROM (SELECT count(*) AS c, min(m) AS mn, max(m) AS mx, cardinality(array_agg(i)) AS n
      FROM (SELECT i, CASE WHEN i % 100000 = 0 THEN backend_bytes(i) END AS m FROM sets) s) t
WHERE n > 0;
DROP TABLE sets;

-- The aggregates over :rows rows x = 0, 1, 2, ... (in batches of 1000 from a nested
-- generate_series, so that little is materialised); samples every rows/10 from the first tenth
-- on, one sampling call per row (a second call site would add its own first-call cache to the
-- later samples). 'one range': values in scattered order that collapse into [0, 99999] within 10^5 rows;
-- '10^5 ranges': the even values below 2*10^5.
\set src 'FROM generate_series(0::bigint, (' :rows ' - 1) / 1000) a, LATERAL generate_series(a * 1000, least(a * 1000 + 999, ' :rows ' - 1)) x'
\set sample 'CASE WHEN x % (' :rows ' / 10) = 0 AND x > 0 THEN backend_bytes(x) END'
INSERT INTO growth
SELECT 'zm_int4set_agg, one range', :rows, mn, mx, mx - mn, state_bytes(agg)
FROM (SELECT zm_int4set_agg((x * 7919 % 100000)::int4, 'r') AS agg, min(m) AS mn, max(m) AS mx
      FROM (SELECT x, :sample AS m :src) s) t;
INSERT INTO growth
SELECT 'zm_int4set_agg, 10^5 ranges', :rows, mn, mx, mx - mn, state_bytes(agg)
FROM (SELECT zm_int4set_agg((x * 7919 % 100000 * 2)::int4, 's') AS agg, min(m) AS mn, max(m) AS mx
      FROM (SELECT x, :sample AS m :src) s) t;
INSERT INTO growth
SELECT 'zm_int4set_agg_optimized, maxinput 10^5', :rows, mn, mx, mx - mn, state_bytes(agg)
FROM (SELECT zm_int4set_agg_optimized((x * 7919 % 100000)::int4, 100000, 'r') AS agg, min(m) AS mn, max(m) AS mx
      FROM (SELECT x, :sample AS m :src) s) t;
INSERT INTO growth
SELECT 'zm_int4set_agg_optimized, maxinput 10^8', :rows, mn, mx, mx - mn, state_bytes(agg)
FROM (SELECT zm_int4set_agg_optimized((x * 7919 % 100000000)::int4, 100000000, 'm') AS agg, min(m) AS mn, max(m) AS mx
      FROM (SELECT x, :sample AS m :src) s) t;
INSERT INTO growth
SELECT 'agg_keep_single, int8', :rows, mn, mx, mx - mn, state_bytes(agg)
FROM (SELECT agg_keep_single(x / :rows) AS agg, min(m) AS mn, max(m) AS mx
      FROM (SELECT x, :sample AS m :src) s) t;
-- The set-expression aggregate takes the rows in scan order here (no ORDER BY: its sort would
-- hold the rows before the first transition), unions, intersections and exclusions in turn.
INSERT INTO growth
SELECT 'zm_int4range_op', :rows, mn, mx, mx - mn, NULL
FROM (SELECT zm_int4range_op((1 + (x % 3))::int2, ARRAY[(x % 1000)::int4 * 10, (x % 1000)::int4 * 10 + 5]) AS agg, min(m) AS mn, max(m) AS mx
      FROM (SELECT x, :sample AS m :src) s) t;
\echo
\echo 'Backend memory (bytes) sampled while each query runs, and the aggregate states at the end:'
SELECT what, calls, first_sample, max_sample, growth, state_at_end FROM growth;

-- Per-state sizes, each aggregate in a statement of its own (the states of one statement live
-- until its end). The set-expression aggregate releases its buffers in its final function: its
-- state is measured while its rows arrive.
CREATE FUNCTION measured(query text) RETURNS bigint LANGUAGE plpgsql AS $$
DECLARE
  bytes bigint;
BEGIN
  EXECUTE query INTO bytes;
  RETURN bytes;
END $$;
\echo 'State of one aggregate (its own memory context, bytes), after the rows shown:'
SELECT what, measured(query) AS bytes FROM (VALUES
  (1, 'zm_int4set_agg, 1 value', $$SELECT state_bytes(zm_int4set_agg(x, 'r')) FROM generate_series(1, 1) x$$),
  (2, 'zm_int4set_agg, 10^4 separate values', $$SELECT state_bytes(zm_int4set_agg(2 * x, 'r')) FROM generate_series(1, 10000) x$$),
  (3, 'zm_int4set_agg, 10^6 separate values, ascending', $$SELECT state_bytes(zm_int4set_agg(2 * x, 'r')) FROM generate_series(1, 1000000) x$$),
  (4, 'zm_int4set_agg, 10^6 separate values, scattered', $$SELECT state_bytes(zm_int4set_agg((x::int8 * 7919 % 1000000 * 2)::int4, 'r')) FROM generate_series(1, 1000000) x$$),
  (5, 'zm_int4set_agg_optimized, maxinput 100', $$SELECT state_bytes(zm_int4set_agg_optimized(x, 100, 'r')) FROM generate_series(1, 10) x$$),
  (6, 'zm_int4set_agg_optimized, maxinput 10^6', $$SELECT state_bytes(zm_int4set_agg_optimized(x, 1000000, 'r')) FROM generate_series(1, 10) x$$),
  (7, 'zm_int4set_agg_optimized, maxinput 2^31 - 1', $$SELECT state_bytes(zm_int4set_agg_optimized(x, 2147483647, 'r')) FROM generate_series(1, 10) x$$),
  (8, 'zm_int4range_op, 10 rows of one range', $$SELECT b FROM (SELECT zm_int4range_op(1::int2, ARRAY[x, x]) AS agg, max(state_bytes(x)) AS b FROM generate_series(1, 10) x) s WHERE agg IS NOT NULL$$),
  (9, 'agg_keep_single, int4', $$SELECT state_bytes(agg_keep_single(1)) FROM generate_series(1, 10) x$$),
  (10, 'agg_keep_single, text of 1000 bytes', $$SELECT state_bytes(agg_keep_single(repeat('x', 1000))) FROM generate_series(1, 10) x$$)
) v(n, what, query) ORDER BY n;

-- Hashed GROUP BY: 10^5 groups over 10^7 rows. Each group's state lives in a context under the
-- aggregate context, so hash aggregation counts it and spills to disk past work_mem.
CREATE TABLE hashed (what text, work_mem text, max_sample bigint);
SET enable_sort = off;
SET work_mem = '4MB';
INSERT INTO hashed
SELECT 'zm_int4set_agg, 10^5 groups, 10^7 rows', current_setting('work_mem'), max(mx)
FROM (SELECT x % 100000 AS g, zm_int4set_agg(x::int4, 'r') AS agg,
             max(CASE WHEN x % 1000000 = 0 AND x > 0 THEN backend_bytes(x) END) AS mx
      FROM generate_series(0::bigint, 9) a, LATERAL generate_series(a * 1000000, a * 1000000 + 999999) x GROUP BY 1) t;
INSERT INTO hashed
SELECT 'zm_int4set_agg_optimized, 10^5 groups, 10^7 rows', current_setting('work_mem'), max(mx)
FROM (SELECT x % 100000 AS g, zm_int4set_agg_optimized((x / 100000)::int4, 100, 'r') AS agg,
             max(CASE WHEN x % 1000000 = 0 AND x > 0 THEN backend_bytes(x) END) AS mx
      FROM generate_series(0::bigint, 9) a, LATERAL generate_series(a * 1000000, a * 1000000 + 999999) x GROUP BY 1) t;
SET work_mem = '64MB';
INSERT INTO hashed
SELECT 'zm_int4set_agg, 10^5 groups, 10^7 rows', current_setting('work_mem'), max(mx)
FROM (SELECT x % 100000 AS g, zm_int4set_agg(x::int4, 'r') AS agg,
             max(CASE WHEN x % 1000000 = 0 AND x > 0 THEN backend_bytes(x) END) AS mx
      FROM generate_series(0::bigint, 9) a, LATERAL generate_series(a * 1000000, a * 1000000 + 999999) x GROUP BY 1) t;
RESET work_mem;
RESET enable_sort;
\echo 'Hashed aggregation, highest backend memory sampled (bytes):'
SELECT * FROM hashed;

-- Requests at and past the allocation limit (1 GB per allocation; an int4[] holds at most
-- 268435449 elements in it).
CREATE FUNCTION outcome(query text) RETURNS text LANGUAGE plpgsql AS $$
DECLARE
  result text;
BEGIN
  EXECUTE query INTO result;
  RETURN 'ok: ' || result;
EXCEPTION WHEN OTHERS THEN
  RETURN SQLSTATE || CASE WHEN SQLERRM = '' THEN '' ELSE ': ' || SQLERRM END;
END $$;
\echo 'At and past the allocation limit:'
SELECT request, outcome(query) FROM (VALUES
  ('r -> s, 268435449 values (the largest int4[])', $$SELECT array_length(zm_int4setconv_int4('r', '{0,268435448}'::int4[], 's'), 1)$$),
  ('r -> s, 268435450 values', $$SELECT array_length(zm_int4setconv_int4('r', '{0,268435449}'::int4[], 's'), 1)$$),
  ('zm_int4set_agg scalar, 268435449 values', $$SELECT array_length(zm_int4set_agg(0, 268435448, 's'), 1)$$),
  ('zm_int4set_agg scalar, 268435450 values', $$SELECT array_length(zm_int4set_agg(0, 268435449, 's'), 1)$$),
  ('zm_bytea2floatarray, 268435449 floats', $$SELECT array_length(zm_bytea2floatarray(string_agg(c, '' ORDER BY n)), 1)
      FROM (SELECT n, decode(repeat('00', CASE WHEN n <= 1023 THEN 1048576 ELSE 1048548 END), 'hex') AS c FROM generate_series(1, 1024) n) s$$),
  ('zm_bytea2floatarray, 268435454 floats', $$SELECT array_length(zm_bytea2floatarray(string_agg(c, '' ORDER BY n)), 1)
      FROM (SELECT n, decode(repeat('00', CASE WHEN n <= 1023 THEN 1048576 ELSE 1048568 END), 'hex') AS c FROM generate_series(1, 1024) n) s$$)
) r(request, query);
SQL
status=${PIPESTATUS[0]}
[ "$status" -eq 0 ] || exit "$status"

# Where memory must stay flat, it does: growth below 64 kB, and the control grows.
awk -F'|' '/^ (set operators|conversions|bitfield|zm_[a-z0-9_]*(,| +\|)|agg_keep_single, int8)/ { gsub(/ /, "", $5); if ($5 + 0 >= 65536) { print "memory grew: " $0; bad = 1 } }
           /^ array_agg/ { gsub(/ /, "", $5); if ($5 + 0 < 65536) { print "the control did not grow: " $0; bad = 1 } }
           END { exit bad }' "$out"
rm -f "$out"
echo "memory: bounded where it must be"
