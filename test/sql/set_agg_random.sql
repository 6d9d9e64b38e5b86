CREATE EXTENSION IF NOT EXISTS kestrava_range_operators;
-- Randomized comparison of both set aggregates with PostgreSQL's range_agg over int4range and with
-- array_agg(DISTINCT), on the same rows: only mismatch counts are printed, and they must be 0.

-- A multirange as a range array (inclusive upper bounds) and as a mix array.
CREATE FUNCTION pg_temp.as_range_array(int4multirange) RETURNS int4[] LANGUAGE sql IMMUTABLE AS $$
  SELECT ARRAY(SELECT b FROM unnest($1) WITH ORDINALITY AS u(r, n),
                    LATERAL (VALUES (1, lower(r)), (2, upper(r) - 1)) AS x(j, b) ORDER BY n, j)
$$;
CREATE FUNCTION pg_temp.as_mix_array(int4multirange) RETURNS int4[] LANGUAGE sql IMMUTABLE AS $$
  SELECT ARRAY[(SELECT sum(upper(r) - lower(r))::int4 FROM unnest($1) r)] ||
         ARRAY(SELECT b FROM unnest($1) WITH ORDINALITY AS u(r, n),
                    LATERAL (VALUES (1, CASE WHEN upper(r) - lower(r) = 1 THEN lower(r) ELSE lower(r) | (-2147483648) END),
                                    (2, CASE WHEN upper(r) - lower(r) = 1 THEN NULL ELSE upper(r) - 1 END)) AS x(j, b)
               WHERE b IS NOT NULL ORDER BY n, j)
$$;
SELECT pg_temp.as_range_array('{[1,4), [7,8)}') AS r, pg_temp.as_mix_array('{[1,4), [7,8)}') AS m;

SELECT setseed(0.25);
-- Values in 0..99999 spread over 300 groups; pairs of length 1 to 31; some groups get few rows.
CREATE TEMP TABLE set_agg_rnd AS
SELECT CASE WHEN random() < 0.02 THEN 1000 + (random() * 20)::int ELSE (random() * 299)::int END AS k,
       (random() * 99999)::int4 AS v, lo, lo + (random() * 30)::int4 AS hi
FROM (SELECT (random() * 99969)::int4 AS lo FROM generate_series(1, 100000)) t;

-- One value per row.
SELECT count(*) AS groups,
       count(*) FILTER (WHERE r IS DISTINCT FROM pg_temp.as_range_array(ra)) AS range_mismatches,
       count(*) FILTER (WHERE m IS DISTINCT FROM pg_temp.as_mix_array(ra)) AS mix_mismatches,
       count(*) FILTER (WHERE s IS DISTINCT FROM d) AS scalar_mismatches,
       count(*) FILTER (WHERE o_r IS DISTINCT FROM r OR o_s IS DISTINCT FROM d OR o_m IS DISTINCT FROM m) AS optimized_mismatches
FROM (SELECT k, zm_int4set_agg(v, 'r') AS r, zm_int4set_agg(v, 's') AS s, zm_int4set_agg(v, 'm') AS m,
             zm_int4set_agg_optimized(v, 99999, 'r') AS o_r, zm_int4set_agg_optimized(v, 99999, 's') AS o_s,
             zm_int4set_agg_optimized(v, 99999, 'm') AS o_m,
             range_agg(int4range(v, v, '[]')) AS ra, array_agg(DISTINCT v ORDER BY v) AS d
      FROM set_agg_rnd GROUP BY k) t;

-- A lower and an upper bound per row.
SELECT count(*) AS groups,
       count(*) FILTER (WHERE r IS DISTINCT FROM pg_temp.as_range_array(ra)) AS range_mismatches,
       count(*) FILTER (WHERE m IS DISTINCT FROM pg_temp.as_mix_array(ra)) AS mix_mismatches,
       count(*) FILTER (WHERE s IS DISTINCT FROM d) AS scalar_mismatches,
       count(*) FILTER (WHERE o_r IS DISTINCT FROM r OR o_s IS DISTINCT FROM s OR o_m IS DISTINCT FROM m) AS optimized_mismatches
FROM (SELECT k, zm_int4set_agg(lo, hi, 'r') AS r, zm_int4set_agg(lo, hi, 's') AS s, zm_int4set_agg(lo, hi, 'm') AS m,
             zm_int4set_agg_optimized(lo, hi, 99999, 'r') AS o_r, zm_int4set_agg_optimized(lo, hi, 99999, 's') AS o_s,
             zm_int4set_agg_optimized(lo, hi, 99999, 'm') AS o_m,
             range_agg(int4range(lo, hi, '[]')) AS ra,
             (SELECT array_agg(DISTINCT x ORDER BY x) FROM unnest(array_agg(lo)) WITH ORDINALITY a(l, n)
                JOIN unnest(array_agg(hi)) WITH ORDINALITY b(h, n2) ON n = n2, generate_series(l, h) x) AS d
      FROM set_agg_rnd GROUP BY k) t;

-- Whole sets per row: each group's rows gathered five at a time into one array of each kind.
CREATE TEMP TABLE set_agg_rnd_sets AS
SELECT k, array_agg(v ORDER BY n) AS s,
       ARRAY(SELECT e FROM unnest(array_agg(lo ORDER BY n), array_agg(hi ORDER BY n)) WITH ORDINALITY AS u(l, h, i),
                           LATERAL (VALUES (1, l), (2, h)) AS q(j, e) ORDER BY i, j) AS r,
       ARRAY[count(*)::int4] ||
       ARRAY(SELECT CASE WHEN j = 1 AND l <> h THEN l | (-2147483648) ELSE e END
             FROM unnest(array_agg(lo ORDER BY n), array_agg(hi ORDER BY n)) WITH ORDINALITY AS u(l, h, i),
                  LATERAL (VALUES (1, l), (2, CASE WHEN l <> h THEN h END)) AS q(j, e)
             WHERE e IS NOT NULL ORDER BY i, j) AS m
FROM (SELECT k, v, lo, hi, row_number() OVER (PARTITION BY k ORDER BY v, lo, hi) AS n FROM set_agg_rnd) t
GROUP BY k, n / 5;
SELECT count(*) AS set_rows, sum(cardinality(s)) AS values, sum(cardinality(r)) / 2 AS pairs FROM set_agg_rnd_sets;
SELECT count(*) AS groups,
       count(*) FILTER (WHERE zs IS DISTINCT FROM d) AS scalar_rows_mismatches,
       count(*) FILTER (WHERE zr IS DISTINCT FROM pg_temp.as_range_array(ra)) AS range_rows_mismatches,
       count(*) FILTER (WHERE zm IS DISTINCT FROM pg_temp.as_mix_array(ra)) AS mix_rows_mismatches,
       count(*) FILTER (WHERE os IS DISTINCT FROM d OR orr IS DISTINCT FROM zr OR om IS DISTINCT FROM zm) AS optimized_mismatches
FROM (SELECT k, zm_int4set_agg('s', s, 's') AS zs, zm_int4set_agg('r', r, 'r') AS zr, zm_int4set_agg('m', m, 'm') AS zm,
             zm_int4set_agg_optimized('s', s, 99999, 's') AS os, zm_int4set_agg_optimized('r', r, 99999, 'r') AS orr,
             zm_int4set_agg_optimized('m', m, 99999, 'm') AS om
      FROM set_agg_rnd_sets GROUP BY k) a
JOIN (SELECT k, range_agg(int4range(lo, hi, '[]')) AS ra, array_agg(DISTINCT v ORDER BY v) AS d
      FROM set_agg_rnd GROUP BY k) b USING (k);

-- Sorted input (runs of consecutive values with gaps), as one group.
SELECT zm_int4set_agg(x, 'r') = pg_temp.as_range_array(range_agg(int4range(x, x, '[]'))) AS range_same,
       zm_int4set_agg(x, 's') = array_agg(DISTINCT x ORDER BY x) AS scalar_same,
       zm_int4set_agg_optimized(x, 2000000, 'r') = zm_int4set_agg(x, 'r') AS optimized_same
FROM (SELECT g + (g / 97) * 3 AS x FROM generate_series(0, 200000) g) t;
