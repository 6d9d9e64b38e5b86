-- The output does not depend on whether an earlier test created the extension; one created here is
-- dropped at the end, so the database is left as found.
CREATE TEMP TABLE gist_random_extensions_before AS
SELECT extname FROM pg_extension WHERE extname = 'kestrava_range_operators';
SET client_min_messages = warning;
CREATE EXTENSION IF NOT EXISTS kestrava_range_operators;
RESET client_min_messages;
-- Index scans against sequential scans on random tables and random queries. Each operator of each
-- class is run, query by query, once with the operator evaluated on every row (sequential scan) and
-- once through the index (plain and bitmap index scans), on three copies of the table whose
-- indexes were built by a sorted CREATE INDEX, by many INSERT batches in random order into an
-- indexed table, and by a buffering build; then again after deletes and VACUUM, and after REINDEX.
-- Only counts are printed; every mismatch count must be 0.
-- psql variables rows and queries (per operator) scale the run.
\if :{?queries}
\else
\set queries 300
\endif
SET max_parallel_workers_per_gather = 0;
SET client_min_messages = warning;
-- (pg_regress feeds the test to psql on standard input: the include is found from the test directory.)
\getenv abs_srcdir PG_ABS_SRCDIR
\set gist_random_data :abs_srcdir '/sql/include/gist_random_data.psql'
\i :gist_random_data

-- (Inserts choose at random among equally good subtrees, so only the sorted builds have a fixed
-- size.)
SELECT relname, CASE WHEN relname LIKE '%sorted%' THEN (pg_relation_size(oid) / 8192)::text ELSE 'varies' END AS pages
FROM pg_class WHERE relname LIKE 'rnd\__\_%\_idx' ORDER BY relname;

-- Random queries.
-- Range arrays: mostly sorted disjoint ranges (0 to 6 of them, short and long), also empty,
-- unsorted, NULL-holding and two-dimensional arrays and ones reaching the int4 ends.
CREATE FUNCTION pg_temp.random_range_array(n int, start int, maxgap int, maxlen int) RETURNS int4[] LANGUAGE plpgsql AS $$
DECLARE a int4[] := '{}'; lo int8 := start; len int;
BEGIN
  FOR i IN 1..n LOOP
    lo := lo + 2 + floor(random() * maxgap);
    len := floor(random() * maxlen);
    EXIT WHEN lo + len > 2147483647;
    a := a || ARRAY[lo::int4, (lo + len)::int4];
    lo := lo + len;
  END LOOP;
  RETURN a;
END $$;
CREATE TABLE rnd_q_array AS
  SELECT qid, CASE
    WHEN k < 0.65 THEN pg_temp.random_range_array(floor(random() * 7)::int, floor(random() * 44000 - 22000)::int,
                                                   CASE WHEN random() < 0.5 THEN 50 ELSE 5000 END,
                                                   CASE WHEN random() < 0.5 THEN 3 ELSE 100 END)
    WHEN k < 0.75 THEN pg_temp.random_range_array(1, floor(random() * 44000 - 22000)::int, 1,
                                                   CASE WHEN random() < 0.8 THEN 30 ELSE 2000 END)
    WHEN k < 0.80 THEN '{}'::int4[]
    WHEN k < 0.85 THEN ARRAY[floor(random() * 1000)::int4, NULL, 2, 3]
    WHEN k < 0.90 THEN ARRAY[[floor(random() * 100 - 50)::int4, 1000], [2000, 3000]]
    WHEN k < 0.97 THEN (SELECT array_agg(x ORDER BY o) FROM (
                          SELECT unnest(ARRAY[lo, lo + 5]) AS x, g AS o FROM (
                            SELECT g, floor(random() * 40000 - 20000 + qid * 0)::int4 AS lo FROM generate_series(1, 4) g) s) u)
    WHEN k < 0.975 THEN ARRAY[-2147483648, floor(random() * 40000 - 40000)::int4]
    WHEN k < 0.98 THEN ARRAY[floor(random() * 40000)::int4, 2147483647]
    WHEN k < 0.985 THEN ARRAY[-2147483648, 2147483647]
    ELSE (SELECT array_agg(x ORDER BY x) FROM (SELECT pg_temp.anywhere() AS x FROM generate_series(1, 6 + qid * 0)) s)
  END AS a
  FROM (SELECT qid, random() AS k FROM generate_series(1, :queries) qid) s;
-- Packed ranges: small and wider valid ranges, single values, ranges open to an int4 end, reversed
-- halves, arbitrary int8s.
CREATE TABLE rnd_q_packed AS
  SELECT qid, CASE
    WHEN k < 0.45 THEN zm_range_pack(lo, lo + floor(random() * 30)::int4)
    WHEN k < 0.65 THEN zm_range_pack(lo, lo + floor(random() * 300)::int4)
    WHEN k < 0.70 THEN zm_range_pack(lo, lo + floor(random() * 3000)::int4)
    WHEN k < 0.73 THEN zm_range_pack(least(a, b), greatest(a, b))
    WHEN k < 0.74 THEN zm_range_pack(-2147483648, 2147483647)
    WHEN k < 0.80 THEN zm_range_pack(lo, lo)
    WHEN k < 0.815 THEN zm_range_pack(-2147483648, lo - 20000)
    WHEN k < 0.83 THEN zm_range_pack(lo + 20000, 2147483647)
    WHEN k < 0.97 THEN (((lo - floor(random() * 100)::int4)::int8) << 32) | (lo::int8 & 4294967295)
    ELSE (floor(random() * 4294967296) - 2147483648)::int8 << 32 | floor(random() * 4294967296)::int8
  END AS q
  FROM (SELECT qid, random() AS k, floor(random() * 44000 - 22000)::int4 AS lo, pg_temp.anywhere() AS a, pg_temp.anywhere() AS b
        FROM generate_series(1, :queries) qid) s;
-- Values: random ones, ones taken from the data, the far-out ones and the int4 ends.
CREATE TABLE rnd_q_value AS
  SELECT qid, CASE
    WHEN k < 0.50 THEN floor(random() * 44000 - 22000)::int4
    WHEN k < 0.85 THEN (SELECT v FROM rnd_v_sorted WHERE id = pick)
    WHEN k < 0.90 THEN pg_temp.anywhere()
    WHEN k < 0.93 THEN 1000000000
    WHEN k < 0.96 THEN -1000000000
    WHEN k < 0.98 THEN 2147483647
    ELSE -2147483648
  END AS v
  FROM (SELECT qid, random() AS k, 1 + floor(random() * :rows)::int AS pick FROM generate_series(1, :queries) qid) s;
DELETE FROM rnd_q_value WHERE v IS NULL;
-- Bitfields: spans of 1 to 3000 values (a few up to 60000) with 0.5% to 50% of their bits set,
-- around the data or beside it, and the empty ones.
CREATE FUNCTION pg_temp.le4(x int4) RETURNS bytea LANGUAGE sql IMMUTABLE AS $$
  SELECT set_byte(set_byte(set_byte(set_byte('\x00000000'::bytea, 0, x & 255), 1, (x >> 8) & 255), 2, (x >> 16) & 255), 3, (x >> 24) & 255)
$$;
CREATE FUNCTION pg_temp.random_bitfield(first int4, n int4, density float8) RETURNS bytea LANGUAGE plpgsql AS $$
DECLARE data bytea := decode(repeat('00', ((n::int8 + 63) / 64 * 8)::int), 'hex');
BEGIN
  FOR k IN 0 .. n - 1 LOOP
    IF random() < density THEN
      data := set_bit(data, (k >> 3) * 8 + 7 - (k & 7), 1);
    END IF;
  END LOOP;
  RETURN pg_temp.le4(first) || pg_temp.le4(first + n - 1) || data;
END $$;
CREATE TABLE rnd_q_bitfield AS
  SELECT qid, CASE
    WHEN k < 0.85 THEN pg_temp.random_bitfield(lo, 1 + floor(random() * 3000)::int4, CASE WHEN random() < 0.5 THEN 0.005 ELSE 0.5 END)
    WHEN k < 0.90 THEN pg_temp.random_bitfield(lo, 1 + floor(random() * 60000)::int4, 0.0005)
    WHEN k < 0.93 THEN pg_temp.random_bitfield(999999990 + floor(random() * 20)::int4, 1 + floor(random() * 20)::int4, 0.5)
    WHEN k < 0.95 THEN pg_temp.le4(0) || pg_temp.le4(-1) || '\x00'::bytea
    WHEN k < 0.97 THEN pg_temp.le4(0) || pg_temp.le4(-1) || '\x0000000000000000'::bytea
    ELSE pg_temp.le4(lo) || pg_temp.le4(lo - 1)
  END AS b
  FROM (SELECT qid, random() AS k, floor(random() * 46000 - 23000)::int4 AS lo FROM generate_series(1, :queries) qid) s;
SELECT count(*) AS bitfields, count(*) FILTER (WHERE length(b) <= 16) AS empty FROM rnd_q_bitfield;
SELECT count(*) AS range_arrays, count(*) FILTER (WHERE cardinality(a) = 0) AS empty FROM rnd_q_array;
SELECT count(*) AS packed_ranges, count(*) FILTER (WHERE zm_rangepacked_lower(q) > zm_rangepacked_upper(q)) AS reversed FROM rnd_q_packed;
SELECT count(*) AS values FROM rnd_q_value;
ANALYZE;

-- For one operator: the rows of every query by a sequential scan of the first table, then by
-- plain, bitmap and index-only scans of each table, compared query by query (the index-only scan
-- returns the indexed column's values, the others the row ids).
CREATE FUNCTION pg_temp.check_operator(tables text[], qtable text, clause text, col text)
RETURNS TABLE(tbl text, scan text, index_used bool, queries bigint, rows_found bigint, mismatches bigint)
LANGUAGE plpgsql AS $$
DECLARE
  both_sel text;  -- per query: the ids and the column values found
  vals_sel text;  -- per query: the column values found (all an index-only scan can give)
  line text;
  mode text;
  scan_node text;
BEGIN
  both_sel := 'SELECT q.qid, coalesce(array_agg(t.id ORDER BY t.id) FILTER (WHERE t.id IS NOT NULL), ''{}'') AS ids, '
              || 'coalesce(array_agg(t.' || col || ' ORDER BY t.' || col || ') FILTER (WHERE t.id IS NOT NULL), ''{}'') AS vals '
              || 'FROM ' || qtable || ' q LEFT JOIN %s t ON ' || clause || ' GROUP BY q.qid';
  vals_sel := 'SELECT q.qid, NULL::int[] AS ids, coalesce(array_agg(t.' || col || ' ORDER BY t.' || col || ') '
              || 'FILTER (WHERE t.' || col || ' IS NOT NULL), ''{}'') AS vals '
              || 'FROM ' || qtable || ' q LEFT JOIN %s t ON ' || clause || ' GROUP BY q.qid';
  PERFORM set_config('enable_hashjoin', 'off', true);
  PERFORM set_config('enable_mergejoin', 'off', true);
  PERFORM set_config('enable_material', 'off', true);
  PERFORM set_config('enable_memoize', 'off', true);
  PERFORM set_config('jit', 'off', true);

  PERFORM set_config('enable_seqscan', 'on', true);
  PERFORM set_config('enable_indexscan', 'off', true);
  PERFORM set_config('enable_indexonlyscan', 'off', true);
  PERFORM set_config('enable_bitmapscan', 'off', true);
  DROP TABLE IF EXISTS rnd_expected;
  EXECUTE 'CREATE TEMP TABLE rnd_expected AS ' || format(both_sel, tables[1]);
  tbl := tables[1]; scan := 'seq'; index_used := false;
  FOR line IN EXECUTE 'EXPLAIN (COSTS OFF) ' || format(both_sel, tables[1]) LOOP
    index_used := index_used OR line LIKE '%Index%';
  END LOOP;
  SELECT count(*), sum(cardinality(ids)) INTO queries, rows_found FROM rnd_expected;
  mismatches := NULL;
  RETURN NEXT;

  PERFORM set_config('enable_seqscan', 'off', true);
  FOREACH tbl IN ARRAY tables LOOP
    FOREACH mode IN ARRAY ARRAY['index', 'bitmap', 'indexonly'] LOOP
      scan := mode;
      -- enable_indexscan covers index-only scans as well; vacuumed tables make them the cheaper.
      PERFORM set_config('enable_indexscan', CASE WHEN mode = 'bitmap' THEN 'off' ELSE 'on' END, true);
      PERFORM set_config('enable_bitmapscan', CASE WHEN mode = 'bitmap' THEN 'on' ELSE 'off' END, true);
      PERFORM set_config('enable_indexonlyscan', CASE WHEN mode = 'indexonly' THEN 'on' ELSE 'off' END, true);
      scan_node := CASE mode WHEN 'index' THEN '%Index Scan using ' || tbl || '_idx on%'
                             WHEN 'bitmap' THEN '%Bitmap Index Scan on ' || tbl || '_idx%'
                             ELSE '%Index Only Scan using ' || tbl || '_idx on%' END;
      index_used := false;
      FOR line IN EXECUTE 'EXPLAIN (COSTS OFF) ' || format(CASE WHEN mode = 'indexonly' THEN vals_sel ELSE both_sel END, tbl) LOOP
        index_used := index_used OR line LIKE scan_node;
      END LOOP;
      EXECUTE 'SELECT count(*), sum(cardinality(r.vals)), count(*) FILTER (WHERE r.vals IS DISTINCT FROM e.vals'
              || CASE WHEN mode = 'indexonly' THEN '' ELSE ' OR r.ids IS DISTINCT FROM e.ids' END || ') FROM ('
              || format(CASE WHEN mode = 'indexonly' THEN vals_sel ELSE both_sel END, tbl)
              || ') r FULL JOIN rnd_expected e USING (qid)'
        INTO queries, rows_found, mismatches;
      RETURN NEXT;
    END LOOP;
  END LOOP;
  PERFORM set_config('enable_seqscan', 'on', true);
  PERFORM set_config('enable_indexscan', 'on', true);
  PERFORM set_config('enable_indexonlyscan', 'on', true);
  PERFORM set_config('enable_bitmapscan', 'on', true);
END $$;
VACUUM ANALYZE;

-- One plan of each kind, for the record.
SET enable_seqscan = off; SET enable_bitmapscan = off; SET enable_hashjoin = off; SET enable_mergejoin = off;
SET enable_memoize = off;
EXPLAIN (COSTS OFF) SELECT count(*) FROM rnd_q_packed q JOIN rnd_p_sorted t ON t.p && q.q;
RESET enable_bitmapscan; SET enable_indexscan = off;
EXPLAIN (COSTS OFF) SELECT count(*) FROM rnd_q_array q JOIN rnd_v_inserted t ON t.v && q.a;
RESET ALL;
SET max_parallel_workers_per_gather = 0;
SET client_min_messages = warning;

-- Every operator of both classes, each table and scan against the sequential scan.
CREATE FUNCTION pg_temp.check_all()
RETURNS TABLE(operator text, tbl text, scan text, index_used bool, queries bigint, rows_found bigint, mismatches bigint)
LANGUAGE plpgsql AS $$
DECLARE
  vtables text[] := '{rnd_v_sorted,rnd_v_inserted,rnd_v_buffered}';
  ptables text[] := '{rnd_p_sorted,rnd_p_inserted,rnd_p_buffered}';
  c record;
BEGIN
  FOR c IN SELECT * FROM (VALUES
      -- zm_int4_gist_ops on an int4 column.
      (1, 'v && int4[]', vtables, 'rnd_q_array', 't.v && q.a', 'v'),
      (2, 'v <@ int8', vtables, 'rnd_q_packed', 't.v <@ q.q', 'v'),
      (3, 'v <@ bytea', vtables, 'rnd_q_bitfield', 't.v <@ q.b', 'v'),
      (4, 'v = int4', vtables, 'rnd_q_value', 't.v = q.v', 'v'),
      -- zm_int4rangepacked_gist_ops on a packed-range column.
      (5, 'p && int4[]', ptables, 'rnd_q_array', 't.p && q.a', 'p'),
      (6, 'p && int8', ptables, 'rnd_q_packed', 't.p && q.q', 'p'),
      (7, 'p <@ int8', ptables, 'rnd_q_packed', 't.p <@ q.q', 'p'),
      (8, 'p @> int8', ptables, 'rnd_q_packed', 't.p @> q.q', 'p'),
      (9, 'int4 <@ p', ptables, 'rnd_q_value', 'q.v <@ t.p', 'p')) o(n, op, tables, qtable, clause, col) ORDER BY n
  LOOP
    operator := c.op;
    FOR tbl, scan, index_used, queries, rows_found, mismatches IN
        SELECT * FROM pg_temp.check_operator(c.tables, c.qtable, c.clause, c.col) LOOP
      RETURN NEXT;
    END LOOP;
  END LOOP;
END $$;
CREATE TEMP TABLE rnd_checks AS SELECT 'built' AS stage, * FROM pg_temp.check_all();
SELECT operator, tbl, scan, index_used, queries, rows_found, mismatches FROM rnd_checks;

-- The deeper index built by inserts alone (its pages are checked by gist_pages).
VACUUM ANALYZE rnd_p_deep;
CREATE TABLE rnd_q_deep AS
  SELECT qid, zm_range_pack(lo, lo + CASE WHEN qid % 2 = 0 THEN 20 ELSE 2000 END) AS q
  FROM (SELECT qid, floor(random() * 410000 - 205000)::int4 AS lo FROM generate_series(1, 60) qid) s;
SELECT 'p && int8' AS operator, * FROM pg_temp.check_operator('{rnd_p_deep}', 'rnd_q_deep', 't.p && q.q', 'p');
SELECT 'p <@ int8' AS operator, * FROM pg_temp.check_operator('{rnd_p_deep}', 'rnd_q_deep', 't.p <@ q.q', 'p');

-- Deletes in all copies alike, VACUUM, then REINDEX: the answers stay those of the sequential scan.
DELETE FROM rnd_v_sorted WHERE id % 5 = 1;
DELETE FROM rnd_v_inserted WHERE id % 5 = 1;
DELETE FROM rnd_v_buffered WHERE id % 5 = 1;
DELETE FROM rnd_p_sorted WHERE id % 5 = 1;
DELETE FROM rnd_p_inserted WHERE id % 5 = 1;
DELETE FROM rnd_p_buffered WHERE id % 5 = 1;
VACUUM ANALYZE;
INSERT INTO rnd_checks SELECT 'vacuumed', * FROM pg_temp.check_all();
REINDEX TABLE rnd_v_sorted; REINDEX TABLE rnd_v_inserted; REINDEX TABLE rnd_v_buffered;
REINDEX TABLE rnd_p_sorted; REINDEX TABLE rnd_p_inserted; REINDEX TABLE rnd_p_buffered;
VACUUM ANALYZE;
INSERT INTO rnd_checks SELECT 'reindexed', * FROM pg_temp.check_all();
SELECT stage, count(*) FILTER (WHERE scan <> 'seq') AS index_scans,
       count(*) FILTER (WHERE scan <> 'seq' AND NOT index_used) AS without_index, sum(mismatches) AS mismatches,
       sum(rows_found) FILTER (WHERE scan = 'seq') < (SELECT sum(rows_found) FILTER (WHERE scan = 'seq') FROM rnd_checks WHERE stage = 'built') AS fewer_rows
FROM rnd_checks GROUP BY stage ORDER BY array_position('{built,vacuumed,reindexed}', stage);

DROP TABLE rnd_p_deep, rnd_q_deep;
DROP TABLE rnd_v_sorted, rnd_v_inserted, rnd_v_buffered, rnd_p_sorted, rnd_p_inserted, rnd_p_buffered,
           rnd_q_array, rnd_q_packed, rnd_q_value, rnd_q_bitfield;

DO $$
DECLARE e text;
BEGIN
  FOREACH e IN ARRAY ARRAY['kestrava_range_operators'] LOOP
    IF NOT EXISTS (SELECT FROM gist_random_extensions_before WHERE extname = e) THEN
      EXECUTE format('DROP EXTENSION %I', e);
    END IF;
  END LOOP;
END $$;
