-- Benchmark data: for each size n, two canonical random range sets A and B (and C, the gaps of A,
-- which touches A everywhere but shares no value with it), stored side by side as range arrays
-- (int4[]) and as int4multirange. Values start at -10 n, so every set holds negative values.
-- psql variable: sizes, a comma-separated list of range counts.
\set ON_ERROR_STOP 1
SET client_min_messages = warning;
CREATE EXTENSION IF NOT EXISTS kestrava_range_operators;
DROP TABLE IF EXISTS bench_ranges, bench_pair;
SELECT setseed(0.42);

-- Range i ends at upper(i) = -10 n + sum of (gap + len) over 1..i and starts len values earlier;
-- gap >= 2 keeps at least one missing value between consecutive ranges (canonical form).
CREATE TABLE bench_ranges AS
WITH sizes AS (
    SELECT unnest(string_to_array(:'sizes', ','))::int AS n
), steps AS (
    SELECT n, side, i, 2 + floor(random() * 19)::int AS gap, floor(random() * 21)::int AS len
    FROM sizes, (VALUES ('a'), ('b')) AS s(side), generate_series(1, n) AS i
), uppers AS (
    SELECT n, side, i, len, -10 * n + sum(gap + len) OVER (PARTITION BY n, side ORDER BY i) AS upper
    FROM steps
)
SELECT n, side, i, (upper - len)::int AS lower, upper::int AS upper FROM uppers
UNION ALL
SELECT n, 'c', i, lower::int, upper::int FROM (
    SELECT n, i, upper + 1 AS lower, lead(upper - len) OVER (PARTITION BY n ORDER BY i) - 1 AS upper
    FROM uppers WHERE side = 'a') AS gaps
WHERE upper IS NOT NULL;

CREATE FUNCTION pg_temp.range_array(size int, which text) RETURNS int4[]
LANGUAGE sql STABLE
RETURN (SELECT array_agg(v ORDER BY i, k)
        FROM bench_ranges AS r, LATERAL (VALUES (1, r.lower), (2, r.upper)) AS x(k, v)
        WHERE r.n = size AND r.side = which);

CREATE FUNCTION pg_temp.multirange(size int, which text) RETURNS int4multirange
LANGUAGE sql STABLE
RETURN (SELECT range_agg(int4range(lower, upper, '[]')) FROM bench_ranges WHERE n = size AND side = which);

CREATE TABLE bench_pair (
    n int PRIMARY KEY,
    a int4[], b int4[], c int4[],
    ma int4multirange, mb int4multirange, mc int4multirange);
INSERT INTO bench_pair
SELECT n, pg_temp.range_array(n, 'a'), pg_temp.range_array(n, 'b'), pg_temp.range_array(n, 'c'),
       pg_temp.multirange(n, 'a'), pg_temp.multirange(n, 'b'), pg_temp.multirange(n, 'c')
FROM (SELECT DISTINCT n FROM bench_ranges) AS sizes;
VACUUM ANALYZE bench_pair;

-- A multirange as a range array, to compare results element by element.
CREATE FUNCTION bench_from_multirange(int4multirange) RETURNS int4[]
LANGUAGE sql IMMUTABLE
RETURN (SELECT coalesce(array_agg(v ORDER BY o, k), '{}')
        FROM unnest($1) WITH ORDINALITY AS u(r, o), LATERAL (VALUES (1, lower(r)), (2, upper(r) - 1)) AS x(k, v));

-- Best time of one row of `query` (which takes the row count as $1), in microseconds: the row
-- count is calibrated so that one execution lasts about `seconds`, then the best of three runs.
CREATE FUNCTION bench_us(query text, seconds float8) RETURNS float8
LANGUAGE plpgsql AS $$
DECLARE
    reps int := 1;
    t0 timestamptz;
    elapsed float8;
    best float8 := 'Infinity';
BEGIN
    FOR calibration IN 1..2 LOOP
        t0 := clock_timestamp();
        EXECUTE query USING reps;
        elapsed := greatest(extract(epoch FROM clock_timestamp() - t0)::float8, 1e-6);
        reps := least(greatest(ceil(reps * (CASE calibration WHEN 1 THEN 0.02 ELSE seconds END) / elapsed), 1), 10000000)::int;
    END LOOP;
    FOR round IN 1..3 LOOP
        t0 := clock_timestamp();
        EXECUTE query USING reps;
        best := least(best, extract(epoch FROM clock_timestamp() - t0)::float8);
    END LOOP;
    RETURN best * 1e6 / reps;
END $$;
