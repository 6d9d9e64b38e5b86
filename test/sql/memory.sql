CREATE EXTENSION IF NOT EXISTS kestrava_range_operators;
-- Memory: repeated calls in one query and aggregates over 10^7 rows run in bounded memory, as the
-- backend's own memory context statistics show while the query runs; requests beyond
-- PostgreSQL's allocation limit end in a clean error and the backend goes on. Only booleans and
-- SQLSTATEs are printed; scripts/memory.sh prints the measured bytes and runs larger settings.
SET max_parallel_workers_per_gather = 0;  -- the samples see this backend only
SELECT pg_backend_pid() AS backend_pid \gset

-- Bytes held by all memory contexts of this backend, read while the calling query runs. The
-- argument makes every call a separate one.
CREATE FUNCTION pg_temp.backend_bytes(sample bigint) RETURNS bigint LANGUAGE sql VOLATILE
  AS 'SELECT sum(total_bytes)::bigint FROM pg_backend_memory_contexts';

-- 10^5 rows of small range arrays.
SELECT setseed(0.5);
CREATE TEMP TABLE sets AS
SELECT i, ARRAY[i * 100, i * 100 + (random() * 40)::int, i * 100 + 50, i * 100 + 60 + (random() * 30)::int] AS a,
          ARRAY[i * 100 + 20, i * 100 + 55 + (random() * 10)::int] AS b
FROM generate_series(1, 100000) i;

-- Every set operator, test and conversion called 10^5 times in one query (their results summed so
-- that every call is made): the samples taken every 10^4 rows stay the same (growth under 64 kB).
-- A leak of a few bytes per call would add several hundred kilobytes.
SELECT count(*) AS rows,
       sum(cardinality(zm_int4range_union(a, b)) + cardinality(zm_int4range_intersection(a, b))
           + cardinality(zm_int4range_exclusion(a, b)) + (a &&& b)::int + (b <@@ a)::int
           + zm_int4range_is_overlap(a, b)::int + zm_int4range_is_strictly_include(b, a)::int
           + (i * 100 + 20 <@ a)::int + (zm_range_pack(a[1], a[2]) && b)::int) > 0 AS set_operators,
       sum(cardinality(zm_int4setconv_int4('r', a, 's')) + cardinality(zm_int4setconv_int4('r', a, 'm'))
           + cardinality(zm_int4setconv_int4('s', zm_int4setconv_int4('r', a, 's'), 'r'))
           + cardinality(zm_int4setconv_int4('m', zm_int4setconv_int4('r', a, 'm'), 's'))
           + cardinality(zm_sort_int4(a || b)) + zm_count_scalar_in_int4set('r', a)) > 0 AS conversions,
       sum(octet_length(zm_int4set2bitfield_int4('r', a))
           + zm_int4set_overlap_bitfield('r', b, zm_int4set2bitfield_int4('r', a))::int
           + zm_int4set_included_in_bitfield('s', b, zm_int4set2bitfield_int4('r', a))::int
           + (i * 100 <@ zm_int4set2bitfield_int4('r', a))::int) > 0 AS bitfields,
       max(m) - min(m) < 65536 AS bounded
FROM (SELECT i, a, b, CASE WHEN i % 10000 = 0 THEN pg_temp.backend_bytes(i) END AS m FROM sets) s;

-- The samples do see memory that grows: array_agg's state over the same rows (control).
SELECT cardinality(array_agg(i)) AS rows, max(m) - min(m) > 65536 AS grows
FROM (SELECT i, CASE WHEN i % 10000 = 0 THEN pg_temp.backend_bytes(i) END AS m FROM sets) s;

-- The set aggregates over 10^7 rows (x = 0, 1, 2, ... in this order): values in scattered order
-- that collapse into one range, every value seen within the first 10^5 rows. Samples every 10^6
-- rows from the 10^6th on, i.e. once the state has its steady size.
SELECT zm_int4set_agg(v, 'r') AS agg, max(m) - min(m) < 65536 AS bounded
FROM (SELECT (x::int8 * 7919 % 100000)::int4 AS v,
             CASE WHEN x % 1000000 = 0 AND x > 0 THEN pg_temp.backend_bytes(x) END AS m
      FROM generate_series(0, 9999) a, LATERAL generate_series(a * 1000, a * 1000 + 999) x) s;
SELECT zm_int4set_agg_optimized(v, 100000, 'r') AS agg, max(m) - min(m) < 65536 AS bounded
FROM (SELECT (x::int8 * 7919 % 100000)::int4 AS v,
             CASE WHEN x % 1000000 = 0 AND x > 0 THEN pg_temp.backend_bytes(x) END AS m
      FROM generate_series(0, 9999) a, LATERAL generate_series(a * 1000, a * 1000 + 999) x) s;
RESET max_parallel_workers_per_gather;

-- Requests beyond PostgreSQL's allocation limit (1 GB per allocation) and results too long for an
-- array end in a clean error with its SQLSTATE; the largest results that fit are built.
CREATE FUNCTION pg_temp.outcome(query text) RETURNS text LANGUAGE plpgsql AS $$
DECLARE
  result text;
BEGIN
  EXECUTE query INTO result;
  RETURN 'ok: ' || result;
EXCEPTION WHEN OTHERS THEN
  RETURN SQLSTATE || CASE WHEN SQLERRM = '' THEN '' ELSE ': ' || SQLERRM END;
END $$;
SELECT pg_temp.backend_bytes(0) AS bytes_before \gset
SELECT request, pg_temp.outcome(query)
FROM (VALUES
  ('r -> s, 300000001 values (1.2 GB)', $$SELECT array_length(zm_int4setconv_int4('r', '{0,300000000}'::int4[], 's'), 1)$$),
  ('r -> s, 2^31 values', $$SELECT array_length(zm_int4setconv_int4('r', '{0,2147483647}'::int4[], 's'), 1)$$),
  ('m -> s, 300000001 values declared', $$SELECT array_length(zm_int4setconv_int4('m', '{300000001,-2147483648,300000000}'::int4[], 's'), 1)$$),
  ('zm_int4set_agg scalar, 300000001 values', $$SELECT array_length(zm_int4set_agg(0, 300000000, 's'), 1)$$),
  ('zm_int4set_agg scalar, 2^32 values', $$SELECT array_length(zm_int4set_agg(-2147483648, 2147483647, 's'), 1)$$),
  ('zm_int4set_agg_optimized scalar, 2^31 - 1 values', $$SELECT array_length(zm_int4set_agg_optimized(0, 2147483646, 2147483647, 's'), 1)$$),
  ('bitfield over the int4 span but one value (512 MB)', $$SELECT octet_length(zm_int4set2bitfield_int4('r', '{-2147483648,2147483646}'::int4[]))$$),
  ('bitfield over the whole int4 span (empty)', $$SELECT octet_length(zm_int4set2bitfield_int4('r', '{-2147483648,2147483647}'::int4[]))$$),
  ('optimised aggregate, maxinput 2147483647 (256 MB)', $$SELECT zm_int4set_agg_optimized(0, 2147483646, 2147483647, 'm')::text$$)
) r(request, query);
-- Nothing is left behind in the backend's contexts, and it is the same backend.
SELECT pg_temp.backend_bytes(1) - :bytes_before < 65536 AS released, pg_backend_pid() = :backend_pid AS same_backend;
