CREATE EXTENSION IF NOT EXISTS kestrava_range_operators;
-- Cancellation: single calls that run for seconds (huge expansions, wide bitfield writes and
-- scans, aggregate steps over huge states) give way to statement_timeout and pg_cancel_backend
-- within a second. Each query below runs for seconds (most for more than ten) when nothing
-- interrupts it; only a boolean is printed, the measured times are in DEBUG messages.

-- Runs `query` under the statement_timeout set by the caller: true when the query is cancelled
-- (SQLSTATE 57014) less than `bound` after the timeout expired, false when it completes or is
-- cancelled later. Other errors propagate.
CREATE FUNCTION pg_temp.cancelled_within(query text, bound interval) RETURNS boolean LANGUAGE plpgsql AS $$
DECLARE
  late interval;
BEGIN
  EXECUTE query;
  RAISE DEBUG 'completed after %', clock_timestamp() - statement_timestamp();
  RETURN false;
EXCEPTION WHEN query_canceled THEN
  late := clock_timestamp() - statement_timestamp() - current_setting('statement_timeout')::interval;
  RAISE DEBUG 'cancelled % after the timeout', late;
  RETURN late < bound;
END $$;
CREATE FUNCTION pg_temp.cancelled_within_1s(query text) RETURNS boolean LANGUAGE sql
  RETURN pg_temp.cancelled_within(query, interval '1 s');

-- Arguments made of a few wide ranges, repeated: each range costs a pass over a huge span.
CREATE TEMP TABLE wide (name text PRIMARY KEY, a int4[]);
INSERT INTO wide
SELECT name, (SELECT array_agg(v ORDER BY g, o) FROM generate_series(1, n) g, unnest(pair) WITH ORDINALITY u(v, o))
FROM (VALUES ('full span x 40', 40, '{-2147483648,2147483646}'::int4[]),
             ('0..2^31-2 x 40', 40, '{0,2147483646}'),
             ('1..2^29-2 x 1000', 1000, '{1,536870910}'),
             ('0..2^29-1 x 1000', 1000, '{0,536870911}'),
             ('mix 1..2^29-2 x 1000', 1000, '{-2147483647,536870910}'),
             ('0..250000000', 1, '{0,250000000}'),
             ('50000000..99999999, 0..49999999', 1, '{50000000,99999999,0,49999999}')) v(name, n, pair);
UPDATE wide SET a = 1000 || a WHERE name LIKE 'mix%';
INSERT INTO wide
SELECT 'literal inserts', (SELECT array_agg(v ORDER BY v) FROM generate_series(0, 1999998, 2) v) || 2147483647
                          || (SELECT array_agg(-2 * v ORDER BY v) FROM generate_series(1, 20000) v);
SELECT name, cardinality(a) FROM wide ORDER BY name;

-- Expansions to scalars: 250 million values (a 1 GB array), written in one call. One such call
-- runs for about a second (the array is allocated and written in 0.7 to 1.5 s), so these are held
-- to a quarter of a second after the timeout.
SET statement_timeout = '100ms';
SELECT 'r -> s' AS expansion,
       pg_temp.cancelled_within($q$SELECT array_length(zm_int4setconv_int4('r', a, 's'), 1) FROM wide WHERE name = '0..250000000'$q$, '0.25 s');
SELECT 'm -> s' AS expansion,
       pg_temp.cancelled_within($q$SELECT array_length(zm_int4setconv_int4('m', zm_int4setconv_int4('r', a, 'm'), 's'), 1) FROM wide WHERE name = '0..250000000'$q$, '0.25 s');
SELECT 'zm_int4set_agg scalar output' AS expansion,
       pg_temp.cancelled_within($q$SELECT array_length(zm_int4set_agg(0, 250000000, 's'), 1)$q$, '0.25 s');
SELECT 'zm_int4set_agg_optimized scalar output' AS expansion,
       pg_temp.cancelled_within($q$SELECT array_length(zm_int4set_agg_optimized(0, 250000000, 250000000, 's'), 1)$q$, '0.25 s');

-- Bitfield writes: forty passes over a 512 MB span.
SELECT 'bitfield build' AS writes,
       pg_temp.cancelled_within_1s($q$SELECT octet_length(zm_int4set2bitfield_int4('r', a)) FROM wide WHERE name = 'full span x 40'$q$);
-- The optimised aggregate: forty 256 MB ranges in one set row, and a thousand in as many pair
-- rows (buffered, then written in one step).
SELECT 'optimised aggregate, set row' AS writes,
       pg_temp.cancelled_within_1s($q$SELECT zm_int4set_agg_optimized('r', a, 2147483647, 'r') FROM wide WHERE name = '0..2^31-2 x 40'$q$);
SET statement_timeout = '500ms';  -- after the 256 MB bitfield is sized
SELECT 'optimised aggregate, pair rows' AS writes,
       pg_temp.cancelled_within_1s($q$SELECT zm_int4set_agg_optimized(0, 2147483646, 2147483647, 'r') FROM generate_series(1, 2000)$q$);

-- Bitfield tests: a thousand ranges, each against the whole of a 64 MB bitfield (no bit set for
-- the overlap, every bit set for the inclusion). The bitfield is built first, in well under the
-- timeout.
SET statement_timeout = '400ms';
SELECT 'overlap, range array' AS scans,
       pg_temp.cancelled_within_1s($q$SELECT zm_int4set_overlap_bitfield('r', a, zm_int4set2bitfield_int4('s', '{0,536870911}'::int4[])) FROM wide WHERE name = '1..2^29-2 x 1000'$q$);
SELECT 'overlap, mix array' AS scans,
       pg_temp.cancelled_within_1s($q$SELECT zm_int4set_overlap_bitfield('m', a, zm_int4set2bitfield_int4('s', '{0,536870911}'::int4[])) FROM wide WHERE name = 'mix 1..2^29-2 x 1000'$q$);
SELECT 'inclusion, range array' AS scans,
       pg_temp.cancelled_within_1s($q$SELECT zm_int4set_included_in_bitfield('r', a, zm_int4set2bitfield_int4('r', '{0,536870911}'::int4[])) FROM wide WHERE name = '0..2^29-1 x 1000'$q$);
SELECT 'inclusion, mix array' AS scans,
       pg_temp.cancelled_within_1s($q$SELECT zm_int4set_included_in_bitfield('m', a, zm_int4set2bitfield_int4('r', '{0,536870911}'::int4[])) FROM wide WHERE name = 'mix 1..2^29-2 x 1000'$q$);

-- zm_int4set_agg on a set row of a million separate values, then 2147483647 (a range ending there
-- leaves the canonical form: the rest is inserted literally), then 20000 values below all others,
-- each inserted at the front of the million-range list.
SET statement_timeout = '1s';
SELECT 'zm_int4set_agg, literal inserts' AS aggregate,
       pg_temp.cancelled_within_1s($q$SELECT cardinality(zm_int4set_agg('s', a, 'r')) FROM wide WHERE name = 'literal inserts'$q$);
-- zm_sort_int4 over 100 million values in two sorted runs: the expansion, then three radix passes,
-- both polling for interrupts. The whole query takes about two seconds on a fast machine, so a
-- fixed timeout may come after its end: the timeout is put halfway through the sort, after timing
-- the expansion alone and the whole query once.
CREATE FUNCTION pg_temp.seconds(query text) RETURNS float8 LANGUAGE plpgsql AS $$
DECLARE
  t0 timestamptz := clock_timestamp();
BEGIN
  EXECUTE query;
  RETURN extract(epoch FROM clock_timestamp() - t0);
END $$;
RESET statement_timeout;
SELECT set_config('statement_timeout', round(1000 * (expansion + (whole - expansion) / 2)) || 'ms', false) IS NOT NULL AS timeout_set
FROM (SELECT pg_temp.seconds($q$SELECT array_length(zm_int4setconv_int4('r', a, 's'), 1) FROM wide WHERE name = '50000000..99999999, 0..49999999'$q$) AS expansion,
             pg_temp.seconds($q$SELECT array_length(zm_sort_int4(zm_int4setconv_int4('r', a, 's')), 1) FROM wide WHERE name = '50000000..99999999, 0..49999999'$q$) AS whole) t;
SELECT 'zm_sort_int4' AS sort,
       pg_temp.cancelled_within_1s($q$SELECT array_length(zm_sort_int4(zm_int4setconv_int4('r', a, 's')), 1) FROM wide WHERE name = '50000000..99999999, 0..49999999'$q$);
RESET statement_timeout;

-- pg_cancel_backend from a second connection, while the other one writes a hundred 512 MB spans
-- into a bitfield, or tests a thousand ranges against a 64 MB bitfield.
CREATE EXTENSION IF NOT EXISTS dblink;
CREATE FUNCTION pg_temp.cancel_from_outside(query text) RETURNS boolean LANGUAGE plpgsql AS $$
DECLARE
  other int;
  t0 timestamptz;
  late interval;
  message text;
BEGIN
  PERFORM dblink_connect('canceltest', format('host=%s port=%s dbname=%s',
    split_part(current_setting('unix_socket_directories'), ',', 1), current_setting('port'), current_database()));
  SELECT pid INTO other FROM dblink('canceltest', 'SELECT pg_backend_pid()') AS t(pid int);
  PERFORM dblink_send_query('canceltest', query);
  -- Wait until the other backend is inside the query, then a little more.
  FOR i IN 1..500 LOOP
    PERFORM pg_stat_clear_snapshot();
    EXIT WHEN EXISTS (SELECT FROM pg_stat_activity a WHERE a.pid = other AND a.state = 'active' AND a.query LIKE '%zm_%');
    PERFORM pg_sleep(0.01);
  END LOOP;
  PERFORM pg_sleep(0.5);
  t0 := clock_timestamp();
  PERFORM pg_cancel_backend(other);
  WHILE dblink_is_busy('canceltest') = 1 AND clock_timestamp() - t0 < interval '30 s' LOOP
    PERFORM pg_sleep(0.005);
  END LOOP;
  late := clock_timestamp() - t0;
  SELECT dblink_error_message('canceltest') INTO message;
  PERFORM dblink_disconnect('canceltest');
  RAISE DEBUG 'cancelled after %: %', late, message;
  RETURN late < interval '1 s' AND message LIKE '%canceling statement due to user request%';
END $$;
SELECT 'bitfield build' AS writes,
       pg_temp.cancel_from_outside($q$SELECT octet_length(zm_int4set2bitfield_int4('r', (SELECT array_agg(v ORDER BY g, o) FROM generate_series(1, 100) g, unnest('{-2147483648,2147483646}'::int4[]) WITH ORDINALITY u(v, o))))$q$);
SELECT 'overlap, range array' AS scans,
       pg_temp.cancel_from_outside($q$SELECT zm_int4set_overlap_bitfield('r', (SELECT array_agg(v ORDER BY g, o) FROM generate_series(1, 1000) g, unnest('{1,536870910}'::int4[]) WITH ORDINALITY u(v, o)), zm_int4set2bitfield_int4('s', '{0,536870911}'::int4[]))$q$);

-- The session goes on normally.
SELECT zm_int4setconv_int4('r', '{1,3}'::int4[], 's');
DROP EXTENSION dblink;
