CREATE EXTENSION IF NOT EXISTS kestrava_range_operators;
-- zm_int4set_agg_optimized: values in 0..maxinput folded into a bitfield sized on the first row.
-- Rows come from unnest() or VALUES, so they reach the aggregate in order.

-- No rows: the empty one-dimensional int4[] (24 bytes) for every form and output letter.
SELECT l, t.*
FROM unnest('{r,s,m}'::"char"[]) l,
     LATERAL (SELECT zm_int4set_agg_optimized(x, 10, l) AS a,
                     array_ndims(zm_int4set_agg_optimized(x, 10, l)) AS ndims,
                     array_length(zm_int4set_agg_optimized(x, 10, l), 1) AS len,
                     pg_column_size(zm_int4set_agg_optimized(x, 10, l)) AS bytes
              FROM unnest('{}'::int4[]) x) t;
SELECT zm_int4set_agg_optimized(x, x, 10, 'm') AS pairs, zm_int4set_agg_optimized('r', ARRAY[x, x], 10, 's') AS sets
FROM unnest('{}'::int4[]) x;

-- One value per row.
SELECT zm_int4set_agg_optimized(x, 100, 'r') AS r, zm_int4set_agg_optimized(x, 100, 's') AS s,
       zm_int4set_agg_optimized(x, 100, 'm') AS m
FROM unnest('{1,2,3,7}'::int4[]) x;
SELECT zm_int4set_agg_optimized(x, 100, 'r') AS r, zm_int4set_agg_optimized(x, 100, 'm') AS m
FROM unnest('{7,NULL,3,1,2,2,7,0}'::int4[]) x;
SELECT zm_int4set_agg_optimized(x, 100, 'r') AS r, zm_int4set_agg_optimized(x, 100, 'm') AS m
FROM unnest('{NULL}'::int4[]) x;
-- maxinput 10 uses 2 bytes: values up to 15 are accepted.
SELECT zm_int4set_agg_optimized(x, 10, 's') FROM unnest('{15,0,11}'::int4[]) x;
-- maxinput and the letters are read on the first row only.
SELECT zm_int4set_agg_optimized(x, m, l) FROM (VALUES (5, 10, 'r'::"char"), (12, 1000, 's'), (3, -1, 'x')) v(x, m, l);
-- maxinput 63 and 64: 8 and 9 bytes in use.
SELECT zm_int4set_agg_optimized(x, 63, 'r') AS m63 FROM unnest('{0,63}'::int4[]) x;
SELECT zm_int4set_agg_optimized(x, 64, 'r') AS m64 FROM unnest('{64,71,70,65,66,67,68,69}'::int4[]) x;
-- The top of the int4 range.
SELECT zm_int4set_agg_optimized(x, 2147483647, 'm') AS m
FROM unnest('{2147483647,2147483646,0,2147483640}'::int4[]) x;

-- A lower and an upper bound per row; reversed bounds add nothing.
SELECT zm_int4set_agg_optimized(5, 9, 100, 's');
SELECT zm_int4set_agg_optimized(9, 3, 100, 'r') AS reversed;
SELECT zm_int4set_agg_optimized(lo, hi, 100, 'r') AS r, zm_int4set_agg_optimized(lo, hi, 100, 'm') AS m
FROM (VALUES (1, 3), (10, 12), (4, 4), (20, 30), (13, 19), (50, 40), (NULL, 60), (60, NULL)) v(lo, hi);
SELECT zm_int4set_agg_optimized(lo, hi, 100, 'r') FROM (VALUES (0, 0), (8, 15), (16, 103)) v(lo, hi);

-- A set per row, with its kind letter.
SELECT zm_int4set_agg_optimized('s', a, 20, 'r')
FROM (VALUES ('{5,1,2}'::int4[]), ('{3,9}'), ('{}'), (NULL), ('{{7,8},{9,10}}'), ('{11,NULL}')) v(a);
SELECT zm_int4set_agg_optimized('r', a, 20, 'r') AS r, zm_int4set_agg_optimized('r', a, 20, 's') AS s
FROM (VALUES ('{1,3,10,12}'::int4[]), ('{4,5}'), ('{20,20}'), ('{9,6}')) v(a);
SELECT zm_int4set_agg_optimized('m', a, 20, 'r') AS r, zm_int4set_agg_optimized('m', a, 20, 'm') AS m
FROM (VALUES ('{1,5}'::int4[]), ('{4,-2147483638,12,7}'), ('{1}')) v(a);
-- A range opener that is the last element has no upper bound: the row is refused.
SELECT zm_int4set_agg_optimized('m', a, 20, 'r') FROM (VALUES ('{1,5}'::int4[]), ('{1,-2147483630}')) v(a);
\echo :LAST_ERROR_SQLSTATE

-- Errors.
SELECT zm_int4set_agg_optimized(x, 0, 'r') FROM unnest('{1}'::int4[]) x;
\echo :LAST_ERROR_SQLSTATE
SELECT zm_int4set_agg_optimized(x, -5, 'x') FROM unnest('{1}'::int4[]) x;
\echo :LAST_ERROR_SQLSTATE
SELECT zm_int4set_agg_optimized(x, NULL, 'r') FROM unnest('{1}'::int4[]) x;
\echo :LAST_ERROR_SQLSTATE
SELECT zm_int4set_agg_optimized(1, NULL, 100, 'r');
\echo :LAST_ERROR_SQLSTATE
SELECT zm_int4set_agg_optimized('s', NULL::int4[], 100, 'r');
\echo :LAST_ERROR_SQLSTATE
SELECT zm_int4set_agg_optimized(x, 10, 'r') FROM unnest('{1,16}'::int4[]) x;
\echo :LAST_ERROR_SQLSTATE
SELECT zm_int4set_agg_optimized(x, 10, 'r') FROM unnest('{-1}'::int4[]) x;
\echo :LAST_ERROR_SQLSTATE
SELECT zm_int4set_agg_optimized(8, 16, 10, 'r');
\echo :LAST_ERROR_SQLSTATE
SELECT zm_int4set_agg_optimized(-1, 3, 10, 'r');
\echo :LAST_ERROR_SQLSTATE
SELECT zm_int4set_agg_optimized('s', '{1,2,16,3}'::int4[], 10, 'r');
\echo :LAST_ERROR_SQLSTATE
SELECT zm_int4set_agg_optimized('r', '{1,2,-3,3}'::int4[], 10, 'r');
\echo :LAST_ERROR_SQLSTATE
SELECT zm_int4set_agg_optimized('m', '{9,1,-2147483638,20}'::int4[], 10, 'r');
\echo :LAST_ERROR_SQLSTATE
SELECT zm_int4set_agg_optimized('r', '{1,2,3}'::int4[], 10, 'r');
\echo :LAST_ERROR_SQLSTATE
SELECT zm_int4set_agg_optimized(x, 10, 'x') FROM unnest('{1}'::int4[]) x;
\echo :LAST_ERROR_SQLSTATE
SELECT zm_int4set_agg_optimized('R', '{1}'::int4[], 10, 's');
\echo :LAST_ERROR_SQLSTATE
-- All 2147483648 values of 0 .. 2147483647 (a bitfield of 256 MB): too many for a scalar array.
SELECT zm_int4set_agg_optimized(0, 2147483647, 2147483647, 's');
\echo :LAST_ERROR_SQLSTATE

-- The serialised state, shown by an aggregate whose final function is the serial function:
-- input type byte, output type byte, int32 capacity, then the bytes in use (0x80 is value 0).
CREATE AGGREGATE pg_temp.opt_state(int4, int4, "char") (
  SFUNC = zm_int4set_agg_optimized_transfn_A, STYPE = internal, FINALFUNC = zm_int4set_agg_optimized_serialfn);
CREATE AGGREGATE pg_temp.opt_state("char", int4[], int4, "char") (
  SFUNC = zm_int4set_agg_optimized_transfn_B, STYPE = internal, FINALFUNC = zm_int4set_agg_optimized_serialfn);
SELECT pg_temp.opt_state(x, 20, 'm') FROM unnest('{0,9,23}'::int4[]) x;
SELECT pg_temp.opt_state(x, 64, 'r') FROM unnest('{NULL}'::int4[]) x;
SELECT pg_temp.opt_state('r', '{3,17}'::int4[], 100, 's');
SELECT pg_temp.opt_state(x, 20, 'm') FROM unnest('{}'::int4[]) x;
-- Its size is 10 + (maxinput >> 3) + 1 bytes whatever the number of rows.
SELECT octet_length(pg_temp.opt_state(g % 1000000, 999999, 'r')) + 4 AS total_length
FROM generate_series(1, 300000) g;

-- Partial states combined through serial and deserial: aggregation per partition. The combined
-- state is shown by an aggregate whose final function is the serial function.
CREATE AGGREGATE pg_temp.opt_combined(int4, int4, "char") (
  SFUNC = zm_int4set_agg_optimized_transfn_A, STYPE = internal, FINALFUNC = zm_int4set_agg_optimized_serialfn,
  COMBINEFUNC = zm_int4set_agg_optimized_combinefn, SERIALFUNC = zm_int4set_agg_optimized_serialfn,
  DESERIALFUNC = zm_int4set_agg_optimized_deserialfn);
CREATE TABLE opt_parts (k int, x int4, m int4, l "char") PARTITION BY LIST (k);
CREATE TABLE opt_part1 PARTITION OF opt_parts FOR VALUES IN (1);
CREATE TABLE opt_part2 PARTITION OF opt_parts FOR VALUES IN (2);
INSERT INTO opt_parts SELECT 1, CASE WHEN g % 2 = 0 THEN 3 ELSE 15 END, 10, 'r' FROM generate_series(1, 2000) g;
INSERT INTO opt_parts SELECT 2, CASE WHEN g % 2 = 0 THEN 4 ELSE 100 END, 100, 'r' FROM generate_series(1, 2000) g;
ANALYZE opt_parts;
SET enable_partitionwise_aggregate = on;
EXPLAIN (COSTS OFF) SELECT zm_int4set_agg_optimized(x, m, l) FROM opt_parts;
-- maxinput 10 (2 bytes) in one partition, 100 (13 bytes) in the other: 13 bytes holding both sets.
SELECT zm_int4set_agg_optimized(x, m, l) AS s FROM opt_parts;
SELECT pg_temp.opt_combined(x, m, l) FROM opt_parts;
SELECT pg_temp.opt_combined(x, m, l) FROM opt_parts WHERE k = 1 OR x = 100;
SELECT k % 2 AS g, zm_int4set_agg_optimized(x, m, 's') FROM opt_parts GROUP BY 1 ORDER BY 1;
-- States built for different output letters do not combine.
UPDATE opt_parts SET l = 's' WHERE k = 2;
SELECT zm_int4set_agg_optimized(x, m, l) FROM opt_parts;
\echo :LAST_ERROR_SQLSTATE
RESET enable_partitionwise_aggregate;
SELECT zm_int4set_agg_optimized(x, m, l) FROM opt_parts;
\echo :LAST_ERROR_SQLSTATE

-- Two identical calls in one query get a state each (the final function consumes it).
SELECT zm_int4set_agg_optimized(x, 10, 'r') AS a, zm_int4set_agg_optimized(x, 10, 'r') AS b
FROM unnest('{3,1,2}'::int4[]) x;
-- Window use is refused cleanly.
SELECT zm_int4set_agg_optimized(x, 10, 'r') OVER (ORDER BY x) FROM unnest('{1,2}'::int4[]) x;
\echo :LAST_ERROR_SQLSTATE
-- Many groups: the same sets as zm_int4set_agg and array_agg(DISTINCT).
SELECT count(*) AS groups,
       count(*) FILTER (WHERE o IS DISTINCT FROM s OR so IS DISTINCT FROM d OR mo IS DISTINCT FROM ms) AS mismatches
FROM (SELECT g % 5000 AS k,
             zm_int4set_agg_optimized((g * 7919) % 100000, 99999, 'r') AS o, zm_int4set_agg((g * 7919) % 100000, 'r') AS s,
             zm_int4set_agg_optimized((g * 7919) % 100000, 99999, 'm') AS mo, zm_int4set_agg((g * 7919) % 100000, 'm') AS ms,
             zm_int4set_agg_optimized((g * 7919) % 100000, 99999, 's') AS so,
             array_agg(DISTINCT (g * 7919) % 100000 ORDER BY (g * 7919) % 100000) AS d
      FROM generate_series(1, 200000) g GROUP BY 1) t;
DROP TABLE opt_parts;
