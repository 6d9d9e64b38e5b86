-- The set aggregates over set rows and value rows, the set-expression aggregate in its written
-- order, and the keep-single aggregate.
\set x random(1, 9900)
SELECT cardinality(zm_int4set_agg('r', a, 'r')), cardinality(zm_int4set_agg('s', s, 'm')),
       cardinality(zm_int4set_agg_optimized('r', a, 100050, 'r')), cardinality(zm_int4set_agg_optimized('m', m, 100050, 's'))
FROM load_sets WHERE id BETWEEN :x AND :x + 99;
SELECT zm_int4range_op(step.op, s.a ORDER BY step.n)
FROM (VALUES (1, 1::int2), (2, 513::int2), (3, 2::int2), (4, 7::int2), (5, 1025::int2), (6, 3::int2)) step(n, op)
JOIN load_sets s ON s.id = :x + step.n;
SELECT id % 7 AS g, cardinality(zm_int4set_agg(v, 'r')), cardinality(zm_int4set_agg_optimized(v, 100000, 's')),
       cardinality(zm_int4set_agg(v, v + 3, 'm'))
FROM load_values WHERE id BETWEEN (:x % 19) * 1000 + 1 AND (:x % 19) * 1000 + 1000 GROUP BY 1;
SELECT agg_keep_single(id / 1000), agg_keep_single(v, false), agg_keep_single(a[1]::int8, false)
FROM load_values JOIN load_sets USING (id) WHERE id BETWEEN (:x % 10) * 1000 + 1 AND (:x % 10) * 1000 + 99;
