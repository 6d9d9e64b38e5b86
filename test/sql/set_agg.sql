CREATE EXTENSION IF NOT EXISTS kestrava_range_operators;
-- zm_int4set_agg: values, lower/upper pairs or sets from many rows into one set.
-- Rows come from unnest(), so they reach the aggregate in array order.

-- No rows: the empty one-dimensional int4[] (24 bytes) for every form and output letter.
SELECT l, t.*
FROM unnest('{r,s,m}'::"char"[]) l,
     LATERAL (SELECT zm_int4set_agg(x, l) AS a, array_ndims(zm_int4set_agg(x, l)) AS ndims,
                     array_length(zm_int4set_agg(x, l), 1) AS len, array_lower(zm_int4set_agg(x, l), 1) AS lb,
                     pg_column_size(zm_int4set_agg(x, l)) AS bytes
              FROM unnest('{}'::int4[]) x) t;
SELECT zm_int4set_agg(x, x, 'm') AS pairs, zm_int4set_agg('r', ARRAY[x, x], 's') AS sets
FROM unnest('{}'::int4[]) x;

-- One value per row.
SELECT zm_int4set_agg(x, 'r') AS r, zm_int4set_agg(x, 's') AS s, zm_int4set_agg(x, 'm') AS m
FROM unnest('{1,2,3,7}'::int4[]) x;
SELECT zm_int4set_agg(x, 'r') AS r, zm_int4set_agg(x, 's') AS s, zm_int4set_agg(x, 'm') AS m
FROM unnest('{7,3,1,2,2,7}'::int4[]) x;
-- NULL values add nothing; a state that saw only NULLs is an empty set.
SELECT zm_int4set_agg(x, 'r') AS r, zm_int4set_agg(x, 'm') AS m FROM unnest('{5,NULL,4}'::int4[]) x;
SELECT zm_int4set_agg(x, 'r') AS r, zm_int4set_agg(x, 's') AS s, zm_int4set_agg(x, 'm') AS m
FROM unnest('{NULL,NULL}'::int4[]) x;
-- Bounds of int4: a range ending at 2147483647 goes to the front of the list without merging
-- (its upper + 1 wraps), and later rows are inserted into the list as it stands.
SELECT zm_int4set_agg(x, 'r') FROM unnest('{5,2147483647,6}'::int4[]) x;
SELECT zm_int4set_agg(x, 'r') FROM unnest('{2147483647,2147483646}'::int4[]) x;
SELECT zm_int4set_agg(x, 'r') AS r, zm_int4set_agg(x, 's') AS s
FROM unnest('{-2147483647,-2147483648,0}'::int4[]) x;

-- A lower and an upper bound per row.
SELECT zm_int4set_agg(5, 9, 's');
SELECT zm_int4set_agg(lo, hi, 'r') AS r, zm_int4set_agg(lo, hi, 'm') AS m
FROM (VALUES (1, 3), (10, 12), (4, 4), (20, 30), (13, 19)) v(lo, hi);
SELECT zm_int4set_agg(lo, hi, 'r') AS r FROM (VALUES (1, NULL), (NULL, 3), (8, 9)) v(lo, hi);
-- Reversed bounds are inserted as given: kept in the range output, nothing in the scalar output,
-- upper - lower + 1 in the mix count.
SELECT zm_int4set_agg(9, 3, 'r') AS r, zm_int4set_agg(9, 3, 's') AS s, zm_int4set_agg(9, 3, 'm') AS m;
SELECT zm_int4set_agg(lo, hi, 'r') FROM (VALUES (10, 20), (6, 4), (5, 5)) v(lo, hi);
SELECT zm_int4set_agg(2147483645, 2147483647, 's') AS s, zm_int4set_agg(-3, -1, 'm') AS m;

-- A set per row, with its kind letter.
SELECT zm_int4set_agg('s', a, 'r') FROM (VALUES ('{5,1,2}'::int4[]), ('{3,9}'), ('{}'), (NULL)) v(a);
SELECT zm_int4set_agg('r', a, 'r') AS r, zm_int4set_agg('r', a, 's') AS s
FROM (VALUES ('{1,3,10,12}'::int4[]), ('{4,5}'), ('{20,20}')) v(a);
SELECT zm_int4set_agg('m', a, 'r') AS r, zm_int4set_agg('m', a, 'm') AS m
FROM (VALUES ('{1,5}'::int4[]), ('{4,-2147483638,12,7}')) v(a);
-- A range opener without its upper bound at the end of a mix array is no item: every reader of mix
-- arrays refuses it as an invalid range definition (a negative element in the upper bound's place
-- is an upper bound).
SELECT zm_int4set_agg('m', '{2,3,-2147483628}'::int4[], 'r');
\echo :LAST_ERROR_SQLSTATE
SELECT zm_int4set_agg_optimized('m', '{2,3,-2147483628}'::int4[], 100, 'r');
\echo :LAST_ERROR_SQLSTATE
SELECT zm_int4set_included_in_bitfield('m', '{2,3,-648}'::int4[], zm_int4set2bitfield_int4('r', '{-1000,100}'::int4[]));
\echo :LAST_ERROR_SQLSTATE
SELECT zm_int4set2bitfield_int4('m', '{2,3,-2147483628}'::int4[]);
\echo :LAST_ERROR_SQLSTATE
SELECT zm_int4setconv_int4('m', '{2,3,-2147483628}'::int4[], 'r');
\echo :LAST_ERROR_SQLSTATE
SELECT zm_int4set_agg('m', '{2,-2147483628,-5}'::int4[], 'r') AS reversed_range_kept;
-- Two-dimensional arrays and arrays with NULL elements contribute nothing, without error.
SELECT zm_int4set_agg('s', a, 'r') FROM (VALUES ('{1,2}'::int4[]), ('{{7,8},{9,10}}'), ('{11,NULL}')) v(a);
SELECT zm_int4set_agg('r', '{{1,2,3},{4,5,6}}'::int4[], 'r') AS two_dims_odd_count;
-- Two letters per row are read on the first row only.
SELECT zm_int4set_agg(x, l) FROM (VALUES (1, 'r'::"char"), (2, 's'), (4, 'x')) v(x, l);
SELECT zm_int4set_agg(i, a, o) FROM (VALUES ('s'::"char", '{1,2}'::int4[], 'm'::"char"), ('r', '{3}', 'x')) v(i, a, o);

-- Errors.
SELECT zm_int4set_agg('r', '{1,2,3}'::int4[], 'r');
\echo :LAST_ERROR_SQLSTATE
SELECT zm_int4set_agg('r', a, 'r') FROM (VALUES ('{1,2}'::int4[]), ('{5}')) v(a);
\echo :LAST_ERROR_SQLSTATE
SELECT zm_int4set_agg(x, 'x') FROM unnest('{1}'::int4[]) x;
\echo :LAST_ERROR_SQLSTATE
SELECT zm_int4set_agg(x, 'R') FROM unnest('{1}'::int4[]) x;
\echo :LAST_ERROR_SQLSTATE
SELECT zm_int4set_agg(x, NULL) FROM unnest('{1}'::int4[]) x;
\echo :LAST_ERROR_SQLSTATE
SELECT zm_int4set_agg('q', '{1}'::int4[], 's');
\echo :LAST_ERROR_SQLSTATE
-- A scalar output of more than 2147483647 values (checked before anything is allocated).
SELECT zm_int4set_agg(-2147483648, 2147483646, 's');
\echo :LAST_ERROR_SQLSTATE
-- The range and mix outputs of the same set; the mix count wraps (2^32 - 1 values read as -1).
SELECT zm_int4set_agg(-2147483648, 2147483646, 'r') AS r, zm_int4set_agg(-2147483648, 2147483646, 'm') AS m;

-- The serialised state, shown by an aggregate whose final function is the serial function:
-- input type byte, output type byte, then int32 lower/upper pairs in machine byte order.
CREATE AGGREGATE pg_temp.set_agg_state(int4, "char") (
  SFUNC = zm_int4set_agg_transfn_A, STYPE = internal, FINALFUNC = zm_int4set_agg_serialfn);
CREATE AGGREGATE pg_temp.set_agg_state(int4, int4, "char") (
  SFUNC = zm_int4set_agg_transfn_A, STYPE = internal, FINALFUNC = zm_int4set_agg_serialfn);
CREATE AGGREGATE pg_temp.set_agg_state("char", int4[], "char") (
  SFUNC = zm_int4set_agg_transfn_B, STYPE = internal, FINALFUNC = zm_int4set_agg_serialfn);
SELECT pg_temp.set_agg_state(x, 'r') FROM unnest('{7,-2,-1,0,1,2,3}'::int4[]) x;
SELECT pg_temp.set_agg_state(x, 's') FROM unnest('{NULL}'::int4[]) x;
SELECT pg_temp.set_agg_state(lo, hi, 'm') FROM (VALUES (256, 511), (9, 3)) v(lo, hi);
SELECT pg_temp.set_agg_state('m', '{2,5,-2147483638,20}'::int4[], 'r');
SELECT pg_temp.set_agg_state(x, 'r') FROM unnest('{}'::int4[]) x;
-- Many rows: a total length (with the 4-byte varlena header) of 6 + 8 * runs bytes.
SELECT octet_length(pg_temp.set_agg_state(g * 3, 'r')) + 4 = 6 + 8 * 100000 AS sized
FROM generate_series(1, 100000) g;

-- Partial states combined through serial and deserial: aggregation per partition.
CREATE TABLE set_agg_parts (k int, x int4, l "char") PARTITION BY LIST (k);
CREATE TABLE set_agg_part1 PARTITION OF set_agg_parts FOR VALUES IN (1);
CREATE TABLE set_agg_part2 PARTITION OF set_agg_parts FOR VALUES IN (2);
CREATE TABLE set_agg_part3 PARTITION OF set_agg_parts FOR VALUES IN (3);
INSERT INTO set_agg_parts SELECT 1, g, 'r' FROM generate_series(1, 1000) g;
INSERT INTO set_agg_parts SELECT 2, g, 'r' FROM generate_series(1002, 3000) g;
INSERT INTO set_agg_parts SELECT 3, g, 'r' FROM generate_series(2990, 4000) g;
INSERT INTO set_agg_parts VALUES (2, 5000, 'r'), (3, -5, 'r');
ANALYZE set_agg_parts;
SET enable_partitionwise_aggregate = on;
EXPLAIN (COSTS OFF) SELECT zm_int4set_agg(x, 'r') FROM set_agg_parts;
SELECT zm_int4set_agg(x, 'r') AS r, zm_int4set_agg(x, 'm') AS m FROM set_agg_parts;
SELECT zm_int4set_agg(x, 's') = ARRAY(SELECT DISTINCT x FROM set_agg_parts ORDER BY 1) AS same FROM set_agg_parts;
SELECT zm_int4set_agg(x - 1, x + 1, 'r') AS pairs, zm_int4set_agg('s', ARRAY[x, -x], 'r') AS sets FROM set_agg_parts;
EXPLAIN (COSTS OFF) SELECT k % 2 AS g, zm_int4set_agg(x, 'r') FROM set_agg_parts GROUP BY 1 ORDER BY 1;
SELECT k % 2 AS g, zm_int4set_agg(x, 'r') FROM set_agg_parts GROUP BY 1 ORDER BY 1;
-- A range ending at 2147483647 in one partial state: the partial states are as per-row insertion
-- makes them, and they are combined by the union's merge rule.
INSERT INTO set_agg_parts VALUES (3, 2147483647, 'r');
SELECT zm_int4set_agg(x, 'r') FROM set_agg_parts;
DELETE FROM set_agg_parts WHERE x = 2147483647;
-- A partial state whose rows were all NULL is initialised (its letters were read) but holds no
-- ranges: it travels as NULL (a six-byte form would be refused by the deserial function, "range
-- array should not be empty"), so a partition that saw only NULLs adds nothing to the union.
SELECT pg_temp.set_agg_state(x, 'r') FROM unnest('{NULL}'::int4[]) x;
INSERT INTO set_agg_parts VALUES (3, NULL, 'r');
EXPLAIN (COSTS OFF) SELECT zm_int4set_agg(x, 'r') FROM set_agg_parts WHERE k = 3 AND x IS NULL OR k = 1;
SELECT zm_int4set_agg(x, 'r') FROM set_agg_parts WHERE k = 3 AND x IS NULL OR k = 1;
-- States built for different output letters do not combine.
UPDATE set_agg_parts SET l = 's' WHERE k = 2;
ANALYZE set_agg_parts;
SELECT zm_int4set_agg(x, l) FROM set_agg_parts;
\echo :LAST_ERROR_SQLSTATE
RESET enable_partitionwise_aggregate;
SELECT zm_int4set_agg(x, l) FROM set_agg_parts WHERE k <> 2 OR x = 5000;

-- Two identical calls in one query get a state each (the final function consumes it).
SELECT zm_int4set_agg(x, 'r') AS a, zm_int4set_agg(x, 'r') AS b FROM unnest('{3,1,2}'::int4[]) x;
SELECT zm_int4set_agg(x, 'r') = zm_int4set_agg(x, 'r') AS same FROM generate_series(1, 5000) x;
-- Window use is refused cleanly.
SELECT zm_int4set_agg(x, 'r') OVER (ORDER BY x) FROM unnest('{1,2}'::int4[]) x;
\echo :LAST_ERROR_SQLSTATE
-- Many groups: each group's set equals array_agg(DISTINCT) expanded from the scalar output.
SELECT count(*) AS groups,
       count(*) FILTER (WHERE s IS DISTINCT FROM d) AS mismatches
FROM (SELECT g % 5000 AS k, zm_int4set_agg((g * 7919) % 100000, 's') AS s,
             array_agg(DISTINCT (g * 7919) % 100000 ORDER BY (g * 7919) % 100000) AS d
      FROM generate_series(1, 200000) g GROUP BY 1) t;
SET enable_hashagg = off;
SELECT count(*) AS groups, count(*) FILTER (WHERE r IS DISTINCT FROM e) AS mismatches
FROM (SELECT g % 3000 AS k, zm_int4set_agg(g / 3000, 'r') AS r, ARRAY[0, (99999 - g % 3000) / 3000] AS e
      FROM generate_series(0, 99999) g GROUP BY 1) t;
RESET enable_hashagg;
DROP TABLE set_agg_parts;

-- A hashed aggregate that is rescanned without new input finalises every group again: the states
-- must still be there (both set aggregates, every output kind).
SET enable_sort = off;
SET max_parallel_workers_per_gather = 0;
CREATE TEMP TABLE set_agg_rescan_rows AS
SELECT g, g * 1000 + v AS x FROM generate_series(1, 3) g, generate_series(1, 400) v;
CREATE TEMP TABLE set_agg_rescan_outer AS SELECT generate_series(1, 3) AS s;
ANALYZE set_agg_rescan_rows, set_agg_rescan_outer;
EXPLAIN (COSTS OFF)
SELECT o.s, (SELECT a.r FROM (SELECT g, zm_int4set_agg(x, 'r') AS r FROM set_agg_rescan_rows GROUP BY g) a
             WHERE a.g = o.s + 0 * cardinality(a.r)) FROM set_agg_rescan_outer o;
SELECT o.s,
       (SELECT a.r FROM (SELECT g, zm_int4set_agg(x, 'r') AS r FROM set_agg_rescan_rows GROUP BY g) a
        WHERE a.g = o.s + 0 * cardinality(a.r)) AS ranges,
       (SELECT cardinality(a.r) FROM (SELECT g, zm_int4set_agg(x, 's') AS r FROM set_agg_rescan_rows GROUP BY g) a
        WHERE a.g = o.s + 0 * cardinality(a.r)) AS scalar_count,
       (SELECT a.r FROM (SELECT g, zm_int4set_agg(x, 'm') AS r FROM set_agg_rescan_rows GROUP BY g) a
        WHERE a.g = o.s + 0 * cardinality(a.r)) AS mix,
       (SELECT a.r FROM (SELECT g, zm_int4set_agg_optimized(x, 10000, 'r') AS r FROM set_agg_rescan_rows GROUP BY g) a
        WHERE a.g = o.s + 0 * cardinality(a.r)) AS optimized_ranges
FROM set_agg_rescan_outer o ORDER BY o.s;
RESET enable_sort;
RESET max_parallel_workers_per_gather;
