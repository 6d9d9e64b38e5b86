CREATE EXTENSION IF NOT EXISTS kestrava_range_operators;
-- Set representation conversion and sorting: every edge case and error.
-- Errors are caught and shown as SQLSTATE and [message] (brackets keep trailing blanks visible).
CREATE FUNCTION pg_temp.try(query text) RETURNS text LANGUAGE plpgsql AS $$
DECLARE
  result text;
BEGIN
  EXECUTE query INTO result;
  RETURN result;
EXCEPTION WHEN OTHERS THEN
  RETURN 'ERROR ' || SQLSTATE || ': [' || SQLERRM || ']';
END $$;
CREATE FUNCTION pg_temp.conv(k1 "char", a int4[], k2 "char") RETURNS text LANGUAGE sql AS $$
  SELECT pg_temp.try(format('SELECT zm_int4setconv_int4(%L, %L::int4[], %L)', k1, a, k2))
$$;

-- scalar -> range
SELECT pg_temp.conv('s', '{1,2,3,5,7,8}', 'r');
SELECT pg_temp.conv('s', '{4,4,4}', 'r');
SELECT pg_temp.conv('s', '{3,2}', 'r');
SELECT pg_temp.conv('s', '{1,5,5,4}', 'r');
SELECT pg_temp.conv('s', '{}', 'r');
SELECT pg_temp.conv('s', '{-5,-4,-3,0,1,2147483646,2147483647}', 'r');
SELECT pg_temp.conv('s', '{-2147483648,-2147483647,7}', 'r');
-- the run rule takes the 32-bit wrapping difference: values 2^31 or more apart join one run
SELECT pg_temp.conv('s', '{-2000000000,2000000000}', 'r');
SELECT pg_temp.conv('s', '{-1,2147483645}', 'r');

-- scalar -> mix: the count element is the input length, duplicates included
SELECT pg_temp.conv('s', '{1,2,3,5}', 'm');
SELECT pg_temp.conv('s', '{1,1,2}', 'm');
SELECT pg_temp.conv('s', '{0,2,4,5,6}', 'm');
SELECT pg_temp.conv('s', '{7}', 'm');
SELECT pg_temp.conv('s', '{}', 'm');
SELECT pg_temp.conv('s', '{2,1}', 'm');
-- ...so converting that mix array back fails
SELECT pg_temp.conv('m', '{3,-2147483647,2}', 's');

-- range -> scalar
SELECT pg_temp.conv('r', '{1,3,7,7}', 's');
SELECT pg_temp.conv('r', '{5,4,1,1}', 's');
SELECT pg_temp.conv('r', '{5,6,1,2}', 's');
SELECT pg_temp.conv('r', '{1,3,2,4}', 's');
SELECT pg_temp.conv('r', '{1,2,3}', 's');
SELECT pg_temp.conv('r', '{}', 's');
-- expansion stops after the largest int4, without wrapping around
SELECT pg_temp.conv('r', '{2147483645,2147483647}', 's');
SELECT pg_temp.conv('r', '{2147483647,2147483647,-2147483648,-2147483647}', 's');
-- more values than an int4 can count
SELECT pg_temp.conv('r', '{0,2147483647}', 's');
SELECT pg_temp.conv('r', '{-2147483648,2147483647}', 's');
SELECT pg_temp.conv('r', '{0,1073741824,0,1073741824}', 's');
-- countable, but beyond what one array can hold: the allocation fails
SELECT pg_temp.conv('r', '{0,2000000000}', 's');

-- range -> mix: pairs written as they come, count added with 32-bit wrap-around
SELECT pg_temp.conv('r', '{1,3,7,7}', 'm');
SELECT pg_temp.conv('r', '{1,2,3,4}', 'm');
SELECT pg_temp.conv('r', '{5,3}', 'm');
SELECT pg_temp.conv('r', '{0,2147483647}', 'm');
SELECT pg_temp.conv('r', '{}', 'm');
SELECT pg_temp.conv('r', '{1,2,3}', 'm');

-- mix -> scalar
SELECT pg_temp.conv('m', '{4,-2147483647,3,7}', 's');
SELECT pg_temp.conv('m', '{2,9,5}', 's');
SELECT pg_temp.conv('m', '{3,-3,2147483647}', 's');
SELECT pg_temp.conv('m', '{1,-2147483648,0}', 's');
SELECT pg_temp.conv('m', '{}', 's');
SELECT pg_temp.conv('m', '{0}', 's');
SELECT pg_temp.conv('m', '{3,-2147483647}', 's');
SELECT pg_temp.conv('m', '{1,-2147483643,-1}', 's');
SELECT pg_temp.conv('m', '{1,-2147483643,2}', 's');
SELECT pg_temp.conv('m', '{5,1,2}', 's');
SELECT pg_temp.conv('m', '{1,1,2}', 's');
SELECT pg_temp.conv('m', '{0,1}', 's');
-- counts that lie: negative, or more than an array can hold, or far fewer than the items hold
SELECT pg_temp.conv('m', '{-1,5}', 's');
SELECT pg_temp.conv('m', '{-2147483648}', 's');
SELECT pg_temp.conv('m', '{2147483647,-2147483648,2147483646}', 's');
SELECT pg_temp.conv('m', '{2,-2147483648,2147483647}', 's');
SELECT pg_temp.conv('m', '{1000000,1,2}', 's');

-- mix -> range
SELECT pg_temp.conv('m', '{4,-2147483647,3,7}', 'r');
SELECT pg_temp.conv('m', '{0}', 'r');
SELECT pg_temp.conv('m', '{}', 'r');
SELECT pg_temp.conv('m', '{2,9,5}', 'r');
SELECT pg_temp.conv('m', '{-77,5}', 'r');
SELECT pg_temp.conv('m', '{1,-2147483643}', 'r');
SELECT pg_temp.conv('m', '{1,-2147483643,-1}', 'r');
SELECT pg_temp.conv('m', '{1,-2147483643,2}', 'r');
SELECT pg_temp.conv('m', '{1,-1,2147483647}', 'r');

-- kind letters
SELECT pg_temp.conv('s', '{1,2}', 's');
SELECT pg_temp.conv('r', '{1,2}', 'r');
SELECT pg_temp.conv('m', '{1,2}', 'm');
SELECT pg_temp.conv('x', '{1}', 'r');
SELECT pg_temp.conv('s', '{1}', 'R');
SELECT pg_temp.conv('S', '{1}', 'r');
-- the letters are resolved before the array is looked at, the element type before the pair
SELECT pg_temp.try($$SELECT zm_int4setconv_int4('x', '{1}'::int8[], 'r')$$);
SELECT pg_temp.try($$SELECT zm_int4setconv_int4('s', '{1}'::int8[], 's')$$);
SELECT pg_temp.try($$SELECT zm_int4setconv_int4('s', '{1,2}'::int8[], 'r')$$);
SELECT pg_temp.try($$SELECT zm_int4setconv_int4('m', '{1,2}'::int2[], 'r')$$);
SELECT pg_temp.try($$SELECT zm_int4setconv_int4('r', '{a,b}'::text[], 's')$$);
SELECT zm_int4setconv_int4('x', '{1}'::int4[], 'r');
\echo :LAST_ERROR_SQLSTATE
-- A result beyond the server's 1 GB allocation limit: out of memory, with the size asked for.
SELECT zm_int4setconv_int4('r', '{0,299999999}'::int4[], 's');
\echo :LAST_ERROR_SQLSTATE

-- arrays that are not one-dimensional or carry a null bitmap are read as empty
SELECT pg_temp.conv('s', '{{1,2},{3,4}}', 'r');
SELECT pg_temp.conv('r', '{{1,2},{3,4}}', 's');
SELECT pg_temp.conv('m', '{{1,2},{3,4}}', 's');
SELECT pg_temp.conv('s', '{3,NULL,1}', 'r');
SELECT pg_temp.conv('r', '{1,NULL,3}', 's');
SELECT pg_temp.conv('m', '{1,NULL}', 'r');
-- the lower bound is ignored
SELECT pg_temp.conv('s', '[5:7]={1,2,4}', 'r');
SELECT pg_temp.conv('r', '[0:1]={1,3}', 'm');
-- results are one-dimensional with lower bound 1, also when empty
SELECT array_ndims(a), array_lower(a, 1), array_length(a, 1), pg_column_size(a)
FROM (VALUES (zm_int4setconv_int4('s', '{}'::int4[], 'r')),
             (zm_int4setconv_int4('m', '{0}'::int4[], 'r')),
             (zm_int4setconv_int4('r', '[3:4]={1,2}'::int4[], 's'))) v(a);

-- NULL arguments give NULL
SELECT zm_int4setconv_int4(NULL, '{1}'::int4[], 'r') IS NULL AS a,
       zm_int4setconv_int4('s', NULL::int4[], 'r') IS NULL AS b,
       zm_int4setconv_int4('s', '{1}'::int4[], NULL) IS NULL AS c;

-- an untyped literal is read as an int4[] (by the text form)
SELECT zm_int4setconv_int4('s', '{1,2}', 'r');
SELECT zm_int4setconv_int4('s', ARRAY[1,2,4], 'r');

-- sorting
SELECT zm_sort_int4('{3,1,2,1}'::int4[]);
SELECT zm_sort_int4('{}'::int4[]), array_ndims(zm_sort_int4('{}'::int4[])), array_lower(zm_sort_int4('{}'::int4[]), 1);
SELECT zm_sort_int4('{2147483647,-2147483648,0,-1,1,-2147483648}'::int4[]);
SELECT zm_sort_int4('{{3,1},{2,0}}'::int4[]), array_ndims(zm_sort_int4('{{3,1},{2,0}}'::int4[]));
SELECT zm_sort_int4('{3,NULL,1}'::int4[]);
SELECT zm_sort_int4('[2:4]={9,8,7}'::int4[]), array_lower(zm_sort_int4('[2:4]={9,8,7}'::int4[]), 1);
SELECT zm_sort_int4(NULL::int4[]) IS NULL;
SELECT zm_sort_int4(ARRAY[5,4]);
SELECT pg_temp.try($$SELECT zm_sort_int4('{3,1}'::int8[])$$);
SELECT pg_temp.try($$SELECT zm_sort_int4('{3,1}'::int2[])$$);
SELECT pg_temp.try($$SELECT zm_sort_int4('{}'::int8[])$$);
-- sorted scalars feed the scalar conversions
SELECT zm_int4setconv_int4('s', zm_sort_int4('{8,3,1,2,7,3}'::int4[]), 'r');
