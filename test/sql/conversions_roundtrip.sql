CREATE EXTENSION IF NOT EXISTS kestrava_range_operators;
-- Randomised round trips between the set forms, checked against PostgreSQL's own facilities.
-- Every query prints a mismatch count that must be 0. Arrays are compared as text: an empty
-- result here is one-dimensional, PostgreSQL's own empty arrays are zero-dimensional.
SELECT setseed(0.4242);

-- 300 sets of non-negative values (the mix form holds no negative ones): varied sizes, densities
-- and offsets, duplicates included, some next to 2147483647.
CREATE TEMP TABLE sets AS
SELECT id,
       ARRAY(SELECT (CASE WHEN id % 5 = 0 THEN 2147483647 - span ELSE (id % 7) * 1000 END
                     + floor(random() * (span + 1)))::int4 AS v
             FROM generate_series(1, size)
             ORDER BY v) AS scalars
FROM (SELECT id, (random() * 400)::int AS size, (1 + random() * 3000)::int AS span
      FROM generate_series(1, 300) id) p;
-- the empty set and single values too
INSERT INTO sets VALUES (301, '{}'), (302, '{0}'), (303, '{2147483647}'), (304, '{0,2147483647}');

CREATE TEMP TABLE forms AS
SELECT id, scalars,
       ARRAY(SELECT DISTINCT unnest(scalars) ORDER BY 1) AS distinct_scalars,
       zm_int4setconv_int4('s', scalars, 'r') AS ranges,
       zm_int4setconv_int4('s', scalars, 'm') AS mix_from_scalars
FROM sets;

-- scalar -> range -> mix -> scalar gives the sorted, de-duplicated set back
SELECT count(*) AS srms_mismatches FROM forms
WHERE zm_int4setconv_int4('m', zm_int4setconv_int4('r', ranges, 'm'), 's')::text IS DISTINCT FROM distinct_scalars::text;

-- range -> scalar agrees with generate_series over the ranges
SELECT count(*) AS rs_mismatches FROM forms
WHERE zm_int4setconv_int4('r', ranges, 's')::text IS DISTINCT FROM
      ARRAY(SELECT generate_series(ranges[2 * i - 1], ranges[2 * i])
            FROM generate_series(1, cardinality(ranges) / 2) i ORDER BY i, 1)::text;

-- the range array of the scalar conversion is canonical: the one range_agg builds
SELECT count(*) AS sr_vs_range_agg_mismatches FROM forms f
WHERE ranges::text IS DISTINCT FROM coalesce(
  (SELECT array_agg(b ORDER BY o, k)
   FROM (SELECT unnest(range_agg(int8range(v, v, '[]'))) AS r FROM unnest(f.scalars) v) m,
        LATERAL (VALUES (lower(r), 1, lower(r)::int4), (lower(r), 2, (upper(r) - 1)::int4)) x(o, k, b))::text, '{}');

-- mix -> range agrees with range_agg over the same values
SELECT count(*) AS mr_vs_range_agg_mismatches FROM forms f
WHERE zm_int4setconv_int4('m', zm_int4setconv_int4('r', ranges, 'm'), 'r')::text IS DISTINCT FROM coalesce(
  (SELECT array_agg(b ORDER BY o, k)
   FROM (SELECT unnest(range_agg(int8range(v, v, '[]'))) AS r FROM unnest(f.scalars) v) m,
        LATERAL (VALUES (lower(r), 1, lower(r)::int4), (lower(r), 2, (upper(r) - 1)::int4)) x(o, k, b))::text, '{}');

-- scalar -> mix holds the same items as range -> mix; its count element is the input length
SELECT count(*) AS sm_mismatches FROM forms
WHERE cardinality(scalars) > 0
  AND (mix_from_scalars[1] <> cardinality(scalars)
       OR mix_from_scalars[2:] IS DISTINCT FROM (zm_int4setconv_int4('r', ranges, 'm'))[2:]
       OR (zm_int4setconv_int4('r', ranges, 'm'))[1] <> cardinality(distinct_scalars));

-- mix -> scalar of the scalar conversion's mix array: the set back, or "Conversion error" exactly
-- when the input had duplicates
CREATE FUNCTION pg_temp.mix_to_scalars(m int4[]) RETURNS int4[] LANGUAGE plpgsql AS $$
BEGIN
  RETURN zm_int4setconv_int4('m', m, 's');
EXCEPTION WHEN SQLSTATE '22015' THEN
  IF SQLERRM = 'Conversion error' THEN RETURN NULL; END IF;
  RAISE;
END $$;
SELECT count(*) AS sms_mismatches FROM forms
WHERE pg_temp.mix_to_scalars(mix_from_scalars)::text IS DISTINCT FROM
      CASE WHEN cardinality(scalars) = cardinality(distinct_scalars) THEN distinct_scalars::text END;

-- unsorted scalars are refused by both scalar conversions
CREATE FUNCTION pg_temp.refusal(k "char", a int4[]) RETURNS text LANGUAGE plpgsql AS $$
BEGIN
  PERFORM zm_int4setconv_int4('s', a, k);
  RETURN 'accepted';
EXCEPTION WHEN OTHERS THEN
  RETURN SQLSTATE || ' ' || SQLERRM;
END $$;
SELECT pg_temp.refusal(k, a) AS outcome, count(*)
FROM (SELECT ARRAY(SELECT (random() * 100)::int4 FROM generate_series(1, 2 + id % 20)) AS a
      FROM generate_series(1, 200) id) r,
     (VALUES ('r'::"char"), ('m')) k(k)
WHERE a IS DISTINCT FROM zm_sort_int4(a)
GROUP BY 1 ORDER BY 1;

-- zm_sort_int4 agrees with ORDER BY, negatives, duplicates and extremes included
SELECT count(*) AS sort_mismatches
FROM (SELECT ARRAY(SELECT CASE WHEN random() < 0.01 THEN -2147483648
                               WHEN random() < 0.01 THEN 2147483647
                               ELSE (floor(random() * 4294967296) - 2147483648)::int8 >> (id % 31) END::int4
                   FROM generate_series(1, (id * 37) % 3000)) AS a
      FROM generate_series(1, 60) id) r
WHERE zm_sort_int4(a)::text IS DISTINCT FROM ARRAY(SELECT v FROM unnest(a) v ORDER BY v)::text;
SELECT count(*) AS large_sort_mismatches
FROM (SELECT ARRAY(SELECT (floor(random() * 4294967296) - 2147483648)::int4 FROM generate_series(1, 200000)) AS a) r
WHERE zm_sort_int4(a)::text IS DISTINCT FROM ARRAY(SELECT v FROM unnest(a) v ORDER BY v)::text;

-- a large set: 100000 sorted values with gaps
CREATE TEMP TABLE big AS
SELECT ARRAY(SELECT v FROM generate_series(0, 299999) v WHERE random() < 0.34 ORDER BY v) AS scalars;
SELECT count(*) AS big_mismatches FROM big
WHERE zm_int4setconv_int4('m', zm_int4setconv_int4('r', zm_int4setconv_int4('s', scalars, 'r'), 'm'), 's')
      IS DISTINCT FROM scalars
   OR zm_int4setconv_int4('r', zm_int4setconv_int4('s', scalars, 'r'), 's') IS DISTINCT FROM scalars
   OR zm_int4setconv_int4('m', zm_int4setconv_int4('s', scalars, 'm'), 's') IS DISTINCT FROM scalars;

-- random int4 arrays fed to the mix readers (garbage, dangling range starts, lying counts): each
-- call converts or fails with one of the specified errors, and mix -> range agrees with the bytea
-- decoder on the same elements
CREATE FUNCTION pg_temp.outcome(query text) RETURNS text LANGUAGE plpgsql AS $$
DECLARE
  result int4[];
BEGIN
  EXECUTE query INTO result;
  RETURN result::text;
EXCEPTION WHEN OTHERS THEN
  RETURN 'ERROR ' || SQLSTATE || ' ' || SQLERRM;
END $$;
CREATE FUNCTION pg_temp.le_bytes(a int4[]) RETURNS bytea LANGUAGE sql AS $$
  SELECT coalesce(string_agg(decode(lpad(to_hex(v & 255), 2, '0') || lpad(to_hex((v >> 8) & 255), 2, '0')
                                    || lpad(to_hex((v >> 16) & 255), 2, '0') || lpad(to_hex((v >> 24) & 255), 2, '0'), 'hex'),
                             ''::bytea ORDER BY o), ''::bytea)
  FROM unnest(a) WITH ORDINALITY u(v, o)
$$;
CREATE TEMP TABLE garbage AS
SELECT id, ARRAY(SELECT CASE WHEN random() < 0.3 THEN (-2147483648 + floor(random() * 60))::int4
                             WHEN random() < 0.05 THEN (floor(random() * 4294967296) - 2147483648)::int4
                             ELSE floor(random() * 60)::int4 END
                 FROM generate_series(1, id % 9)) AS a
FROM generate_series(1, 3000) id;
CREATE TEMP TABLE garbage_outcomes AS
SELECT id, a,
       pg_temp.outcome(format('SELECT zm_int4setconv_int4(''m'', %L::int4[], ''s'')', a)) AS ms,
       pg_temp.outcome(format('SELECT zm_int4setconv_int4(''m'', %L::int4[], ''r'')', a)) AS mr,
       pg_temp.outcome(format('SELECT zm_bytea2mix2rangearray(%L::bytea)', pg_temp.le_bytes(a))) AS decoded
FROM garbage;
SELECT count(*) AS unexpected_outcomes FROM garbage_outcomes
WHERE NOT (ms LIKE '{%' OR ms IN ('ERROR 22015 Invalid range definition', 'ERROR 22015 Conversion error',
                                  'ERROR 22015 Output array is too small'))
   OR NOT (mr LIKE '{%' OR mr = 'ERROR 22015 Invalid range definition');
SELECT count(*) AS decoder_mismatches FROM garbage_outcomes WHERE mr IS DISTINCT FROM decoded;
-- every outcome occurs
SELECT CASE WHEN ms LIKE '{%' THEN 'converted' ELSE ms END AS mix_to_scalars, count(*) > 10 AS common
FROM garbage_outcomes GROUP BY 1 ORDER BY 1;
