-- The output does not depend on whether an earlier test created the extension; one created here is
-- dropped at the end, so the database is left as found.
CREATE TEMP TABLE bitfield_extension_before AS
SELECT EXISTS (SELECT FROM pg_extension WHERE extname = 'kestrava_range_operators') AS existed;
SET client_min_messages = warning;
CREATE EXTENSION IF NOT EXISTS kestrava_range_operators;
RESET client_min_messages;

-- SQLSTATE and message of an error whose reported source line is not part of the interface.
CREATE FUNCTION pg_temp.err(query text) RETURNS text LANGUAGE plpgsql AS $$
BEGIN
  EXECUTE query;
  RETURN 'no error';
EXCEPTION WHEN OTHERS THEN
  RETURN SQLSTATE || ': ' || SQLERRM;
END $$;

-- A persisted bitfield from its header values and data bytes (little-endian int4s).
CREATE FUNCTION pg_temp.le(v int4) RETURNS bytea LANGUAGE sql AS $$
  SELECT decode(substr(h, 7, 2) || substr(h, 5, 2) || substr(h, 3, 2) || substr(h, 1, 2), 'hex')
  FROM (SELECT lpad(to_hex(v), 8, '0') AS h) x
$$;
CREATE FUNCTION pg_temp.bf_le(first int4, last int4, data bytea) RETURNS bytea LANGUAGE sql AS $$
  SELECT pg_temp.le(first) || pg_temp.le(last) || data
$$;
-- A packed range: lower in the low, upper in the high 32 bits.
CREATE FUNCTION pg_temp.pk(lower int4, upper int4) RETURNS int8 LANGUAGE sql AS $$
  SELECT (upper::int8 << 32) | (lower::int8 & 4294967295)
$$;

-------------------------------------------------------------------------------
-- Building bitfields: header (first, last as little-endian int4), then whole 64-bit words.
-------------------------------------------------------------------------------
SELECT encode(zm_int4set2bitfield_int4('r', '{3,17}'::int4[]), 'hex') AS r_3_17,
       length(zm_int4set2bitfield_int4('r', '{3,17}'::int4[])) + 4 AS total;
SELECT encode(zm_int4set2bitfield_int4('r', '{}'::int4[]), 'hex') AS r_empty,
       length(zm_int4set2bitfield_int4('r', '{}'::int4[])) + 4 AS total;
SELECT encode(zm_int4set2bitfield_int4('s', '{}'::int4[]), 'hex') AS s_empty,
       encode(zm_int4set2bitfield_int4('m', '{}'::int4[]), 'hex') AS m_empty;
SELECT encode(zm_int4set2bitfield_int4('s', '{5}'::int4[]), 'hex') AS s_5;
SELECT encode(zm_int4set2bitfield_int4('m', '{4,-2147483647,3,7}'::int4[]), 'hex') AS m_1_3_and_7;
-- ranges across several bytes and words; single-byte ranges
SELECT encode(zm_int4set2bitfield_int4('r', '{0,0,7,8,10,12,60,70,127,127}'::int4[]), 'hex') AS r_words;
SELECT encode(zm_int4set2bitfield_int4('r', '{-10,-10,-3,-2}'::int4[]), 'hex') AS r_negative;
-- 64 values need one word, 65 need two
SELECT length(zm_int4set2bitfield_int4('r', '{0,63}'::int4[])) + 4 AS total_64,
       length(zm_int4set2bitfield_int4('r', '{0,64}'::int4[])) + 4 AS total_65;
SELECT encode(zm_int4set2bitfield_int4('s', '{-1,0,1,62}'::int4[]), 'hex') AS s_words;
SELECT encode(zm_int4set2bitfield_int4('m', '{5,-2147483646,5,9,20}'::int4[]), 'hex') AS m_items;
-- a mix array whose count element is 0: empty header over zeroed data of the items' length
SELECT encode(zm_int4set2bitfield_int4('m', '{0,1,100}'::int4[]), 'hex') AS m_count_0;
-- a lone count element N: first 0, last 0, data sized as if last were N
SELECT encode(zm_int4set2bitfield_int4('m', '{3}'::int4[]), 'hex') AS m_lone_3,
       length(zm_int4set2bitfield_int4('m', '{100}'::int4[])) + 4 AS m_lone_100_total;
SELECT 0 <@ zm_int4set2bitfield_int4('m', '{3}'::int4[]) AS lone_3_valid_0_clear;
SELECT pg_temp.err($$SELECT 0 <@ zm_int4set2bitfield_int4('m', '{100}'::int4[])$$) AS lone_100_read;
-- arrays read as empty sets: two-dimensional, or holding a NULL
SELECT encode(zm_int4set2bitfield_int4('r', '{{1,2},{3,4}}'::int4[]), 'hex') AS r_2d,
       encode(zm_int4set2bitfield_int4('s', '{1,NULL,3}'::int4[]), 'hex') AS s_null,
       encode(zm_int4set2bitfield_int4('m', '{{1,2}}'::int4[]), 'hex') AS m_2d;
-- strict
SELECT zm_int4set2bitfield_int4(NULL, '{1,2}'::int4[]) IS NULL AS null_kind,
       zm_int4set2bitfield_int4('r', NULL::int4[]) IS NULL AS null_set;

-- Unsorted or reversed input: nothing is written outside the data. Values and range parts outside
-- [first element, final element] are left out.
SELECT encode(zm_int4set2bitfield_int4('s', '{10,1000,-5,12,20}'::int4[]), 'hex') AS s_unsorted;
SELECT encode(zm_int4set2bitfield_int4('s', '{9,1,5}'::int4[]), 'hex') AS s_reversed;
SELECT pg_temp.err($$SELECT 5 <@ zm_int4set2bitfield_int4('s', '{9,1,5}'::int4[])$$) AS s_reversed_read;
SELECT encode(zm_int4set2bitfield_int4('s', '{9,1,8}'::int4[]), 'hex') AS s_last_is_first_minus_1;
SELECT encode(zm_int4set2bitfield_int4('r', '{5,4}'::int4[]), 'hex') AS r_reversed_pair;
SELECT encode(zm_int4set2bitfield_int4('r', '{0,10,5,20,30,25}'::int4[]), 'hex') AS r_overlapping;
SELECT encode(zm_int4set2bitfield_int4('m', '{9,-2147483638,5,3,20,5}'::int4[]), 'hex') AS m_unsorted;
-- the whole int4 range has 2^32 values: the count wraps to 0, an empty bitfield without data
SELECT encode(zm_int4set2bitfield_int4('r', '{-2147483648,2147483647}'::int4[]), 'hex') AS r_all,
       encode(zm_int4set2bitfield_int4('s', '{-2147483648,0,2147483647}'::int4[]), 'hex') AS s_all;
-- a range array whose last upper is below its first lower spans the wrapped count: 2^29 data bytes
SELECT length(b) + 4 AS total, 7 <@ b AS seven, 10 <@ b AS ten, 15 <@ b AS fifteen
FROM (SELECT zm_int4set2bitfield_int4('r', '{10,20,0,5}'::int4[]) AS b) x;

-- Conversion errors (their source lines are not part of the interface)
SELECT pg_temp.err($$SELECT zm_int4set2bitfield_int4('r', '{1,2}'::int8[])$$) AS int8_set;
SELECT pg_temp.err($$SELECT zm_int4set2bitfield_int4('x', '{1,2}'::int8[])$$) AS int8_set_bad_kind;
SELECT pg_temp.err($$SELECT zm_int4set2bitfield_int4('r', '{1,2,3}'::int4[])$$) AS odd_range_array;
SELECT pg_temp.err($$SELECT zm_int4set2bitfield_int4('R', '{1,2}'::int4[])$$) AS kind_letter;
SELECT zm_int4set2bitfield_int4('q', '{1,2}'::int4[]);
\echo :LAST_ERROR_SQLSTATE

-------------------------------------------------------------------------------
-- Counting
-------------------------------------------------------------------------------
SELECT zm_count_scalar_in_int4set('r', '{1,3,7,7}'::int4[]) AS r,
       zm_count_scalar_in_int4set('s', '{9,8,1}'::int4[]) AS s,
       zm_count_scalar_in_int4set('m', '{4,-2147483647,3,7}'::int4[]) AS m,
       zm_count_scalar_in_int4set('m', '{}'::int4[]) AS m_empty,
       zm_count_scalar_in_int4set('s', '{1,2}'::int8[]) IS NULL AS int8_is_null;
SELECT zm_count_scalar_in_int4set('r', '{}'::int4[]) AS r_empty,
       zm_count_scalar_in_int4set('s', '{}'::int4[]) AS s_empty,
       zm_count_scalar_in_int4set('r', '{{1,2},{3,4}}'::int4[]) AS r_2d,
       zm_count_scalar_in_int4set('r', '{{1,2,3}}'::int4[]) AS r_2d_odd,
       zm_count_scalar_in_int4set('s', '{1,NULL}'::int4[]) AS s_null,
       zm_count_scalar_in_int4set('m', '{{5}}'::int4[]) AS m_2d,
       zm_count_scalar_in_int4set('m', '{-7,1}'::int4[]) AS m_stored_count;
-- range widths: int32 each, summed in 64 bits, truncated to int32
SELECT zm_count_scalar_in_int4set('r', '{0,2147483647}'::int4[]) AS r_wraps,
       zm_count_scalar_in_int4set('r', '{-2000000000,-1000000000,0,1000000000,1000000002,2000000000}'::int4[]) AS r_sum_over_int32,
       zm_count_scalar_in_int4set('r', '{1,1,2,3,5,8,13,21,34,55,89,144,233,377,610,987,1597,2584}'::int4[]) AS r_nine_pairs;
SELECT zm_count_scalar_in_int4set(NULL, '{1,2}'::int4[]) IS NULL AS null_kind,
       zm_count_scalar_in_int4set('r', NULL::int4[]) IS NULL AS null_set;
SELECT pg_temp.err($$SELECT zm_count_scalar_in_int4set('r', '{1}'::int4[])$$) AS odd_range_array;
SELECT pg_temp.err($$SELECT zm_count_scalar_in_int4set('r', '{1,NULL,3}'::int4[])$$) AS odd_with_null;
SELECT pg_temp.err($$SELECT zm_count_scalar_in_int4set('x', '{1}'::int4[])$$) AS kind_letter;

-------------------------------------------------------------------------------
-- Reading bitfields
-------------------------------------------------------------------------------
-- first 5, last 4: empty, no error, whatever follows
SELECT 5 <@ pg_temp.bf_le(5, 4, '') AS empty_12_bytes,
       4 <@ pg_temp.bf_le(5, 4, '\x00ff') AS empty_padded;
SELECT 0 <@ zm_int4set2bitfield_int4('r', '{}'::int4[]) AS empty_13,
       0 <@ zm_int4set2bitfield_int4('s', '{}'::int4[]) AS empty_20;
-- first 0, last 63: 8 data bytes; last 64: 16 data bytes
SELECT 63 <@ pg_temp.bf_le(0, 63, '\x0000000000000001') AS last_63,
       64 <@ pg_temp.bf_le(0, 64, '\x00000000000000008000000000000000') AS last_64;
SELECT pg_temp.err($$SELECT 1 <@ pg_temp.bf_le(0, 63, '\x00000000000000000000000000000000')$$) AS last_63_padded,
       pg_temp.err($$SELECT 1 <@ pg_temp.bf_le(0, 64, '\x0000000000000000')$$) AS last_64_short;
SELECT pg_temp.err($$SELECT 1 <@ '\x0000000001000000'::bytea$$) AS no_data,
       pg_temp.err($$SELECT 1 <@ '\x00000000010000'::bytea$$) AS truncated_header,
       pg_temp.err($$SELECT 1 <@ ''::bytea$$) AS no_header,
       pg_temp.err($$SELECT 1 <@ pg_temp.bf_le(10, 5, '\x0000000000000000')$$) AS reversed_span;
-- first -10: -10 is bit 0x80 of byte 0, -3 bit 0x01 of byte 0, -2 bit 0x80 of byte 1
SELECT array_agg(v ORDER BY v) AS members
FROM generate_series(-12, 22) v WHERE v <@ pg_temp.bf_le(-10, 20, '\x8180000000000000');

-------------------------------------------------------------------------------
-- Tests against the bitfield of first 10, last 20 holding only 12
-------------------------------------------------------------------------------
CREATE TEMP TABLE b12 AS SELECT pg_temp.bf_le(10, 20, '\x2000000000000000') AS b;
SELECT encode(b, 'hex') FROM b12;
SELECT 12 <@ b AS v12, 13 <@ b AS v13, 9 <@ b AS v9, 21 <@ b AS v21,
       zm_int4_in_rangebitfield(12, b) AS fn_v12, zm_int4_in_rangebitfield(NULL, b) IS NULL AS strict
FROM b12;
SELECT pg_temp.pk(0, 12) && b AS p0_12, pg_temp.pk(13, 100) && b AS p13_100, pg_temp.pk(21, 30) && b AS p21_30,
       pg_temp.pk(12, 12) && b AS p12, pg_temp.pk(-2147483648, 2147483647) && b AS p_all,
       pg_temp.pk(12, 11) && b AS p_reversed, pg_temp.pk(5, 9) && b AS p5_9,
       zm_int4rangepacked_in_rangebitfield(pg_temp.pk(12, 14), b) AS fn_p12_14
FROM b12;
SELECT zm_int4set_included_in_bitfield('s', '{12}'::int4[], b) AS s12,
       zm_int4set_included_in_bitfield('s', '{12,13}'::int4[], b) AS s12_13,
       zm_int4set_included_in_bitfield('r', '{12,12}'::int4[], b) AS r12_12,
       zm_int4set_included_in_bitfield('r', '{12,13}'::int4[], b) AS r12_13,
       zm_int4set_included_in_bitfield('m', '{1,12}'::int4[], b) AS m12,
       zm_int4set_included_in_bitfield('m', '{2,-2147483636,13}'::int4[], b) AS m12_13,
       zm_int4set_included_in_bitfield('s', '{}'::int4[], b) AS s_empty,
       zm_int4set_included_in_bitfield('s', '{9,12}'::int4[], b) AS s9_12
FROM b12;
SELECT zm_int4set_overlap_bitfield('s', '{11,12}'::int4[], b) AS s11_12,
       zm_int4set_overlap_bitfield('s', '{}'::int4[], b) AS s_empty,
       zm_int4set_overlap_bitfield('s', '{11,13}'::int4[], b) AS s11_13,
       zm_int4set_overlap_bitfield('r', '{0,5,11,30}'::int4[], b) AS r11_30,
       zm_int4set_overlap_bitfield('r', '{0,11,13,30}'::int4[], b) AS r_around,
       zm_int4set_overlap_bitfield('m', '{3,-2147483637,12}'::int4[], b) AS m11_12,
       zm_int4set_overlap_bitfield('m', '{2,11,13}'::int4[], b) AS m11_13,
       zm_int4set_overlap_bitfield('s', '{12,100}'::int4[], b) AS s12_100
FROM b12;
-- quick bounds: first and last elements; an unsorted scalar array is judged by them
SELECT zm_int4set_overlap_bitfield('s', '{30,12,0}'::int4[], b) AS unsorted_bounds_around,
       zm_int4set_overlap_bitfield('s', '{15,12,15}'::int4[], b) AS unsorted_inside,
       zm_int4set_included_in_bitfield('s', '{12,5,12}'::int4[], b) AS unsorted_included_outside,
       zm_int4set_overlap_bitfield('s', '{25,12}'::int4[], b) AS min_above_last,
       zm_int4set_included_in_bitfield('r', '{12,12,14,30}'::int4[], b) AS max_above_last
FROM b12;
-- pairs are clamped to the span; the set's own bounds decide first
SELECT zm_int4set_included_in_bitfield('r', '{12,12,12,12}'::int4[], b) AS r_twice,
       zm_int4set_overlap_bitfield('r', '{12,11}'::int4[], b) AS r_reversed_pair,
       zm_int4set_included_in_bitfield('r', '{12,12,14,13}'::int4[], b) AS r_reversed_pair_included
FROM b12;
-- mix arrays holding only their count element: bounds 0..0
SELECT zm_int4set_overlap_bitfield('m', '{7}'::int4[], b) AS lone_count_outside,
       zm_int4set_included_in_bitfield('m', '{7}'::int4[], pg_temp.bf_le(0, 5, '\x0000000000000000')) AS lone_count_inside
FROM b12;
-- arrays read as empty sets give false
SELECT zm_int4set_overlap_bitfield('s', '{{12,12}}'::int4[], b) AS s_2d,
       zm_int4set_overlap_bitfield('s', '{12,NULL}'::int4[], b) AS s_null,
       zm_int4set_included_in_bitfield('r', '{{12,12}}'::int4[], b) AS r_2d
FROM b12;
-- the empty bitfield makes every test false, without error
SELECT 0 <@ e AS v0, -1 <@ e AS v_1, pg_temp.pk(-100, 100) && e AS p,
       zm_int4set_overlap_bitfield('s', '{0,-1}'::int4[], e) AS s_overlap,
       zm_int4set_included_in_bitfield('s', '{0}'::int4[], e) AS s_included,
       zm_int4set_overlap_bitfield('r', '{0,0}'::int4[], e) AS r_overlap,
       zm_int4set_included_in_bitfield('r', '{1}'::int4[], e) AS r_odd_included,
       zm_int4set_overlap_bitfield('m', '{1,0}'::int4[], e) AS m_overlap
FROM (SELECT pg_temp.bf_le(0, -1, '') AS e) x;
-- an empty set is tested before the bitfield is read
SELECT zm_int4set_overlap_bitfield('s', '{}'::int4[], '\x00'::bytea) AS empty_set_bad_bitfield;

-- Errors with their reported locations
SELECT zm_int4set_included_in_bitfield('r', '{12}'::int4[], b) FROM b12;
\echo :LAST_ERROR_SQLSTATE
SELECT zm_int4set_overlap_bitfield('r', '{12,13,14}'::int4[], b) FROM b12;
\echo :LAST_ERROR_SQLSTATE
SELECT zm_int4set_overlap_bitfield('s', '{12}'::int8[], b) FROM b12;
\echo :LAST_ERROR_SQLSTATE
SELECT zm_int4set_included_in_bitfield('s', '{}'::int8[], b) FROM b12;
\echo :LAST_ERROR_SQLSTATE
SELECT zm_int4set_overlap_bitfield('x', '{12}'::int4[], b) FROM b12;
\echo :LAST_ERROR_SQLSTATE
SELECT zm_int4set_overlap_bitfield('x', '{12}'::int8[], '\x'::bytea);
\echo :LAST_ERROR_SQLSTATE
SELECT pg_temp.pk(0, 1) && '\x0a000000140000'::bytea;
\echo :LAST_ERROR_SQLSTATE
SELECT pg_temp.pk(0, 1) && '\x0a00000014000000'::bytea;
\echo :LAST_ERROR_SQLSTATE
SELECT pg_temp.pk(0, 1) && '\x0a000000140000002000000000000000ff'::bytea;
\echo :LAST_ERROR_SQLSTATE
SELECT pg_temp.pk(0, 1) && '\x0a00000009000000'::bytea AS empty_no_error;
SELECT pg_temp.err($$SELECT zm_int4set_overlap_bitfield('s', '{12}'::int4[], '\x0a000000140000'::bytea)$$) AS set_truncated,
       pg_temp.err($$SELECT zm_int4set_included_in_bitfield('s', '{12}'::int4[], '\x0a00000014000000'::bytea)$$) AS set_no_data,
       pg_temp.err($$SELECT 12 <@ '\x0a000000140000002000000000000000ff'::bytea$$) AS value_padded;

-------------------------------------------------------------------------------
-- Randomized round trip: sets as range, scalar and mix arrays, their bitfields, every value of a
-- wider interval tested against the set itself, overlap and inclusion against the range-array
-- operators. Only mismatch counts are printed.
-------------------------------------------------------------------------------
SELECT setseed(0.4242);
CREATE TEMP TABLE members AS
SELECT DISTINCT s, v
FROM (SELECT s, lo, CASE WHEN random() < 0.4 THEN (random() * 3)::int ELSE (random() * 90)::int END AS w
      FROM generate_series(1, 120) s
      CROSS JOIN LATERAL generate_series(1, 1 + (random() * 14)::int + 0 * s) k
      CROSS JOIN LATERAL (SELECT (random() * 2600)::int - CASE WHEN s % 3 = 0 THEN 700 ELSE 0 END + 0 * k AS lo) l) r
CROSS JOIN LATERAL generate_series(lo, lo + w) v;
CREATE TEMP TABLE islands AS
SELECT s, min(v) AS lo, max(v) AS hi
FROM (SELECT s, v, v - row_number() OVER (PARTITION BY s ORDER BY v) AS g FROM members) t
GROUP BY s, g;
CREATE TEMP TABLE sets AS
SELECT s,
       (SELECT array_agg(v ORDER BY v) FROM members m WHERE m.s = i.s) AS sc,
       (SELECT array_agg(x ORDER BY j.lo, o) FROM islands j, unnest(ARRAY[j.lo, j.hi]) WITH ORDINALITY u(x, o)
        WHERE j.s = i.s) AS ra,
       CASE WHEN min(lo) >= 0 THEN
         ARRAY[sum(hi - lo + 1)::int4] ||
         (SELECT array_agg(x ORDER BY j.lo, o) FROM islands j,
                 unnest(CASE WHEN j.lo = j.hi THEN ARRAY[j.lo] ELSE ARRAY[j.lo - 2147483647 - 1, j.hi] END)
                 WITH ORDINALITY u(x, o)
          WHERE j.s = i.s)
       END AS mx
FROM islands i GROUP BY s;
ALTER TABLE sets ADD COLUMN br bytea, ADD COLUMN bs bytea, ADD COLUMN bm bytea;
UPDATE sets SET br = zm_int4set2bitfield_int4('r', ra), bs = zm_int4set2bitfield_int4('s', sc),
                bm = zm_int4set2bitfield_int4('m', mx);
SELECT count(*) AS sets, count(mx) > 40 AS enough_mix_sets, sum(cardinality(sc)) > 10000 AS enough_values,
       count(*) FILTER (WHERE ra[1] < 0) > 10 AS some_negative FROM sets;

-- the three forms of a set give the same bytes
SELECT count(*) FILTER (WHERE br <> bs) AS r_s_differ,
       count(*) FILTER (WHERE mx IS NOT NULL AND br <> bm) AS r_m_differ,
       count(*) FILTER (WHERE length(br) <> 8 + ((ra[cardinality(ra)] - ra[1] + 1 + 63) / 64) * 8) AS bad_length
FROM sets;
-- counts
SELECT count(*) FILTER (WHERE zm_count_scalar_in_int4set('r', ra) <> cardinality(sc)) AS r_count_mismatch,
       count(*) FILTER (WHERE zm_count_scalar_in_int4set('s', sc) <> cardinality(sc)) AS s_count_mismatch,
       count(*) FILTER (WHERE mx IS NOT NULL AND zm_count_scalar_in_int4set('m', mx) <> cardinality(sc)) AS m_count_mismatch
FROM sets;
-- membership of every value of [first - 70, last + 70]
SELECT count(*) > 100000 AS enough_tested,
       count(*) FILTER (WHERE (g.v <@ br) <> (m.v IS NOT NULL)) AS r_mismatch,
       count(*) FILTER (WHERE (g.v <@ bs) <> (m.v IS NOT NULL)) AS s_mismatch,
       count(*) FILTER (WHERE bm IS NOT NULL AND (g.v <@ bm) <> (m.v IS NOT NULL)) AS m_mismatch,
       count(*) FILTER (WHERE (g.v <@ br) <> zm_int4_in_rangearray(g.v, ra)) AS rangearray_mismatch,
       count(*) FILTER (WHERE m.v IS NOT NULL) > 10000 AS enough_hits
FROM sets
CROSS JOIN LATERAL generate_series(ra[1] - 70, ra[cardinality(ra)] + 70) g(v)
LEFT JOIN members m ON m.s = sets.s AND m.v = g.v;
-- packed ranges of random widths against the range-array test
SELECT count(*) AS tested,
       count(*) FILTER (WHERE (pg_temp.pk(lo, lo + w) && br) <> zm_int4rangepacked_in_rangearray(pg_temp.pk(lo, lo + w), ra)) AS packed_mismatch,
       count(*) FILTER (WHERE pg_temp.pk(lo, lo + w) && br) BETWEEN 500 AND 6500 AS hits_and_misses
FROM sets
CROSS JOIN LATERAL (SELECT (random() * 3400)::int - 800 + 0 * s AS lo,
                           (random() * CASE WHEN random() < 0.5 THEN 10 ELSE 400 END)::int AS w
                    FROM generate_series(1, 60)) p;

-- Overlap and inclusion against the range-array operators: every pair of the first 50 sets, each
-- set against subsets of it, and against those subsets with one value added outside.
CREATE TEMP TABLE subsets AS
SELECT s, zm_int4range_intersection(ra, part) AS sub
FROM (SELECT s, ra,
             ARRAY[ra[1] + (random() * 40)::int, ra[cardinality(ra)] - (random() * 40)::int] AS part
      FROM sets) x
WHERE ra[cardinality(ra)] - ra[1] > 90;
DELETE FROM subsets WHERE cardinality(sub) = 0;
CREATE TEMP TABLE probes AS
SELECT a.s AS a, b.ra AS probe FROM sets a JOIN sets b ON a.s <= 50 AND b.s <= 50
UNION ALL SELECT s, sub FROM subsets
UNION ALL SELECT s, zm_int4range_union(sub, ARRAY[sub[1] + 1, sub[1] + 1]) FROM subsets
UNION ALL SELECT s, zm_int4range_union(sub, ARRAY[sub[cardinality(sub)] + 2, sub[cardinality(sub)] + 2]) FROM subsets;
CREATE TEMP TABLE probe_forms AS
SELECT a, probe,
       (SELECT array_agg(v) FROM generate_series(1, cardinality(probe) / 2) i,
                                 generate_series(probe[2 * i - 1], probe[2 * i]) v) AS probe_sc
FROM probes;
SELECT count(*) > 2500 AS enough_pairs,
       count(*) FILTER (WHERE zm_int4set_overlap_bitfield('r', probe, br) <> zm_int4range_is_overlap(probe, ra)) AS r_overlap_mismatch,
       count(*) FILTER (WHERE zm_int4set_overlap_bitfield('s', probe_sc, br) <> zm_int4range_is_overlap(probe, ra)) AS s_overlap_mismatch,
       count(*) FILTER (WHERE zm_int4set_included_in_bitfield('r', probe, br) <> zm_int4range_is_strictly_include(probe, ra)) AS r_included_mismatch,
       count(*) FILTER (WHERE zm_int4set_included_in_bitfield('s', probe_sc, br) <> zm_int4range_is_strictly_include(probe, ra)) AS s_included_mismatch,
       count(*) FILTER (WHERE zm_int4range_is_overlap(probe, ra)) BETWEEN 500 AND count(*) - 500 AS both_overlap_answers,
       count(*) FILTER (WHERE zm_int4range_is_strictly_include(probe, ra)) BETWEEN 200 AND count(*) - 500 AS both_included_answers
FROM probe_forms JOIN sets ON sets.s = probe_forms.a;
-- the same with mix arrays, for the sets without negative values
SELECT count(*) > 1000 AS enough_pairs,
       count(*) FILTER (WHERE zm_int4set_overlap_bitfield('m', pm, bm) <> zm_int4range_is_overlap(probe, ra)) AS m_overlap_mismatch,
       count(*) FILTER (WHERE zm_int4set_included_in_bitfield('m', pm, bm) <> zm_int4range_is_strictly_include(probe, ra)) AS m_included_mismatch,
       count(*) FILTER (WHERE zm_int4range_is_strictly_include(probe, ra)) BETWEEN 100 AND count(*) - 500 AS both_included_answers
FROM (SELECT a, probe,
             ARRAY[0] || (SELECT array_agg(x ORDER BY i, o)
                          FROM generate_series(1, cardinality(probe) / 2) i,
                               unnest(CASE WHEN probe[2 * i - 1] = probe[2 * i] THEN ARRAY[probe[2 * i]]
                                           ELSE ARRAY[probe[2 * i - 1] - 2147483647 - 1, probe[2 * i]] END)
                               WITH ORDINALITY u(x, o)) AS pm
      FROM probe_forms WHERE probe[1] >= 0) p
JOIN sets ON sets.s = p.a AND sets.mx IS NOT NULL;

DO $$
BEGIN
  IF NOT (SELECT existed FROM bitfield_extension_before) THEN
    DROP EXTENSION kestrava_range_operators;
  END IF;
END $$;
