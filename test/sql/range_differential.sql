-- Randomized differential test of the range-array operators against int4multirange on canonical
-- inputs. Bounds stay within +-10^9 so that no two bounds are 2^31 or more apart: beyond that the
-- union orders bounds by 32-bit wrap-around on purpose, which int4multirange does not do. Every
-- query prints mismatch counts, which must all be 0.
CREATE EXTENSION IF NOT EXISTS kestrava_range_operators;
SELECT setseed(0.2718);

-- int4multirange -> range array (lower, upper pairs with inclusive uppers)
CREATE FUNCTION pg_temp.to_ranges(m int4multirange) RETURNS int4[] LANGUAGE sql IMMUTABLE AS $$
  SELECT coalesce(array_agg(b ORDER BY o, k), '{}')
  FROM unnest(m) WITH ORDINALITY u(r, o), LATERAL (VALUES (1, lower(r)), (2, upper(r) - 1)) v(k, b) $$;
-- the same set: arrays compare equal, or both are empty whatever their dimensions
CREATE FUNCTION pg_temp.same(x int4[], y int4[]) RETURNS bool LANGUAGE sql IMMUTABLE AS $$
  SELECT x = y OR (cardinality(x) = 0 AND cardinality(y) = 0) $$;

-- 6000 pairs: 4000 on a narrow domain (many overlaps and touching ranges), 2000 on a wide one.
CREATE TEMP TABLE raw_ranges AS
SELECT c, side, int4range(lo, lo + width, '[]') AS r
FROM generate_series(1, 6000) c
CROSS JOIN (VALUES (0), (1)) s(side)
CROSS JOIN LATERAL (
  SELECT CASE WHEN c <= 4000 THEN (random() * 400 - 200)::int4 ELSE (random() * 2e9 - 1e9)::int4 END AS lo,
         CASE WHEN c <= 4000 THEN (random() * 12)::int4 ELSE (random() * 1e8)::int4 END AS width
  FROM generate_series(1, (random() * 9 + c * 0 + side * 0)::int4)
) g;

CREATE TEMP TABLE pairs AS
SELECT c, coalesce(ma, '{}') AS ma, coalesce(mb, '{}') AS mb,
       pg_temp.to_ranges(coalesce(ma, '{}')) AS a, pg_temp.to_ranges(coalesce(mb, '{}')) AS b
FROM generate_series(1, 6000) c
LEFT JOIN (SELECT c, range_agg(r) AS ma FROM raw_ranges WHERE side = 0 GROUP BY c) x USING (c)
LEFT JOIN (SELECT c, range_agg(r) AS mb FROM raw_ranges WHERE side = 1 GROUP BY c) y USING (c);

SELECT count(*) AS pairs,
       count(*) FILTER (WHERE cardinality(a) = 0 OR cardinality(b) = 0) > 0 AS has_empty_sides,
       count(*) FILTER (WHERE a::text LIKE '%-%') > 0 AS has_negative_bounds,
       count(*) FILTER (WHERE ma && mb) > 100 AS has_overlaps,
       count(*) FILTER (WHERE EXISTS (SELECT 1 FROM unnest(ma) ra, unnest(mb) rb WHERE ra -|- rb)) > 0 AS has_touching
FROM pairs;

SELECT count(*) FILTER (WHERE NOT pg_temp.same(zm_int4range_union(a, b), pg_temp.to_ranges(ma + mb))) AS union_mismatches,
       count(*) FILTER (WHERE NOT pg_temp.same(zm_int4range_intersection(a, b), pg_temp.to_ranges(ma * mb))) AS intersection_mismatches,
       count(*) FILTER (WHERE NOT pg_temp.same(zm_int4range_exclusion(a, b), pg_temp.to_ranges(ma - mb))) AS exclusion_mismatches,
       count(*) FILTER (WHERE NOT pg_temp.same(zm_int4range_exclusion(b, a), pg_temp.to_ranges(mb - ma))) AS reverse_exclusion_mismatches
FROM pairs;

SELECT count(*) FILTER (WHERE zm_int4range_is_overlap(a, b) <> (ma && mb)) AS overlap_mismatches,
       count(*) FILTER (WHERE zm_int4range_overlap_rangearray(a, b) <> (ma && mb)) AS overlap_rangearray_mismatches,
       count(*) FILTER (WHERE (a &&& b) <> (ma && mb)) AS overlap_operator_mismatches,
       -- an empty left side is never included; otherwise inclusion in the canonical right side
       count(*) FILTER (WHERE zm_int4range_is_strictly_include(a, b) <> (cardinality(a) > 0 AND mb @> ma)) AS inclusion_mismatches,
       count(*) FILTER (WHERE zm_int4range_is_strictly_include(zm_int4range_intersection(a, b), b)
                               <> (NOT isempty(ma * mb))) AS inclusion_of_intersection_mismatches
FROM pairs;

-- membership of values and packed ranges drawn near the sets' bounds
SELECT count(*) FILTER (WHERE zm_int4_in_rangearray(v, a) <> (ma @> v)) AS value_mismatches,
       count(*) FILTER (WHERE zm_int4rangepacked_in_rangearray((u::int8 << 32) | (v::int8 & 4294967295), a)
                              <> (ma && int4range(v, u, '[]'))) AS packed_mismatches,
       count(*) AS probes
FROM pairs
CROSS JOIN LATERAL (
  SELECT v, v + (random() * 5)::int4 AS u
  FROM (SELECT CASE WHEN cardinality(a) = 0 THEN 0
                    ELSE a[1 + (random() * (cardinality(a) - 1))::int4] + (random() * 4 - 2)::int4 END AS v
        FROM generate_series(1, 5 + c * 0)) p
) q;
