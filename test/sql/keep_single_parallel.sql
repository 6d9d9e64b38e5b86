CREATE EXTENSION IF NOT EXISTS kestrava_range_operators;
-- agg_keep_single in forced parallel plans (partial aggregation: transition in the workers, then
-- serialisation, deserialisation and combine in the leader) against the serial plan.
\set SHOW_CONTEXT never

-- every supported type, the same value on every row, spread over many pages
CREATE TABLE keep_single_par AS
SELECT i, true AS b, '\x00ff10'::bytea AS y, -9000000000::int8 AS i8, -7::int2 AS i2, 42 AS i4,
       'same value'::text AS t, 1.25::float4 AS f4, -0.0::float8 AS f8, NULL::int4 AS n4, NULL::text AS nt,
       CASE WHEN i % 3 = 0 THEN NULL ELSE 0 END AS zero_or_null, repeat('p', 200) AS pad
FROM generate_series(1, 20000) i;
-- large text and bytea values: stored out of line, uncompressed and compressed
CREATE TABLE keep_single_par_toast (i int, t_ext text, y_ext bytea, t_comp text, y_comp bytea, pad text);
ALTER TABLE keep_single_par_toast ALTER COLUMN t_ext SET STORAGE EXTERNAL, ALTER COLUMN y_ext SET STORAGE EXTERNAL;
INSERT INTO keep_single_par_toast
SELECT i, v, decode(v, 'hex'), repeat('compressible ', 2000), convert_to(repeat('compressible ', 2000), 'UTF8'), repeat('p', 400)
FROM generate_series(1, 600) i,
     (SELECT string_agg(md5(k::text), '') AS v FROM generate_series(1, 400) k) big;
SELECT octet_length(t_ext) AS t_ext_bytes, octet_length(y_ext) AS y_ext_bytes,
       pg_column_size(t_comp) < octet_length(t_comp) / 10 AS t_comp_compressed,
       pg_column_size(y_comp) < octet_length(y_comp) / 10 AS y_comp_compressed
FROM keep_single_par_toast WHERE i = 1;
SELECT pg_relation_size(reltoastrelid) > 600 * 12800 AS values_out_of_line
FROM pg_class WHERE relname = 'keep_single_par_toast';
CREATE TABLE keep_single_par_empty (v int4);

-- serial plans
SET max_parallel_workers_per_gather = 0;
EXPLAIN (COSTS OFF) SELECT agg_keep_single(i4) FROM keep_single_par;
SELECT agg_keep_single(b) AS b, agg_keep_single(y) AS y, agg_keep_single(i8) AS i8, agg_keep_single(i2) AS i2,
       agg_keep_single(i4) AS i4, agg_keep_single(t) AS t, agg_keep_single(f4) AS f4, agg_keep_single(f8) AS f8,
       agg_keep_single(n4) AS n4, agg_keep_single(nt) AS nt, agg_keep_single(zero_or_null) AS zero_or_null
FROM keep_single_par;
SELECT agg_keep_single(b, true) AS b, agg_keep_single(y, false) AS y, agg_keep_single(i8, true) AS i8,
       agg_keep_single(i2, false) AS i2, agg_keep_single(i4, true) AS i4, agg_keep_single(t, false) AS t,
       agg_keep_single(f4, true) AS f4, agg_keep_single(f8, false) AS f8
FROM keep_single_par;
SELECT md5(agg_keep_single(t_ext)) AS t_ext, md5(agg_keep_single(y_ext)) AS y_ext,
       md5(agg_keep_single(t_comp)) AS t_comp, md5(agg_keep_single(y_comp, true)) AS y_comp
FROM keep_single_par_toast;
SELECT i % 4 AS g, agg_keep_single(i % 4) AS v, agg_keep_single(t) AS t, agg_keep_single(i4, false) AS i4
FROM keep_single_par GROUP BY 1 ORDER BY 1;
SELECT agg_keep_single(v) IS NULL AS empty FROM keep_single_par_empty;

-- the same queries in parallel plans
SET parallel_setup_cost = 0;
SET parallel_tuple_cost = 0;
SET min_parallel_table_scan_size = 0;
SET max_parallel_workers_per_gather = 2;
EXPLAIN (COSTS OFF) SELECT agg_keep_single(i4) FROM keep_single_par;
EXPLAIN (COSTS OFF) SELECT agg_keep_single(t_ext, true) FROM keep_single_par_toast;
SELECT agg_keep_single(b) AS b, agg_keep_single(y) AS y, agg_keep_single(i8) AS i8, agg_keep_single(i2) AS i2,
       agg_keep_single(i4) AS i4, agg_keep_single(t) AS t, agg_keep_single(f4) AS f4, agg_keep_single(f8) AS f8,
       agg_keep_single(n4) AS n4, agg_keep_single(nt) AS nt, agg_keep_single(zero_or_null) AS zero_or_null
FROM keep_single_par;
SELECT agg_keep_single(b, true) AS b, agg_keep_single(y, false) AS y, agg_keep_single(i8, true) AS i8,
       agg_keep_single(i2, false) AS i2, agg_keep_single(i4, true) AS i4, agg_keep_single(t, false) AS t,
       agg_keep_single(f4, true) AS f4, agg_keep_single(f8, false) AS f8
FROM keep_single_par;
SELECT md5(agg_keep_single(t_ext)) AS t_ext, md5(agg_keep_single(y_ext)) AS y_ext,
       md5(agg_keep_single(t_comp)) AS t_comp, md5(agg_keep_single(y_comp, true)) AS y_comp
FROM keep_single_par_toast;
EXPLAIN (COSTS OFF)
SELECT i % 4 AS g, agg_keep_single(i % 4) AS v, agg_keep_single(t) AS t, agg_keep_single(i4, false) AS i4
FROM keep_single_par GROUP BY 1 ORDER BY 1;
SELECT i % 4 AS g, agg_keep_single(i % 4) AS v, agg_keep_single(t) AS t, agg_keep_single(i4, false) AS i4
FROM keep_single_par GROUP BY 1 ORDER BY 1;
EXPLAIN (COSTS OFF) SELECT agg_keep_single(v) FROM keep_single_par_empty;
SELECT agg_keep_single(v) IS NULL AS empty FROM keep_single_par_empty;
-- all rows in one worker: the other partial states are NULL
SET parallel_leader_participation = off;
SELECT agg_keep_single(i4), agg_keep_single(t), agg_keep_single(y) FROM keep_single_par WHERE i <= 10;
SELECT agg_keep_single(t_comp) = repeat('compressible ', 2000) AS same FROM keep_single_par_toast WHERE i = 1;
RESET parallel_leader_participation;

-- mismatches on every page fail in both plans, whichever process meets them
CREATE TABLE keep_single_par_mismatch AS
SELECT i, i % 2 = 0 AS b, CASE WHEN i % 2 = 0 THEN '\x01'::bytea ELSE '\x0100' END AS y,
       (i % 2)::int8 AS i8, (i % 2)::int2 AS i2, i % 2 AS i4, CASE WHEN i % 2 = 0 THEN 'a' ELSE 'b' END AS t,
       CASE WHEN i % 2 = 0 THEN 0.0::float4 ELSE -0.0::float4 END AS f4,
       CASE WHEN i % 2 = 0 THEN 'NaN'::float8 ELSE 'Infinity' END AS f8,
       CASE WHEN i % 2 = 0 THEN NULL ELSE 'x' END AS null_then_text,
       i % 2 = 0 AS policy, 7 AS same
FROM generate_series(1, 4000) i;
CREATE TABLE keep_single_par_toast_mismatch AS
SELECT i, t_ext || (i % 2)::text AS t, y_ext || (i % 2)::text::bytea AS y FROM keep_single_par_toast;
SET max_parallel_workers_per_gather = 0;
SELECT agg_keep_single(b) FROM keep_single_par_mismatch;
\echo :LAST_ERROR_SQLSTATE
SELECT agg_keep_single(y) FROM keep_single_par_mismatch;
\echo :LAST_ERROR_SQLSTATE
SELECT agg_keep_single(i8) FROM keep_single_par_mismatch;
\echo :LAST_ERROR_SQLSTATE
SELECT agg_keep_single(i2) FROM keep_single_par_mismatch;
\echo :LAST_ERROR_SQLSTATE
SELECT agg_keep_single(i4, true) FROM keep_single_par_mismatch;
\echo :LAST_ERROR_SQLSTATE
SELECT agg_keep_single(t) FROM keep_single_par_mismatch;
\echo :LAST_ERROR_SQLSTATE
SELECT agg_keep_single(f4) FROM keep_single_par_mismatch;
\echo :LAST_ERROR_SQLSTATE
SELECT agg_keep_single(f8) FROM keep_single_par_mismatch;
\echo :LAST_ERROR_SQLSTATE
SELECT agg_keep_single(null_then_text) FROM keep_single_par_mismatch;
\echo :LAST_ERROR_SQLSTATE
SELECT agg_keep_single(same, policy) FROM keep_single_par_mismatch;
\echo :LAST_ERROR_SQLSTATE
SELECT agg_keep_single(t) FROM keep_single_par_toast_mismatch;
\echo :LAST_ERROR_SQLSTATE
SELECT agg_keep_single(y) FROM keep_single_par_toast_mismatch;
\echo :LAST_ERROR_SQLSTATE
SET max_parallel_workers_per_gather = 2;
EXPLAIN (COSTS OFF) SELECT agg_keep_single(b) FROM keep_single_par_mismatch;
SELECT agg_keep_single(b) FROM keep_single_par_mismatch;
\echo :LAST_ERROR_SQLSTATE
SELECT agg_keep_single(y) FROM keep_single_par_mismatch;
\echo :LAST_ERROR_SQLSTATE
SELECT agg_keep_single(i8) FROM keep_single_par_mismatch;
\echo :LAST_ERROR_SQLSTATE
SELECT agg_keep_single(i2) FROM keep_single_par_mismatch;
\echo :LAST_ERROR_SQLSTATE
SELECT agg_keep_single(i4, true) FROM keep_single_par_mismatch;
\echo :LAST_ERROR_SQLSTATE
SELECT agg_keep_single(t) FROM keep_single_par_mismatch;
\echo :LAST_ERROR_SQLSTATE
SELECT agg_keep_single(f4) FROM keep_single_par_mismatch;
\echo :LAST_ERROR_SQLSTATE
SELECT agg_keep_single(f8) FROM keep_single_par_mismatch;
\echo :LAST_ERROR_SQLSTATE
SELECT agg_keep_single(null_then_text) FROM keep_single_par_mismatch;
\echo :LAST_ERROR_SQLSTATE
SELECT agg_keep_single(same, policy) FROM keep_single_par_mismatch;
\echo :LAST_ERROR_SQLSTATE
SELECT agg_keep_single(t) FROM keep_single_par_toast_mismatch;
\echo :LAST_ERROR_SQLSTATE
SELECT agg_keep_single(y) FROM keep_single_par_toast_mismatch;
\echo :LAST_ERROR_SQLSTATE
-- with policy false the mismatches are ignored
SELECT agg_keep_single(same, false) AS same, agg_keep_single(t, false) IN ('a', 'b') AS t
FROM keep_single_par_mismatch;

RESET parallel_setup_cost;
RESET parallel_tuple_cost;
RESET min_parallel_table_scan_size;
RESET max_parallel_workers_per_gather;

-- Rows that disagree only across partial states: each partition holds one value. The partial states
-- carry their policy, so the combine step compares them as the serial plan compares the rows.
CREATE TABLE keep_single_parts (p int, v int4, t text) PARTITION BY LIST (p);
CREATE TABLE keep_single_parts_1 PARTITION OF keep_single_parts FOR VALUES IN (1);
CREATE TABLE keep_single_parts_2 PARTITION OF keep_single_parts FOR VALUES IN (2);
INSERT INTO keep_single_parts SELECT p, p, 'value ' || p FROM generate_series(1, 2) p, generate_series(1, 100);
SET enable_partitionwise_aggregate = on;
EXPLAIN (COSTS OFF) SELECT agg_keep_single(v) FROM keep_single_parts;
SELECT agg_keep_single(v) FROM keep_single_parts;
\echo :LAST_ERROR_SQLSTATE
SELECT agg_keep_single(t, true) FROM keep_single_parts;
\echo :LAST_ERROR_SQLSTATE
SELECT agg_keep_single(v, false) IN (1, 2) AS one_of_them FROM keep_single_parts;
SELECT agg_keep_single(v) FROM keep_single_parts WHERE p = 2;
RESET enable_partitionwise_aggregate;
SELECT agg_keep_single(v) FROM keep_single_parts;
\echo :LAST_ERROR_SQLSTATE
SELECT agg_keep_single(t, true) FROM keep_single_parts;
\echo :LAST_ERROR_SQLSTATE
DROP TABLE keep_single_parts;
DROP TABLE keep_single_par, keep_single_par_toast, keep_single_par_empty, keep_single_par_mismatch,
           keep_single_par_toast_mismatch;
