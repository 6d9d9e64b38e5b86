-- Membership and comparison tests between values, packed ranges and range arrays, and their operators.
CREATE EXTENSION IF NOT EXISTS kestrava_range_operators;

-- value in range array (binary search; an odd tail is ignored)
SELECT zm_int4_in_rangearray(5, '{1,3,5,9}') AS t, zm_int4_in_rangearray(4, '{1,3,5,9}') AS f,
       zm_int4_in_rangearray(4, '{1,3,5}') AS odd_tail_f, zm_int4_in_rangearray(5, '{1,3,5}') AS odd_tail_f2;
SELECT zm_int4_in_rangearray(v, '{-10,-5,0,0,7,2147483647}') AS member, v
FROM unnest(ARRAY[-2147483648,-11,-10,-7,-5,-4,-1,0,1,6,7,2147483647]) v;
SELECT zm_int4_in_rangearray(1, '{}') AS empty, zm_int4_in_rangearray(1, '{{1,2}}') AS two_dim,
       zm_int4_in_rangearray(1, '{1,NULL}') AS null_element;
SELECT zm_int4_in_rangearray(NULL, '{1,2}') IS NULL AS strict_1, zm_int4_in_rangearray(1, NULL) IS NULL AS strict_2;

-- range array overlap (the comparison operator's version)
SELECT zm_int4range_overlap_rangearray('{1,3}', '{4,6}') AS touching_f,
       zm_int4range_overlap_rangearray('{1,4}', '{4,6}') AS sharing_4_t;
SELECT zm_int4range_overlap_rangearray('{1,3,10,20}', '{5,6,15,15}') AS many_many_t,
       zm_int4range_overlap_rangearray('{1,3,10,20}', '{5,6,21,30}') AS many_many_f,
       zm_int4range_overlap_rangearray('{5,6,15,15}', '{1,3,10,20}') AS single_left_after_first,
       zm_int4range_overlap_rangearray('{7,8}', '{1,3,10,20}') AS single_in_gap_f,
       zm_int4range_overlap_rangearray('{1,3,10,20}', '{25,30}') AS single_right_beyond_f,
       zm_int4range_overlap_rangearray('{}', '{1,3}') AS empty_f,
       zm_int4range_overlap_rangearray('{{1,3}}', '{1,3}') AS two_dim_f;

-- packed range against a range array: an overlap test
SELECT zm_int4rangepacked_in_rangearray((3::int8 << 32) | 2, '{1,5}') AS inside_t,
       zm_int4rangepacked_in_rangearray((3::int8 << 32) | 2, '{4,6}') AS after_f,
       zm_int4rangepacked_in_rangearray((3::int8 << 32) | 2, '{3,6}') AS sharing_3_t,
       zm_int4rangepacked_in_rangearray((3::int8 << 32) | 2, '{}') AS empty_f,
       zm_int4rangepacked_in_rangearray((3::int8 << 32) | 2, '{{1,5}}') AS two_dim_f,
       zm_int4rangepacked_in_rangearray((3::int8 << 32) | 2, '{1,NULL}') AS null_element_f,
       zm_int4rangepacked_in_rangearray((-1::int8 << 32) | (-5::int8 & 4294967295), '{-3,-3}') AS negative_t;

-- packed scalar tests; p(l, u) below builds the packed range [l, u]
CREATE FUNCTION pg_temp.p(l int4, u int4) RETURNS int8 LANGUAGE sql IMMUTABLE
RETURN (u::int8 << 32) | (l::int8 & 4294967295);
SELECT zm_int4rangepacked_in_int4rangepacked(pg_temp.p(1,5), pg_temp.p(5,9)) AS t,
       zm_int4rangepacked_in_int4rangepacked(pg_temp.p(1,4), pg_temp.p(5,9)) AS f,
       zm_int4rangepacked_in_int4rangepacked(pg_temp.p(6,9), pg_temp.p(1,5)) AS f2;
SELECT zm_int4rangepacked_included_in_int4rangepacked(pg_temp.p(2,3), pg_temp.p(1,5)) AS t,
       zm_int4rangepacked_included_in_int4rangepacked(pg_temp.p(1,5), pg_temp.p(2,3)) AS f,
       zm_int4rangepacked_contains_int4rangepacked(pg_temp.p(2,3), pg_temp.p(1,5)) AS f2,
       zm_int4rangepacked_contains_int4rangepacked(pg_temp.p(1,5), pg_temp.p(2,3)) AS t2,
       zm_int4rangepacked_contains_int4rangepacked(pg_temp.p(-5,-1), pg_temp.p(-5,-1)) AS equal_t;
SELECT zm_int4_in_packedrange(5, pg_temp.p(5,5)) AS t, zm_int4_in_packedrange(6, pg_temp.p(5,5)) AS f,
       zm_int4_in_packedrange(-2147483648, pg_temp.p(-2147483648, -2147483648)) AS extreme_t;
-- the three-argument form reads the value from the second and the packed range from the third
SELECT zm_int4rangepacked_contains_int4(12345, 7, pg_temp.p(1,9)) AS t,
       zm_int4rangepacked_contains_int4(0, 10, pg_temp.p(1,9)) AS f,
       zm_int4rangepacked_contains_value(pg_temp.p(1,9), 7) AS packed_first_form_t;

-- errors: 22023 "invalid range array" at the reported locations
SELECT zm_int4range_overlap_rangearray('{1,2,3}', '{4,6}');
\echo :LAST_ERROR_SQLSTATE
SELECT zm_int4range_overlap_rangearray('{4,6}', '{1,2,3}');
\echo :LAST_ERROR_SQLSTATE
SELECT zm_int4rangepacked_in_rangearray(pg_temp.p(1,2), '{1,2,3}');
\echo :LAST_ERROR_SQLSTATE

-- operators
SELECT 5 <@ '{1,3,5,9}'::int4[] AS value_in_ranges, 4 <@ '{1,3,5,9}'::int4[] AS value_not_in_ranges;
SELECT '{1,3}'::int4[] &&& '{3,9}'::int4[] AS ranges_overlap, '{1,3}'::int4[] &&& '{4,9}'::int4[] AS touching;
SELECT '{2,3,4,5}'::int4[] <@@ '{1,5}'::int4[] AS included, '{1,6}'::int4[] <@@ '{1,3,4,6}'::int4[] AS not_joined;
SELECT pg_temp.p(2,3) && '{3,6}'::int4[] AS packed_overlaps_ranges,
       pg_temp.p(1,5) && pg_temp.p(5,9) AS packed_overlap,
       pg_temp.p(2,3) <@ pg_temp.p(1,5) AS packed_in, pg_temp.p(1,5) @> pg_temp.p(2,3) AS packed_contains,
       7 <@ pg_temp.p(1,9) AS value_in_packed, pg_temp.p(1,9) @> 10 AS packed_contains_value;
-- the built-in array operators on int4[] are untouched
SELECT '{1,3}'::int4[] && '{3,9}'::int4[] AS array_overlap, '{1,2,3}'::int4[] @> '{3}'::int4[] AS array_contains;
-- NULL operands give NULL
SELECT (NULL::int4 <@ '{1,2}'::int4[]) IS NULL AS strict_operator;
