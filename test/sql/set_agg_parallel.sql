CREATE EXTENSION IF NOT EXISTS kestrava_range_operators;
-- Both set aggregates in parallel plans: partial states built by workers and the leader, passed
-- through the serial and deserial functions and combined, must give the serial plan's results.

SELECT setseed(0.5);
-- Every row carries a value, a pair and one set of each kind (never empty: a partial state that
-- saw only empty sets could not be deserialised). Values stay in 0..20100.
CREATE TABLE set_agg_par AS
SELECT id, k, v, lo, lo + d AS hi,
       ARRAY[v, lo, (random() * 20000)::int4] AS s,
       ARRAY[lo, lo + d, v, v + d % 3] AS r,
       ARRAY[3, lo | (-2147483648), lo + d, v] AS m
FROM (SELECT g AS id, (random() * 499)::int AS k, (random() * 20000)::int4 AS v, (random() * 20000)::int4 AS lo,
             (random() * 40)::int4 AS d
      FROM generate_series(1, 60000) g) t;
ANALYZE set_agg_par;

SET parallel_setup_cost = 0;
SET parallel_tuple_cost = 0;
SET min_parallel_table_scan_size = 0;
SET max_parallel_workers_per_gather = 2;
SET parallel_leader_participation = on;

EXPLAIN (COSTS OFF) SELECT k, zm_int4set_agg(v, 'r') FROM set_agg_par GROUP BY k;
EXPLAIN (COSTS OFF) SELECT zm_int4set_agg_optimized('m', m, 20100, 's') FROM set_agg_par;

-- All input forms and output kinds of both aggregates, per group, in a parallel plan.
CREATE TABLE set_agg_par_groups AS
SELECT k,
       zm_int4set_agg(v, 'r') AS a1, zm_int4set_agg(v, 's') AS a2, zm_int4set_agg(v, 'm') AS a3,
       zm_int4set_agg(lo, hi, 'r') AS a4, zm_int4set_agg(lo, hi, 's') AS a5, zm_int4set_agg(lo, hi, 'm') AS a6,
       zm_int4set_agg('s', s, 'r') AS a7, zm_int4set_agg('s', s, 's') AS a8, zm_int4set_agg('s', s, 'm') AS a9,
       zm_int4set_agg('r', r, 'r') AS a10, zm_int4set_agg('r', r, 's') AS a11, zm_int4set_agg('r', r, 'm') AS a12,
       zm_int4set_agg('m', m, 'r') AS a13, zm_int4set_agg('m', m, 's') AS a14, zm_int4set_agg('m', m, 'm') AS a15
FROM set_agg_par GROUP BY k;
CREATE TABLE set_agg_par_groups_opt AS
SELECT k,
       zm_int4set_agg_optimized(v, 20100, 'r') AS a1, zm_int4set_agg_optimized(v, 20100, 's') AS a2,
       zm_int4set_agg_optimized(v, 20100, 'm') AS a3,
       zm_int4set_agg_optimized(lo, hi, 20100, 'r') AS a4, zm_int4set_agg_optimized(lo, hi, 20100, 's') AS a5,
       zm_int4set_agg_optimized(lo, hi, 20100, 'm') AS a6,
       zm_int4set_agg_optimized('s', s, 20100, 'r') AS a7, zm_int4set_agg_optimized('s', s, 20100, 's') AS a8,
       zm_int4set_agg_optimized('s', s, 20100, 'm') AS a9,
       zm_int4set_agg_optimized('r', r, 20100, 'r') AS a10, zm_int4set_agg_optimized('r', r, 20100, 's') AS a11,
       zm_int4set_agg_optimized('r', r, 20100, 'm') AS a12,
       zm_int4set_agg_optimized('m', m, 20100, 'r') AS a13, zm_int4set_agg_optimized('m', m, 20100, 's') AS a14,
       zm_int4set_agg_optimized('m', m, 20100, 'm') AS a15
FROM set_agg_par GROUP BY k;
-- One group: the whole table.
CREATE TABLE set_agg_par_all AS
SELECT zm_int4set_agg(v, 'r') AS a1, zm_int4set_agg(lo, hi, 'm') AS a2, zm_int4set_agg('r', r, 's') AS a3,
       zm_int4set_agg('m', m, 'r') AS a4, zm_int4set_agg_optimized(v, 20100, 's') AS a5,
       zm_int4set_agg_optimized(lo, hi, 20100, 'r') AS a6, zm_int4set_agg_optimized('s', s, 20100, 'm') AS a7
FROM set_agg_par;

-- The serialised states of the combined partial states, shown by aggregates whose final function
-- is the serial function.
CREATE AGGREGATE pg_temp.set_agg_combined(int4, int4, "char") (
  SFUNC = zm_int4set_agg_transfn_A, STYPE = internal, FINALFUNC = zm_int4set_agg_serialfn,
  COMBINEFUNC = zm_int4set_agg_combinefn, SERIALFUNC = zm_int4set_agg_serialfn,
  DESERIALFUNC = zm_int4set_agg_deserialfn, PARALLEL = SAFE);
CREATE AGGREGATE pg_temp.opt_combined("char", int4[], int4, "char") (
  SFUNC = zm_int4set_agg_optimized_transfn_B, STYPE = internal, FINALFUNC = zm_int4set_agg_optimized_serialfn,
  COMBINEFUNC = zm_int4set_agg_optimized_combinefn, SERIALFUNC = zm_int4set_agg_optimized_serialfn,
  DESERIALFUNC = zm_int4set_agg_optimized_deserialfn, PARALLEL = SAFE);
EXPLAIN (COSTS OFF) SELECT pg_temp.set_agg_combined(lo, hi, 'r') FROM set_agg_par;
CREATE TABLE set_agg_par_states AS
SELECT pg_temp.set_agg_combined(lo, hi, 'r') AS a, pg_temp.opt_combined('r', r, 20100, 'm') AS b FROM set_agg_par;

-- Edge cases of partial states, with filters the planner cannot see through: no row passes
-- (every partial state is NULL), and the rows that pass all lie in the first block, so that one
-- process sees them all.
EXPLAIN (COSTS OFF) SELECT zm_int4set_agg(v, 'r') FROM set_agg_par WHERE v + 0 < -1;
SELECT zm_int4set_agg(v, 'r') AS a, zm_int4set_agg_optimized(v, 20100, 'm') AS b FROM set_agg_par WHERE v + 0 < -1;
EXPLAIN (COSTS OFF) SELECT zm_int4set_agg(v, 's') FROM set_agg_par WHERE id + 0 <= 10;
EXPLAIN (COSTS OFF) SELECT k, zm_int4set_agg(v, 's') FROM set_agg_par WHERE id + 0 <= 10 GROUP BY k;
CREATE TABLE set_agg_par_few AS
SELECT zm_int4set_agg(v, 's') AS a, zm_int4set_agg_optimized(lo, hi, 20100, 'r') AS b
FROM set_agg_par WHERE id + 0 <= 10;
CREATE TABLE set_agg_par_few_groups AS
SELECT k, zm_int4set_agg(v, 's') AS a, zm_int4set_agg_optimized(lo, hi, 20100, 'r') AS b
FROM set_agg_par WHERE id + 0 <= 10 GROUP BY k;

-- Now the serial plans, compared with the parallel results: zero mismatches.
SET max_parallel_workers_per_gather = 0;
EXPLAIN (COSTS OFF) SELECT k, zm_int4set_agg(v, 'r') FROM set_agg_par GROUP BY k;
SELECT count(*) AS groups, count(*) FILTER (WHERE p IS DISTINCT FROM s) AS mismatches
FROM set_agg_par_groups p FULL JOIN (
  SELECT k,
         zm_int4set_agg(v, 'r') AS a1, zm_int4set_agg(v, 's') AS a2, zm_int4set_agg(v, 'm') AS a3,
         zm_int4set_agg(lo, hi, 'r') AS a4, zm_int4set_agg(lo, hi, 's') AS a5, zm_int4set_agg(lo, hi, 'm') AS a6,
         zm_int4set_agg('s', s, 'r') AS a7, zm_int4set_agg('s', s, 's') AS a8, zm_int4set_agg('s', s, 'm') AS a9,
         zm_int4set_agg('r', r, 'r') AS a10, zm_int4set_agg('r', r, 's') AS a11, zm_int4set_agg('r', r, 'm') AS a12,
         zm_int4set_agg('m', m, 'r') AS a13, zm_int4set_agg('m', m, 's') AS a14, zm_int4set_agg('m', m, 'm') AS a15
  FROM set_agg_par GROUP BY k) s USING (k);
SELECT count(*) AS groups, count(*) FILTER (WHERE p IS DISTINCT FROM s) AS mismatches
FROM set_agg_par_groups_opt p FULL JOIN (
  SELECT k,
         zm_int4set_agg_optimized(v, 20100, 'r') AS a1, zm_int4set_agg_optimized(v, 20100, 's') AS a2,
         zm_int4set_agg_optimized(v, 20100, 'm') AS a3,
         zm_int4set_agg_optimized(lo, hi, 20100, 'r') AS a4, zm_int4set_agg_optimized(lo, hi, 20100, 's') AS a5,
         zm_int4set_agg_optimized(lo, hi, 20100, 'm') AS a6,
         zm_int4set_agg_optimized('s', s, 20100, 'r') AS a7, zm_int4set_agg_optimized('s', s, 20100, 's') AS a8,
         zm_int4set_agg_optimized('s', s, 20100, 'm') AS a9,
         zm_int4set_agg_optimized('r', r, 20100, 'r') AS a10, zm_int4set_agg_optimized('r', r, 20100, 's') AS a11,
         zm_int4set_agg_optimized('r', r, 20100, 'm') AS a12,
         zm_int4set_agg_optimized('m', m, 20100, 'r') AS a13, zm_int4set_agg_optimized('m', m, 20100, 's') AS a14,
         zm_int4set_agg_optimized('m', m, 20100, 'm') AS a15
  FROM set_agg_par GROUP BY k) s USING (k);
-- Both aggregates agree with each other on every group and form.
SELECT count(*) FILTER (WHERE p IS DISTINCT FROM o) AS mismatches
FROM set_agg_par_groups p JOIN set_agg_par_groups_opt o USING (k);
SELECT p IS NOT DISTINCT FROM s AS same
FROM set_agg_par_all p, (
  SELECT zm_int4set_agg(v, 'r') AS a1, zm_int4set_agg(lo, hi, 'm') AS a2, zm_int4set_agg('r', r, 's') AS a3,
         zm_int4set_agg('m', m, 'r') AS a4, zm_int4set_agg_optimized(v, 20100, 's') AS a5,
         zm_int4set_agg_optimized(lo, hi, 20100, 'r') AS a6, zm_int4set_agg_optimized('s', s, 20100, 'm') AS a7
  FROM set_agg_par) s;
SELECT p IS NOT DISTINCT FROM s AS same
FROM set_agg_par_few p, (SELECT zm_int4set_agg(v, 's') AS a, zm_int4set_agg_optimized(lo, hi, 20100, 'r') AS b
                         FROM set_agg_par WHERE id + 0 <= 10) s;
SELECT count(*) AS groups, count(*) FILTER (WHERE p IS DISTINCT FROM s) AS mismatches
FROM set_agg_par_few_groups p FULL JOIN (
  SELECT k, zm_int4set_agg(v, 's') AS a, zm_int4set_agg_optimized(lo, hi, 20100, 'r') AS b
  FROM set_agg_par WHERE id + 0 <= 10 GROUP BY k) s USING (k);
-- The combined states are byte for byte the serial plan's states.
SELECT p.a = s.a AS same_set_state, p.b = s.b AS same_optimized_state,
       octet_length(p.a) + 4 = 6 + 8 * cardinality(p2.r) / 2 AS set_state_length,
       octet_length(p.b) + 4 = 10 + (20100 >> 3) + 1 AS optimized_state_length,
       substr(p.a, 1, 2) AS set_types, substr(p.b, 1, 6) AS optimized_header
FROM set_agg_par_states p,
     (SELECT pg_temp.set_agg_combined(lo, hi, 'r') AS a, pg_temp.opt_combined('r', r, 20100, 'm') AS b
      FROM set_agg_par) s,
     (SELECT zm_int4set_agg(lo, hi, 'r') AS r FROM set_agg_par) p2;

RESET parallel_setup_cost;
RESET parallel_tuple_cost;
RESET min_parallel_table_scan_size;
RESET max_parallel_workers_per_gather;
RESET parallel_leader_participation;
DROP TABLE set_agg_par, set_agg_par_groups, set_agg_par_groups_opt, set_agg_par_all, set_agg_par_states,
           set_agg_par_few, set_agg_par_few_groups;
