-- Torture test: every function and aggregate of the extension (operators call the same functions)
-- is called many times with random arguments: random lengths (odd ones too), values at the int4
-- limits, NULL arguments and NULL elements, two-dimensional and empty arrays, random and truncated
-- bytea, wrong element types and bad kind letters. Every call must either return or raise an error
-- with one of the extension's SQLSTATEs or the server's own for oversized requests; a crashed
-- backend fails the run (the test script also checks the server log for it).
--
-- The number of calls per function is the setting kestrava.torture_rounds (default 40);
-- scripts/torture.sh runs a longer session.
CREATE EXTENSION IF NOT EXISTS kestrava_range_operators;
SET statement_timeout = '60s';
SELECT setseed(0.5);

CREATE FUNCTION pg_temp.pick(VARIADIC options text[]) RETURNS text LANGUAGE sql VOLATILE
RETURN options[1 + floor(random() * cardinality(options))::int];

CREATE FUNCTION pg_temp.r_int4_text() RETURNS text LANGUAGE sql VOLATILE RETURN
  CASE floor(random() * 10)::int
    WHEN 0 THEN '-2147483648' WHEN 1 THEN '2147483647' WHEN 2 THEN '0' WHEN 3 THEN '-1'
    WHEN 4 THEN (floor(random() * 4294967296)::int8 - 2147483648)::text
    WHEN 5 THEN floor(random() * 2147483648)::int8::text
    ELSE (floor(random() * 200)::int - 100)::text END;

-- int4[] literals of every shape the readers must survive
CREATE FUNCTION pg_temp.r_int4_array() RETURNS text LANGUAGE plpgsql VOLATILE AS $$
DECLARE
  n int := floor(random() * 24)::int;
  elements text[] := '{}';
  shape int := floor(random() * 12)::int;
BEGIN
  FOR i IN 1..n LOOP
    elements := elements || pg_temp.r_int4_text();
  END LOOP;
  RETURN CASE shape
    WHEN 0 THEN 'NULL::int4[]'
    WHEN 1 THEN '''{}''::int4[]'
    WHEN 2 THEN format('ARRAY[[%s,%s],[%s,%s]]::int4[]', pg_temp.r_int4_text(), pg_temp.r_int4_text(),
                       pg_temp.r_int4_text(), pg_temp.r_int4_text())
    WHEN 3 THEN format('ARRAY[%s,NULL,%s]::int4[]', pg_temp.r_int4_text(), pg_temp.r_int4_text())
    WHEN 4 THEN format('''[0:1]={%s,%s}''::int4[]', pg_temp.r_int4_text(), pg_temp.r_int4_text())
    -- sorted values reach the deeper paths of the readers that expect order
    WHEN 5 THEN format('(SELECT coalesce(array_agg(x ORDER BY x), ''{}'') FROM unnest(%L::int4[]) x)',
                       '{' || array_to_string(elements, ',') || '}')
    WHEN 6 THEN format('(SELECT coalesce(array_agg(x ORDER BY x), ''{}'') FROM unnest(%L::int4[]) x)',
                       '{' || array_to_string(elements, ',') || '}')
    -- a mix-array look: a count, then values with and without the top bit
    WHEN 7 THEN format('ARRAY[%s, %s | (-2147483648), %s, %s]::int4[]', floor(random() * 20)::int,
                       floor(random() * 50)::int, floor(random() * 60)::int, floor(random() * 70)::int)
    ELSE '''{' || array_to_string(elements, ',') || '}''::int4[]' END;
END $$;

CREATE FUNCTION pg_temp.r_int8_text() RETURNS text LANGUAGE sql VOLATILE RETURN
  CASE floor(random() * 8)::int
    WHEN 0 THEN 'NULL::int8'
    WHEN 1 THEN '(-9223372036854775808)::int8'
    WHEN 2 THEN '9223372036854775807::int8'
    -- a packed range, in order or reversed
    ELSE format('((%s)::int8 << 32 | ((%s)::int8 & 4294967295))', pg_temp.r_int4_text(), pg_temp.r_int4_text()) END;

CREATE FUNCTION pg_temp.r_bytea_text() RETURNS text LANGUAGE plpgsql VOLATILE AS $$
DECLARE
  n int := floor(random() * 40)::int;
  bytes text := '';
BEGIN
  FOR i IN 1..n LOOP
    bytes := bytes || lpad(to_hex(floor(random() * 256)::int), 2, '0');
  END LOOP;
  RETURN CASE floor(random() * 6)::int
    WHEN 0 THEN 'NULL::bytea'
    WHEN 1 THEN '''\x''::bytea'
    -- a bitfield header over a random span, with a data length that may or may not fit it
    WHEN 2 THEN format('(int4send(%s) || int4send(%s) || ''\x%s''::bytea)',
                       pg_temp.r_int4_text(), pg_temp.r_int4_text(), bytes)
    WHEN 3 THEN format('(int4send(%s) || int4send(%s) || ''\x%s''::bytea)',
                       (floor(random() * 40) - 20)::int, (floor(random() * 200) - 20)::int, repeat('ff', n))
    ELSE format('''\x%s''::bytea', bytes) END;
END $$;

-- a concrete type for a polymorphic argument
CREATE FUNCTION pg_temp.concrete_type(t regtype) RETURNS regtype LANGUAGE sql VOLATILE RETURN
  CASE t
    WHEN 'anyarray'::regtype THEN pg_temp.pick('int4[]', 'int4[]', 'int8[]', 'text[]', 'bool[]', 'float4[]')::regtype
    WHEN 'anyelement'::regtype THEN pg_temp.pick('int4', 'int8', 'int2', 'text', 'bytea', 'bool', 'float4', 'float8',
                                                 'numeric', 'date')::regtype
    ELSE t END;

-- one random argument expression of the given type
CREATE FUNCTION pg_temp.r_argument(t regtype) RETURNS text LANGUAGE plpgsql VOLATILE AS $$
BEGIN
  t := pg_temp.concrete_type(t);
  RETURN CASE t
    WHEN 'int4'::regtype THEN '(' || pg_temp.pick(pg_temp.r_int4_text(), pg_temp.r_int4_text(), 'NULL') || ')::int4'
    WHEN 'int2'::regtype THEN pg_temp.pick('(' || (floor(random() * 65536) - 32768)::int::text || ')',
                                           (floor(random() * 4) + 4 * floor(random() * 3) + 512 * floor(random() * 3))::int::text,
                                           'NULL') || '::int2'
    WHEN 'int8'::regtype THEN pg_temp.r_int8_text()
    WHEN 'int4[]'::regtype THEN pg_temp.r_int4_array()
    WHEN 'bytea'::regtype THEN pg_temp.r_bytea_text()
    WHEN '"char"'::regtype THEN pg_temp.pick('''r''', '''s''', '''m''', '''x''', '''R''', 'NULL') || '::"char"'
    WHEN 'bool'::regtype THEN pg_temp.pick('true', 'false', 'NULL') || '::bool'
    -- text: junk, or an int4[] literal of any shape (the text forms read it as an int4[])
    WHEN 'text'::regtype THEN pg_temp.pick('''abc''', '''''', 'repeat(''x'', 5000)', 'NULL',
                                           '(' || pg_temp.r_int4_array() || ')', '(' || pg_temp.r_int4_array() || ')') || '::text'
    WHEN 'float4'::regtype THEN pg_temp.pick('1.5', '(-0.0)', '0.0', '''NaN''', 'NULL') || '::float4'
    WHEN 'float8'::regtype THEN pg_temp.pick('1.5', '(-0.0)', '0.0', '''NaN''', 'NULL') || '::float8'
    WHEN 'numeric'::regtype THEN pg_temp.pick('1.5', 'NULL') || '::numeric'
    WHEN 'date'::regtype THEN pg_temp.pick('''2020-01-01''', 'NULL') || '::date'
    WHEN 'int8[]'::regtype THEN pg_temp.pick('''{1,2,3,4}''', '''{}''', 'NULL') || '::int8[]'
    WHEN 'text[]'::regtype THEN pg_temp.pick('''{a,b}''', 'NULL') || '::text[]'
    WHEN 'bool[]'::regtype THEN pg_temp.pick('''{t,f,t,f,t}''', 'NULL') || '::bool[]'
    WHEN 'float4[]'::regtype THEN pg_temp.pick('''{1.5,2}''', 'NULL') || '::float4[]'
    ELSE 'NULL::' || t::text END;
END $$;

CREATE TEMP TABLE torture_outcomes(routine text, sqlstate text, message text);

CREATE FUNCTION pg_temp.torture(rounds int) RETURNS void LANGUAGE plpgsql AS $$
DECLARE
  r record;
  call text;
  types regtype[];
  state text;
  msg text;
BEGIN
  FOR r IN
    SELECT p.oid::regprocedure AS signature, p.proname, p.prokind,
           ARRAY(SELECT t::regtype FROM unnest(p.proargtypes::oid[]) t) AS argtypes
    FROM pg_proc p
    JOIN pg_depend d ON d.classid = 'pg_proc'::regclass AND d.objid = p.oid AND d.deptype = 'e'
    JOIN pg_extension e ON e.oid = d.refobjid AND e.extname = 'kestrava_range_operators'
    -- support functions taking internal cannot be called from SQL; their aggregates and indexes can
    WHERE NOT 'internal'::regtype::oid = ANY (p.proargtypes::oid[])
    ORDER BY p.oid::regprocedure::text
  LOOP
    FOR i IN 1..rounds LOOP
      IF r.prokind = 'a' THEN
        -- an aggregate over a few rows of fresh random arguments, one concrete type per column
        types := ARRAY(SELECT pg_temp.concrete_type(t) FROM unnest(r.argtypes) t);
        call := format('SELECT %I(%s) FROM (VALUES %s) v(%s) WHERE %s', r.proname,
                       (SELECT string_agg('c' || k, ', ') FROM generate_series(1, cardinality(types)) k),
                       (SELECT string_agg(format('(%s)', (SELECT string_agg(pg_temp.r_argument(t), ', ')
                                                          FROM unnest(types) t WHERE g > 0)), ', ')
                        FROM generate_series(1, 1 + floor(random() * 6)::int) g),
                       (SELECT string_agg('c' || k, ', ') FROM generate_series(1, cardinality(types)) k),
                       pg_temp.pick('true', 'true', 'true', 'false'));
      ELSE
        call := format('SELECT %I(%s)', r.proname,
                       (SELECT string_agg(pg_temp.r_argument(t), ', ') FROM unnest(r.argtypes) t));
      END IF;
      BEGIN
        EXECUTE call;
        INSERT INTO torture_outcomes VALUES (r.signature::text, '00000', NULL);
      EXCEPTION WHEN OTHERS THEN
        GET STACKED DIAGNOSTICS state = RETURNED_SQLSTATE, msg = MESSAGE_TEXT;
        INSERT INTO torture_outcomes VALUES (r.signature::text, state, left(call, 400) || ' -> ' || msg);
      END;
    END LOOP;
  END LOOP;
END $$;

SELECT pg_temp.torture(coalesce(nullif(current_setting('kestrava.torture_rounds', true), ''), '40')::int);

-- every routine was called, most of them also returned normally
SELECT count(DISTINCT routine) = (SELECT count(*) FROM pg_depend d JOIN pg_extension e ON e.oid = d.refobjid
                                  JOIN pg_proc p ON d.classid = 'pg_proc'::regclass AND p.oid = d.objid
                                  WHERE e.extname = 'kestrava_range_operators'
                                    AND NOT 'internal'::regtype::oid = ANY (p.proargtypes::oid[]))
         AS every_routine_called,
       count(*) FILTER (WHERE sqlstate = '00000') > count(*) / 4 AS many_returned
FROM torture_outcomes;

-- errors other than the extension's own SQLSTATEs and the server's own for oversized requests
-- (54000 program limit exceeded, XX000 invalid memory alloc request size) and for text that is not an
-- int4[] literal (22P02, from the array input of the text forms); each row is a finding
SELECT routine, sqlstate, message
FROM torture_outcomes
WHERE sqlstate NOT IN ('00000', '53200', '42804', '22023', '22015', '22P03', 'XX002', '02000', '54000', '22P02')
  AND NOT (sqlstate = 'XX000' AND message LIKE '%invalid memory alloc request size%')
  -- a polymorphic argument of a type that the function's declaration does not accept
  AND sqlstate NOT IN ('42883', '42804', '42P18')
ORDER BY 1, 2
LIMIT 20;
