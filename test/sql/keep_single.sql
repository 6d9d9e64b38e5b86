CREATE EXTENSION IF NOT EXISTS kestrava_range_operators;
-- agg_keep_single: serial plans, every edge case and error.

-- one value, or a mismatch
SELECT agg_keep_single(v) FROM (VALUES (5), (5), (5)) t(v);
SELECT agg_keep_single(v) FROM (VALUES (5), (6)) t(v);
\echo :LAST_ERROR_SQLSTATE
-- policy false keeps the first row's value
SELECT agg_keep_single(v, false) FROM (VALUES (5), (6)) t(v);
SELECT agg_keep_single(v, false) FROM (VALUES (6), (5)) t(v);
SELECT agg_keep_single(v, true) FROM (VALUES (5), (5)) t(v);
SELECT agg_keep_single(v, true) FROM (VALUES (5), (6)) t(v);
\echo :LAST_ERROR_SQLSTATE
-- a NULL policy reads as false
SELECT agg_keep_single(v, NULL) FROM (VALUES (5), (6)) t(v);
SELECT agg_keep_single(v, p) FROM (VALUES (5, NULL::bool), (6, false)) t(v, p);
-- the policy must not change between rows
SELECT agg_keep_single(v, p) FROM (VALUES (1, true), (1, false)) t(v, p);
\echo :LAST_ERROR_SQLSTATE
SELECT agg_keep_single(v, p) FROM (VALUES (1, false), (2, true)) t(v, p);
\echo :LAST_ERROR_SQLSTATE

-- every supported type
SELECT agg_keep_single(v) FROM (VALUES (true), (true)) t(v);
SELECT agg_keep_single(v) FROM (VALUES (false), (true)) t(v);
\echo :LAST_ERROR_SQLSTATE
SELECT agg_keep_single(v) FROM (VALUES ('\xdeadbeef'::bytea), ('\xdeadbeef')) t(v);
SELECT agg_keep_single(v) FROM (VALUES ('\xdeadbeef'::bytea), ('\xdeadbe')) t(v);
\echo :LAST_ERROR_SQLSTATE
SELECT agg_keep_single(v) FROM (VALUES (''::bytea), ('')) t(v);
SELECT agg_keep_single(v) FROM (VALUES (9223372036854775807::int8), (9223372036854775807)) t(v);
SELECT agg_keep_single(v) FROM (VALUES (-1::int8), (4294967295)) t(v);
\echo :LAST_ERROR_SQLSTATE
SELECT agg_keep_single(v) FROM (VALUES ((-32768)::int2), ((-32768)::int2)) t(v);
SELECT agg_keep_single(v) FROM (VALUES (1::int2), (2::int2)) t(v);
\echo :LAST_ERROR_SQLSTATE
SELECT agg_keep_single(v) FROM (VALUES (-2147483648), (-2147483648)) t(v);
SELECT agg_keep_single(v) FROM (VALUES ('abc'::text), ('abc')) t(v);
SELECT agg_keep_single(v) FROM (VALUES ('abc'::text), ('abd')) t(v);
\echo :LAST_ERROR_SQLSTATE
SELECT agg_keep_single(v) FROM (VALUES (''::text), ('')) t(v);
SELECT agg_keep_single(v) FROM (VALUES ('abc'::text), ('abc ')) t(v);
\echo :LAST_ERROR_SQLSTATE
-- text compares bytes, whatever the collation says
SELECT agg_keep_single(v COLLATE "C") FROM (VALUES ('abc'::text), ('abc')) t(v);
SELECT agg_keep_single(v) FROM (VALUES (1.5::float4), (1.5)) t(v);
SELECT agg_keep_single(v) FROM (VALUES ('NaN'::float4), ('NaN')) t(v);
SELECT agg_keep_single(v) FROM (VALUES (0.0::float4), (-0.0)) t(v);
SELECT agg_keep_single(v) FROM (VALUES (0.1::float8), (0.1)) t(v);
SELECT agg_keep_single(v) FROM (VALUES ('NaN'::float8), ('NaN')) t(v);
SELECT agg_keep_single(v) FROM (VALUES ('-Infinity'::float8), ('-Infinity')) t(v);
SELECT agg_keep_single(v) FROM (VALUES (0.0::float8), (-0.0)) t(v);
SELECT agg_keep_single(v) FROM (VALUES (-0.0::float8), (0.0)) t(v);
\echo :LAST_ERROR_SQLSTATE
SELECT agg_keep_single(v, false) FROM (VALUES (-0.0::float8), (0.0)) t(v);
SELECT pg_typeof(agg_keep_single(v)) FROM (VALUES (1::int2)) t(v);
SELECT pg_typeof(agg_keep_single(v, true)) FROM (VALUES ('x'::bytea)) t(v);

-- NULLs
SELECT agg_keep_single(v) IS NULL FROM (VALUES (NULL::int4), (NULL)) t(v);
SELECT agg_keep_single(v) IS NULL FROM (VALUES (NULL::text), (NULL)) t(v);
SELECT agg_keep_single(v) IS NULL FROM (VALUES (NULL::numeric), (NULL)) t(v);
SELECT agg_keep_single(v) IS NULL FROM (VALUES (NULL::date)) t(v);
SELECT agg_keep_single(v) IS NULL FROM (SELECT 1 WHERE false) t(v);
SELECT agg_keep_single(v) FROM (VALUES (NULL::int4), (3)) t(v);
\echo :LAST_ERROR_SQLSTATE
SELECT agg_keep_single(v, false) IS NULL FROM (VALUES (NULL::int4), (3)) t(v);
SELECT agg_keep_single(v) FROM (VALUES (NULL::text), ('a')) t(v);
\echo :LAST_ERROR_SQLSTATE
SELECT agg_keep_single(v) FROM (VALUES (NULL::numeric), (1.0)) t(v);
\echo :LAST_ERROR_SQLSTATE
SELECT agg_keep_single(v, false) IS NULL FROM (VALUES (NULL::numeric), (1.0)) t(v);
-- a NULL after a kept by-value value compares as the datum 0
SELECT agg_keep_single(v) FROM (VALUES (0), (NULL)) t(v);
SELECT agg_keep_single(v) FROM (VALUES (7), (NULL)) t(v);
\echo :LAST_ERROR_SQLSTATE
SELECT agg_keep_single(v) FROM (VALUES (false), (NULL)) t(v);
SELECT agg_keep_single(v) FROM (VALUES (0.0::float8), (NULL)) t(v);
-- a NULL after a kept text or bytea value is a mismatch
SELECT agg_keep_single(v) FROM (VALUES ('a'::text), (NULL)) t(v);
\echo :LAST_ERROR_SQLSTATE
SELECT agg_keep_single(v) FROM (VALUES (''::bytea), (NULL)) t(v);
\echo :LAST_ERROR_SQLSTATE
SELECT agg_keep_single(v, false) FROM (VALUES ('a'::text), (NULL)) t(v);

-- unsupported types fail on their first non-NULL row
SELECT agg_keep_single(v) FROM (VALUES (1.0::numeric)) t(v);
\echo :LAST_ERROR_SQLSTATE
SELECT agg_keep_single(v) FROM (VALUES ('2020-01-01'::date)) t(v);
\echo :LAST_ERROR_SQLSTATE
SELECT agg_keep_single(v, false) FROM (VALUES ('x'::varchar)) t(v);
\echo :LAST_ERROR_SQLSTATE
SELECT agg_keep_single(v) FROM (VALUES ('{1}'::int4[])) t(v);
\echo :LAST_ERROR_SQLSTATE
SELECT agg_keep_single(NULL::int4);
-- raised by the server's parser: message and SQLSTATE, not its source location
SELECT agg_keep_single(NULL);
\echo :LAST_ERROR_SQLSTATE

-- groups, sorted and hashed
CREATE TEMP TABLE groups AS SELECT g, g * 10 AS v, 'x' || g AS s FROM generate_series(1, 5) g, generate_series(1, 3);
SET enable_hashagg = off;
SELECT g, agg_keep_single(v), agg_keep_single(s) FROM groups GROUP BY g ORDER BY g;
SET enable_hashagg = on;
SET enable_sort = off;
EXPLAIN (COSTS OFF) SELECT g, agg_keep_single(v), agg_keep_single(s) FROM groups GROUP BY g;
SELECT g, agg_keep_single(v), agg_keep_single(s) FROM groups GROUP BY g ORDER BY g;
RESET enable_sort;
SELECT g, agg_keep_single(v) FROM (SELECT g, v + CASE WHEN g = 4 THEN n ELSE 0 END AS v
                                   FROM groups, generate_series(0, 1) n) x GROUP BY g ORDER BY g;
\echo :LAST_ERROR_SQLSTATE

-- two identical calls in one query get a state each
SELECT agg_keep_single(v), agg_keep_single(v), agg_keep_single(v, false) FROM (VALUES (1), (1)) t(v);
SELECT agg_keep_single(s), agg_keep_single(s) FROM groups WHERE g = 2;
-- the final function consumes its state: no window use
SELECT agg_keep_single(v) OVER () FROM (VALUES (1), (1)) t(v);
\echo :LAST_ERROR_SQLSTATE
SELECT agg_keep_single(v, true) OVER (ORDER BY v) FROM (VALUES (1), (1)) t(v);
\echo :LAST_ERROR_SQLSTATE
-- in a subquery evaluated once per outer row
SELECT g, (SELECT agg_keep_single(s) FROM groups i WHERE i.g = o.g) FROM generate_series(1, 3) o(g);
-- ordered input: policy false keeps the first row in that order
SELECT agg_keep_single(v, false ORDER BY v DESC) FROM (VALUES (1), (3), (2)) t(v);
SELECT agg_keep_single(DISTINCT v) FROM (VALUES (1), (1)) t(v);

-- The serialised state, seen through a test aggregate whose final step is the serial function.
CREATE FUNCTION keep_single_serialised_state(internal) RETURNS bytea
AS '$libdir/libKestravaPgRangeOperators3_0', 'zm_agg_keep_single_serialfn' LANGUAGE C STRICT;
CREATE AGGREGATE keep_single_serialised(anyelement) (
  SFUNC = zm_agg_keep_single_transfn, STYPE = internal, FINALFUNC = keep_single_serialised_state);
-- kind 1: length word, kind, flags (bit 0 NULL, bit 1 policy), type oid, 8-byte datum (little-endian):
-- 18 bytes
SELECT s, octet_length(s) + 4 AS total_size
FROM (SELECT keep_single_serialised(5) AS s UNION ALL SELECT keep_single_serialised(-1)
      UNION ALL SELECT keep_single_serialised(true) UNION ALL SELECT keep_single_serialised((-2)::int2)
      UNION ALL SELECT keep_single_serialised(72623859790382856::int8)
      UNION ALL SELECT keep_single_serialised(-0.0::float8) UNION ALL SELECT keep_single_serialised(1::float4)
      UNION ALL SELECT keep_single_serialised(NULL::int4) UNION ALL SELECT keep_single_serialised(NULL::numeric)) v;
-- kind 2: length word, kind, flags, type oid, the value's bytes
SELECT s, octet_length(s) + 4 AS total_size
FROM (SELECT keep_single_serialised('ab'::text) AS s UNION ALL SELECT keep_single_serialised('\x00ff'::bytea)
      UNION ALL SELECT keep_single_serialised(''::text) UNION ALL SELECT keep_single_serialised(NULL::text)
      UNION ALL SELECT keep_single_serialised(NULL::bytea)) v;
SELECT octet_length(keep_single_serialised(repeat('xyz', 100000))) AS large_text_state;

-- The decoder, given bytes through a test aggregate whose partial states are the first value
-- itself (the final function, declared as serial function, hands out the kept bytea).
CREATE FUNCTION keep_single_raw_state(internal) RETURNS bytea
AS '$libdir/libKestravaPgRangeOperators3_0', 'zm_agg_keep_single_finalfn' LANGUAGE C STRICT;
CREATE AGGREGATE keep_single_from_bytes(bytea) (
  SFUNC = zm_agg_keep_single_transfn, STYPE = internal,
  FINALFUNC = zm_agg_keep_single_finalfn, FINALFUNC_EXTRA, FINALFUNC_MODIFY = READ_WRITE,
  COMBINEFUNC = zm_agg_keep_single_combinefn, SERIALFUNC = keep_single_raw_state,
  DESERIALFUNC = zm_agg_keep_single_deserialfn, PARALLEL = SAFE);
-- A state of an unsupported type reaches the combine step only this way.
CREATE FUNCTION keep_single_numeric_result(internal, bytea) RETURNS numeric
AS '$libdir/libKestravaPgRangeOperators3_0', 'zm_agg_keep_single_finalfn' LANGUAGE C;
CREATE AGGREGATE keep_single_numeric_from_bytes(bytea) (
  SFUNC = zm_agg_keep_single_transfn, STYPE = internal,
  FINALFUNC = keep_single_numeric_result, FINALFUNC_EXTRA, FINALFUNC_MODIFY = READ_WRITE,
  COMBINEFUNC = zm_agg_keep_single_combinefn, SERIALFUNC = keep_single_raw_state,
  DESERIALFUNC = zm_agg_keep_single_deserialfn, PARALLEL = SAFE);
CREATE TABLE keep_single_bytes (b bytea);
SET parallel_setup_cost = 0;
SET parallel_tuple_cost = 0;
SET min_parallel_table_scan_size = 0;
SET max_parallel_workers_per_gather = 2;
\set SHOW_CONTEXT never
EXPLAIN (COSTS OFF) SELECT keep_single_from_bytes(b) FROM keep_single_bytes;
CREATE FUNCTION pg_temp.decode_state(bytes bytea) RETURNS text LANGUAGE plpgsql AS $$
DECLARE
  result text;
BEGIN
  TRUNCATE keep_single_bytes;
  INSERT INTO keep_single_bytes VALUES (bytes);
  SELECT keep_single_from_bytes(b)::text INTO result FROM keep_single_bytes;
  RETURN result;
EXCEPTION WHEN OTHERS THEN
  RETURN 'ERROR ' || SQLSTATE || ': [' || SQLERRM || ']';
END $$;
SELECT b, pg_temp.decode_state(b)
FROM (VALUES ('\x'::bytea),                              -- nothing after the length word
             ('\x03'), ('\x0300110000006869'), ('\x00'), -- kinds other than 1 and 2
             ('\x01'), ('\x0100170000'), ('\x010017000000070000000000000000'), -- kind 1 not 18 bytes
             ('\x02'), ('\x0200'), ('\x0200110000'),    -- kind 2 shorter than its header
             ('\x0200110000006869'),                     -- a bytea 'hi'
             ('\x020111000000'),                         -- a kept NULL bytea
             ('\x020011000000'),                         -- an empty bytea
             ('\x0100110000000102030405060708'),         -- kind 1 cannot carry a bytea value
             ('\x0101110000000000000000000000'),         -- ...but a NULL one
             ('\x0100170000000700000000000000')          -- an int4 state for a bytea aggregate
     ) v(b);
TRUNCATE keep_single_bytes;
INSERT INTO keep_single_bytes VALUES ('\x03');
SELECT keep_single_from_bytes(b) FROM keep_single_bytes;
\echo :LAST_ERROR_SQLSTATE
TRUNCATE keep_single_bytes;
INSERT INTO keep_single_bytes VALUES ('\x0100a40600000700000000000000');
SELECT keep_single_numeric_from_bytes(b) FROM keep_single_bytes;
\echo :LAST_ERROR_SQLSTATE
RESET parallel_setup_cost;
RESET parallel_tuple_cost;
RESET min_parallel_table_scan_size;
RESET max_parallel_workers_per_gather;
DROP TABLE keep_single_bytes;
DROP AGGREGATE keep_single_numeric_from_bytes(bytea);
DROP FUNCTION keep_single_numeric_result(internal, bytea);
DROP AGGREGATE keep_single_from_bytes(bytea);
DROP FUNCTION keep_single_raw_state(internal);
DROP AGGREGATE keep_single_serialised(anyelement);
DROP FUNCTION keep_single_serialised_state(internal);

-- A hashed aggregate that is rescanned without new input finalises every group again; the kept
-- values must still be there (the input scan runs once, the aggregate's output three times).
SET enable_sort = off;
SET max_parallel_workers_per_gather = 0;
CREATE TEMP TABLE ks_rescan_rows AS
SELECT g, repeat('value ' || g, 400) AS t, g::int8 * 10 AS i FROM generate_series(1, 3) g, generate_series(1, 5);
CREATE TEMP TABLE ks_rescan_outer AS SELECT generate_series(1, 3) AS s;
ANALYZE ks_rescan_rows, ks_rescan_outer;
SELECT o.s, (SELECT left(a.v, 14) || length(a.v) FROM (SELECT g, agg_keep_single(t) AS v FROM ks_rescan_rows GROUP BY g) a
             WHERE a.g = o.s + 0 * length(a.v)) AS kept_text
FROM ks_rescan_outer o ORDER BY o.s;
SELECT o.s, (SELECT a.v FROM (SELECT g, agg_keep_single(i, false) AS v FROM ks_rescan_rows GROUP BY g) a
             WHERE a.g = o.s + 0 * a.v) AS kept_int8
FROM ks_rescan_outer o ORDER BY o.s;
EXPLAIN (COSTS OFF)
SELECT o.s, (SELECT left(a.v, 14) || length(a.v) FROM (SELECT g, agg_keep_single(t) AS v FROM ks_rescan_rows GROUP BY g) a
             WHERE a.g = o.s + 0 * length(a.v)) AS kept_text
FROM ks_rescan_outer o ORDER BY o.s;
RESET enable_sort;
RESET max_parallel_workers_per_gather;
