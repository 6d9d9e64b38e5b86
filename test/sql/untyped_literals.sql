-- Untyped literals and untyped parameters (drivers such as node-postgres send arrays so): the common
-- forms resolve to the int4[] functions and operators without a cast; arrays of another element
-- type still reach the library's own check; the forms that PostgreSQL's rules cannot resolve fail
-- as listed at the end.
CREATE EXTENSION IF NOT EXISTS kestrava_range_operators;
-- The SQLSTATE and message of a failing statement (whatever the verbosity), or 'ok: <result>'.
CREATE FUNCTION pg_temp.outcome(query text) RETURNS text LANGUAGE plpgsql AS $$
DECLARE
  result text;
BEGIN
  EXECUTE query INTO result;
  RETURN 'ok: ' || coalesce(result, 'NULL');
EXCEPTION WHEN OTHERS THEN
  RETURN 'ERROR ' || SQLSTATE || ': ' || SQLERRM;
END $$;

-- Functions declared on int4[] and anyarray (the anyarray twin sends other element types to the
-- library's check): the literal is read as int4[], with the result of the cast.
SELECT zm_sort_int4('{3,1,2,1}') AS sorted, zm_sort_int4('{3,1,2,1}') = zm_sort_int4('{3,1,2,1}'::int4[]) AS as_cast;
SELECT zm_range_pack('{7,9}') AS packed, zm_range_pack('{7,9}') = zm_range_pack('{7,9}'::int4[]) AS as_cast;
SELECT zm_range_pack('[0:1]={7,9}') AS lower_bound_0;
SELECT zm_int4setconv_int4('s', '{1,2,3,5}', 'r') AS ranges, zm_int4setconv_int4('r', '{1,3,7,7}', 'm') AS mix;
SELECT encode(zm_int4set2bitfield_int4('r', '{3,17}'), 'hex') AS bitfield,
       zm_int4set2bitfield_int4('r', '{3,17}') = zm_int4set2bitfield_int4('r', '{3,17}'::int4[]) AS as_cast;
SELECT zm_count_scalar_in_int4set('r', '{1,3,7,7}') AS r, zm_count_scalar_in_int4set('s', '{9,8,1}') AS s,
       zm_count_scalar_in_int4set('m', '{4,-2147483647,3,7}') AS m;
SELECT zm_int4set_overlap_bitfield('s', '{11,12}', zm_int4set2bitfield_int4('s', '{12}')) AS overlap,
       zm_int4set_included_in_bitfield('s', '{12,13}', zm_int4set2bitfield_int4('s', '{12}')) AS included;
-- NULL literals give NULL, like the strict int4[] forms.
SELECT zm_sort_int4(NULL) IS NULL AS sort, zm_range_pack(NULL) IS NULL AS pack,
       zm_int4setconv_int4('s', NULL, 'r') IS NULL AS conv;
-- A literal that holds no int4[] fails as the cast does, and so does a bad kind letter.
SELECT pg_temp.outcome($q$SELECT zm_sort_int4('{3,x}')$q$);
SELECT pg_temp.outcome($q$SELECT zm_sort_int4('3,1')$q$);
SELECT pg_temp.outcome($q$SELECT zm_sort_int4('{3,99999999999}')$q$);
SELECT pg_temp.outcome($q$SELECT zm_int4setconv_int4('x', '{1,2}', 'r')$q$);
-- Arrays of another element type still reach the library's own check through the anyarray twin.
SELECT pg_temp.outcome($q$SELECT zm_sort_int4('{3,1}'::int8[])$q$);
SELECT pg_temp.outcome($q$SELECT zm_range_pack('{7,9}'::int8[])$q$);
SELECT pg_temp.outcome($q$SELECT zm_int4setconv_int4('s', '{1,2}'::text[], 'r')$q$);
SELECT pg_temp.outcome($q$SELECT zm_int4set2bitfield_int4('s', '{1,2}'::int8[])$q$);
SELECT pg_temp.outcome($q$SELECT zm_count_scalar_in_int4set('s', '{1,2}'::int8[])$q$);
-- Functions with only an int4[] declaration took literals already.
SELECT zm_int4range_union('{1,3}', '{4,6}') AS u, zm_int4range_exclusion('{1,10}', '{3,4,6,7}') AS e,
       zm_int4_in_rangearray(5, '{1,3,5,9}') AS member, '{1,3}' &&& '{3,9}' AS overlap;

-- v <@ '{0,10}' (value in a range array): the literal is read once, when the query is planned.
CREATE TEMP TABLE untyped_values AS SELECT g AS v FROM generate_series(-5, 25) g;
SELECT 5 <@ '{1,3,5,9}' AS five, 4 <@ '{1,3,5,9}' AS four;
SELECT array_agg(v ORDER BY v) FROM untyped_values WHERE v <@ '{0,3,10,12}';
EXPLAIN (COSTS OFF) SELECT v FROM untyped_values WHERE v <@ '{0,3,10,12}';
-- v && '{0,10}' resolved without help, and uses the GiST index.
CREATE INDEX ON untyped_values USING gist (v zm_int4_gist_ops);
ANALYZE untyped_values;
SET enable_seqscan = off;
EXPLAIN (COSTS OFF) SELECT v FROM untyped_values WHERE v && '{0,3,10,12}';
SELECT array_agg(v ORDER BY v) FROM untyped_values WHERE v && '{0,3,10,12}';
RESET enable_seqscan;

-- Parameters without a type, as drivers send them: each is resolved as the literal is.
PREPARE untyped_sort AS SELECT zm_sort_int4($1);
PREPARE untyped_member AS SELECT $1::int4 <@ $2;
PREPARE untyped_union AS SELECT zm_int4range_union($1, $2);
PREPARE untyped_pack AS SELECT zm_range_pack($1);
SELECT name, parameter_types FROM pg_prepared_statements WHERE name LIKE 'untyped\_%' ORDER BY name;
EXECUTE untyped_sort('{3,1,2}');
EXECUTE untyped_member(5, '{1,3,5,9}');
EXECUTE untyped_member(4, '{1,3,5,9}');
EXECUTE untyped_union('{1,3}', '{4,6}');
EXECUTE untyped_pack('{7,9}');
DEALLOCATE ALL;

-- Forms PostgreSQL's rules resolve elsewhere; each works with the cast that follows it.
-- A binary operator first takes the literal as the other operand's type, and && (int8, int8)
-- exists: on a packed range, the literal is an int8.
SELECT pg_temp.outcome($q$SELECT zm_range_pack(1, 5) && '{3,4}'$q$);
SELECT pg_temp.outcome($q$SELECT zm_range_pack(1, 5) && '{3,4}'::int4[]$q$);
-- On a value, <@ takes the literal as a range array; a packed range or a bitfield needs its cast.
SELECT pg_temp.outcome($q$SELECT 5 <@ '21474836481'$q$);
SELECT pg_temp.outcome($q$SELECT 5 <@ '21474836481'::int8$q$);
-- Aggregates with a kind letter: zm_int4set_agg(kind, set, out) and zm_int4set_agg(lower, upper,
-- out) both take three literals.
SELECT pg_temp.outcome($q$SELECT zm_int4set_agg('s', '{3,1,2}', 'r')$q$);
SELECT pg_temp.outcome($q$SELECT zm_int4set_agg('s', '{3,1,2}'::int4[], 'r')$q$);
-- An int2[] casts to int4[] implicitly and matches anyarray as well.
SELECT pg_temp.outcome($q$SELECT zm_sort_int4('{3,1}'::int2[])$q$);
SELECT pg_temp.outcome($q$SELECT zm_sort_int4('{3,1}'::int2[]::int4[])$q$);
