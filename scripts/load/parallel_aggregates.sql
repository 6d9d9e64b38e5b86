-- The set aggregates and keep-single as partial aggregates: combine, serial and deserial
-- functions under concurrency.
\set k random(0, 96)
BEGIN;
SET LOCAL parallel_setup_cost = 0;
SET LOCAL parallel_tuple_cost = 0;
SET LOCAL min_parallel_table_scan_size = 0;
SET LOCAL max_parallel_workers_per_gather = 2;
SELECT cardinality(zm_int4set_agg(v, 'r')), cardinality(zm_int4set_agg_optimized(v, 100000, 'm')),
       agg_keep_single(v % 97 = :k, false)
FROM load_values WHERE v % 97 = :k;
COMMIT;
