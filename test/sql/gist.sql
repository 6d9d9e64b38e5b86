-- The output does not depend on whether an earlier test created the extension; one created here is
-- dropped at the end, so the database is left as found.
CREATE TEMP TABLE gist_extensions_before AS
SELECT extname FROM pg_extension WHERE extname = 'kestrava_range_operators';
SET client_min_messages = warning;
CREATE EXTENSION IF NOT EXISTS kestrava_range_operators;
RESET client_min_messages;
SET max_parallel_workers_per_gather = 0;
-- Both operator classes are complete and well-formed.
SELECT opcname, opcintype::regtype, opckeytype::regtype, opcdefault, amvalidate(oid)
FROM pg_opclass WHERE opcname IN ('zm_int4_gist_ops', 'zm_int4rangepacked_gist_ops') ORDER BY 1;
SELECT c.opcname, o.amopstrategy, o.amopopr::regoperator
FROM pg_opclass c JOIN pg_amop o ON o.amopfamily = c.opcfamily
WHERE c.opcname IN ('zm_int4_gist_ops', 'zm_int4rangepacked_gist_ops') ORDER BY 1, 2;
SELECT c.opcname, p.amprocnum, p.amproc::regprocedure
FROM pg_opclass c JOIN pg_amproc p ON p.amprocfamily = c.opcfamily
WHERE c.opcname IN ('zm_int4_gist_ops', 'zm_int4rangepacked_gist_ops') ORDER BY 1, 2;

-- Compressing an int4 column: v becomes the key [v, v], the same 32 bits in both halves.
CREATE TABLE gist_values(v int4);
INSERT INTO gist_values VALUES (-1), (0), (5), (2147483647), (-2147483648), (NULL);
CREATE INDEX gist_values_idx ON gist_values USING gist (v zm_int4_gist_ops);

-- Compressing a packed-range column: the key is the int8 itself; upper below lower is refused.
CREATE TABLE gist_packed(p int8);
INSERT INTO gist_packed VALUES (zm_range_pack(2, 5)), (zm_range_pack(5, 9)), (zm_range_pack(1, 4)),
  (zm_range_pack(10, 10)), (zm_range_pack(-3, -1)), (zm_range_pack(-2147483648, 2147483647)), (NULL);
CREATE INDEX gist_packed_idx ON gist_packed USING gist (p zm_int4rangepacked_gist_ops);
INSERT INTO gist_packed VALUES ((4::int8 << 32) | 5);
\echo :LAST_ERROR_SQLSTATE
INSERT INTO gist_packed VALUES (-4294967296);
\echo :LAST_ERROR_SQLSTATE
CREATE TABLE gist_packed_bad AS SELECT ((4::int8 << 32) | 5) AS p;
CREATE INDEX ON gist_packed_bad USING gist (p zm_int4rangepacked_gist_ops);
\echo :LAST_ERROR_SQLSTATE
DROP TABLE gist_packed_bad;

-- Each strategy on a leaf: the index scan returns the rows of the sequential scan.
CREATE FUNCTION pg_temp.both_ways(query text) RETURNS TABLE(scan text, rows text) LANGUAGE plpgsql AS $$
DECLARE plan text; r text; mode text;
BEGIN
  PERFORM set_config('enable_seqscan', 'off', true);
  PERFORM set_config('enable_bitmapscan', 'off', true);
  FOREACH mode IN ARRAY ARRAY['index', 'index only'] LOOP
    -- enable_indexscan covers index-only scans as well; a vacuumed table makes them the cheaper.
    PERFORM set_config('enable_indexscan', 'on', true);
    PERFORM set_config('enable_indexonlyscan', CASE WHEN mode = 'index only' THEN 'on' ELSE 'off' END, true);
    scan := 'no index';
    FOR plan IN EXECUTE 'EXPLAIN (COSTS OFF) ' || query LOOP
      IF plan LIKE '%Index Scan using%' AND mode = 'index' OR plan LIKE '%Index Only Scan using%' AND mode = 'index only' THEN
        scan := mode;
      END IF;
    END LOOP;
    EXECUTE 'SELECT string_agg(x::text, '' '' ORDER BY x::text) FROM (' || query || ') s(x)' INTO r;
    rows := coalesce(r, '-');
    RETURN NEXT;
  END LOOP;
  PERFORM set_config('enable_seqscan', 'on', true);
  PERFORM set_config('enable_indexscan', 'off', true);
  PERFORM set_config('enable_indexonlyscan', 'off', true);
  scan := 'seq';
  EXECUTE 'SELECT string_agg(x::text, '' '' ORDER BY x::text) FROM (' || query || ') s(x)' INTO r;
  rows := coalesce(r, '-');
  RETURN NEXT;
  PERFORM set_config('enable_indexscan', 'on', true);
  PERFORM set_config('enable_indexonlyscan', 'on', true);
  PERFORM set_config('enable_bitmapscan', 'on', true);
END $$;
VACUUM ANALYZE gist_values, gist_packed;
CREATE VIEW gist_packed_ranges AS SELECT '[' || zm_rangepacked_lower(p) || ',' || zm_rangepacked_upper(p) || ']' AS r, p FROM gist_packed;
-- 3: packed ranges overlap (both ends inclusive).
SELECT * FROM pg_temp.both_ways('SELECT r FROM gist_packed_ranges WHERE p && zm_range_pack(5, 5)');
SELECT * FROM pg_temp.both_ways('SELECT r FROM gist_packed_ranges WHERE p && zm_range_pack(11, 20)');
-- 14: the key lies inside the query: [2,5] inside [2,5], not inside [3,5].
SELECT * FROM pg_temp.both_ways('SELECT r FROM gist_packed_ranges WHERE p <@ zm_range_pack(2, 5)');
SELECT * FROM pg_temp.both_ways('SELECT r FROM gist_packed_ranges WHERE p <@ zm_range_pack(3, 5)');
-- 15: the key contains the query.
SELECT * FROM pg_temp.both_ways('SELECT r FROM gist_packed_ranges WHERE p @> zm_range_pack(3, 4)');
-- 16: the value lies in the key, ends included (value <@ column, or column @> value).
SELECT * FROM pg_temp.both_ways('SELECT r FROM gist_packed_ranges WHERE 5 <@ p');
SELECT * FROM pg_temp.both_ways('SELECT r FROM gist_packed_ranges WHERE 2 <@ p');
SELECT * FROM pg_temp.both_ways('SELECT r FROM gist_packed_ranges WHERE p @> 5');
-- 1: range arrays; an empty, a two-dimensional and a NULL-holding array match nothing.
SELECT * FROM pg_temp.both_ways('SELECT r FROM gist_packed_ranges WHERE p && ''{0,1,7,7}''::int4[]');
SELECT * FROM pg_temp.both_ways('SELECT r FROM gist_packed_ranges WHERE p && ''{}''::int4[]');
SELECT * FROM pg_temp.both_ways('SELECT r FROM gist_packed_ranges WHERE p && ''{{1,2},{3,4}}''::int4[]');
SELECT * FROM pg_temp.both_ways('SELECT r FROM gist_packed_ranges WHERE p && ARRAY[1, NULL, 3, 4]');
-- The int4 column: 1 (value in a range array), 3 (value in a packed range), 16 (equality).
SELECT * FROM pg_temp.both_ways('SELECT v FROM gist_values WHERE v && ''{-5,0,5,6}''::int4[]');
SELECT * FROM pg_temp.both_ways('SELECT v FROM gist_values WHERE v && ''{-2147483648,-2147483648,2147483647,2147483647}''::int4[]');
SELECT * FROM pg_temp.both_ways('SELECT v FROM gist_values WHERE v <@ zm_range_pack(-1, 5)');
SELECT * FROM pg_temp.both_ways('SELECT v FROM gist_values WHERE v = -1');
SELECT * FROM pg_temp.both_ways('SELECT v FROM gist_values WHERE v = 4');
-- 2: the value's bit is set in a bitfield (first value, last value, bits most significant first).
CREATE FUNCTION pg_temp.le4(x int4) RETURNS bytea LANGUAGE sql IMMUTABLE AS $$
  SELECT set_byte(set_byte(set_byte(set_byte('\x00000000'::bytea, 0, x & 255), 1, (x >> 8) & 255), 2, (x >> 16) & 255), 3, (x >> 24) & 255)
$$;
CREATE FUNCTION pg_temp.bitfield(first int4, last int4, vals int4[], data_bytes int DEFAULT NULL) RETURNS bytea
LANGUAGE plpgsql IMMUTABLE AS $$
DECLARE count int8 := ((last::int8 - first::int8 + 1) % 4294967296 + 4294967296) % 4294967296;
        data bytea; k int8; v int4;
BEGIN
  data := decode(repeat('00', coalesce(data_bytes, ((count + 63) / 64 * 8)::int)), 'hex');
  FOREACH v IN ARRAY vals LOOP
    k := v::int8 - first;
    data := set_bit(data, ((k >> 3) * 8 + 7 - (k & 7))::int, 1);
  END LOOP;
  RETURN pg_temp.le4(first) || pg_temp.le4(last) || data;
END $$;
SELECT pg_temp.bitfield(3, 17, ARRAY[3, 5, 17]) = zm_int4set2bitfield_int4('s', ARRAY[3, 5, 17]) AS same_as_the_writer;
INSERT INTO gist_values VALUES (9), (10), (12), (13), (20), (21);
VACUUM gist_values;
SELECT * FROM pg_temp.both_ways(format('SELECT v FROM gist_values WHERE v <@ %L::bytea', pg_temp.bitfield(10, 20, ARRAY[12])));
SELECT * FROM pg_temp.both_ways(format('SELECT v FROM gist_values WHERE v <@ %L::bytea', pg_temp.bitfield(10, 20, ARRAY[10, 13, 20])));
SELECT * FROM pg_temp.both_ways(format('SELECT v FROM gist_values WHERE v <@ %L::bytea', pg_temp.bitfield(-10, 5, ARRAY[-10, -1, 0, 5])));
SELECT * FROM pg_temp.both_ways(format('SELECT v FROM gist_values WHERE v <@ %L::bytea', pg_temp.bitfield(2147483584, 2147483647, ARRAY[2147483647])));
-- Empty bitfields (last = first - 1, in 12-, 13- and 20-byte forms) match nothing, without error.
SELECT * FROM pg_temp.both_ways(format('SELECT v FROM gist_values WHERE v <@ %L::bytea', pg_temp.bitfield(5, 4, '{}', 0)));
SELECT * FROM pg_temp.both_ways(format('SELECT v FROM gist_values WHERE v <@ %L::bytea', pg_temp.bitfield(0, -1, '{}', 1)));
SELECT * FROM pg_temp.both_ways(format('SELECT v FROM gist_values WHERE v <@ %L::bytea', pg_temp.bitfield(0, -1, '{}', 8)));
-- A bitfield shorter than its header, or with a bit area of the wrong size, is refused by the index
-- and by the operator alike.
SET enable_seqscan = off;
SELECT count(*) FROM gist_values WHERE v <@ '\x0102'::bytea;
\echo :LAST_ERROR_SQLSTATE
SELECT count(*) FROM gist_values WHERE v <@ pg_temp.bitfield(0, 63, ARRAY[1], 16);
\echo :LAST_ERROR_SQLSTATE
SELECT count(*) FROM gist_values WHERE v <@ pg_temp.bitfield(0, 64, ARRAY[1], 8);
\echo :LAST_ERROR_SQLSTATE
SELECT count(*) FROM gist_values WHERE v <@ pg_temp.bitfield(5, 3, '{}', 0);
\echo :LAST_ERROR_SQLSTATE
SET enable_seqscan = on; SET enable_indexscan = off; SET enable_indexonlyscan = off; SET enable_bitmapscan = off;
SELECT count(*) FROM gist_values WHERE v <@ '\x0102'::bytea;
\echo :LAST_ERROR_SQLSTATE
SELECT count(*) FROM gist_values WHERE v <@ pg_temp.bitfield(0, 63, ARRAY[1], 16);
\echo :LAST_ERROR_SQLSTATE
RESET enable_seqscan; RESET enable_indexscan; RESET enable_indexonlyscan; RESET enable_bitmapscan;
SELECT count(*) FROM gist_values WHERE v <@ pg_temp.bitfield(0, 64, ARRAY[1], 16);
DELETE FROM gist_values WHERE v IN (9, 10, 12, 13, 20, 21);
-- NULL keys are not handed to the class; IS NULL is answered by the index itself.
SELECT * FROM pg_temp.both_ways('SELECT coalesce(v::text, ''null'') FROM gist_values WHERE v IS NULL');

-- <@ (int4, int4[]) ignores an odd trailing element and binary-searches; the index reads range
-- arrays like && does, so <@ is not in the class: never an index condition, only a filter.
SET enable_seqscan = off;
EXPLAIN (COSTS OFF) SELECT v FROM gist_values WHERE v <@ '{-5,0,5,6}'::int4[];
RESET enable_seqscan;
SELECT v FROM gist_values WHERE v <@ '{-5,0,5}'::int4[] ORDER BY v;

-- Errors of the consistent function: an odd range array (the operators refuse it as well).
SET enable_seqscan = off;
SELECT count(*) FROM gist_packed WHERE p && '{1,2,3}'::int4[];
\echo :LAST_ERROR_SQLSTATE
SELECT count(*) FROM gist_values WHERE v && '{1,2,3}'::int4[];
\echo :LAST_ERROR_SQLSTATE
SET enable_seqscan = on; SET enable_indexscan = off; SET enable_indexonlyscan = off; SET enable_bitmapscan = off;
SELECT count(*) FROM gist_packed WHERE p && '{1,2,3}'::int4[];
\echo :LAST_ERROR_SQLSTATE
SELECT count(*) FROM gist_values WHERE v && '{1,2,3}'::int4[];
\echo :LAST_ERROR_SQLSTATE
RESET enable_seqscan; RESET enable_indexscan; RESET enable_indexonlyscan; RESET enable_bitmapscan;

-- Strategies outside the table, and a range array of another element type, are refused; only an
-- operator class declared for it can make the index see them.
CREATE FUNCTION gist_test_any(int8, int8[]) RETURNS bool LANGUAGE plpgsql IMMUTABLE AS 'BEGIN RETURN true; END';
CREATE OPERATOR &&& (LEFTARG = int8, RIGHTARG = int8[], FUNCTION = gist_test_any);
CREATE OPERATOR CLASS gist_test_strategy_ops FOR TYPE int8 USING gist AS
  OPERATOR 1 &&& (int8, int8[]),
  OPERATOR 4 = (int8, int8),
  OPERATOR 10 <> (int8, int8),
  OPERATOR 12 < (int8, int8),
  OPERATOR 17 > (int8, int8),
  FUNCTION 1 zm_gist_range_consistent(internal, int8, int2, oid, internal),
  FUNCTION 2 zm_gist_range_union(internal, internal),
  FUNCTION 3 zm_gist_range_compress_int8(internal),
  FUNCTION 5 zm_gist_range_penalty(internal, internal, internal),
  FUNCTION 6 zm_gist_range_picksplit(internal, internal),
  FUNCTION 7 zm_gist_range_same(int8, int8, internal);
CREATE TABLE gist_strategies AS SELECT zm_range_pack(1, 2) AS p;
CREATE INDEX ON gist_strategies USING gist (p gist_test_strategy_ops);
SET enable_seqscan = off;
SELECT count(*) FROM gist_strategies WHERE p = 5::int8;
\echo :LAST_ERROR_SQLSTATE
SELECT count(*) FROM gist_strategies WHERE p <> 5::int8;
\echo :LAST_ERROR_SQLSTATE
SELECT count(*) FROM gist_strategies WHERE p < 5::int8;
\echo :LAST_ERROR_SQLSTATE
SELECT count(*) FROM gist_strategies WHERE p > 5::int8;
\echo :LAST_ERROR_SQLSTATE
SELECT count(*) FROM gist_strategies WHERE p &&& ARRAY[1, 2]::int8[];
\echo :LAST_ERROR_SQLSTATE
RESET enable_seqscan;
DROP TABLE gist_strategies;
DROP OPERATOR CLASS gist_test_strategy_ops USING gist;
DROP OPERATOR FAMILY gist_test_strategy_ops USING gist;
DROP OPERATOR &&& (int8, int8[]);
DROP FUNCTION gist_test_any(int8, int8[]);

-- Values more than 2^31 apart in an int4 column: an index over the int4 limits takes further rows.
CREATE TABLE gist_limits(c int4);
INSERT INTO gist_limits SELECT (i * 7919) % 10001 - 5000 FROM generate_series(1, 20000) i;
INSERT INTO gist_limits VALUES (-2147483648), (2147483647);
CREATE INDEX gist_limits_idx ON gist_limits USING gist (c zm_int4_gist_ops);
INSERT INTO gist_limits SELECT (i * 104729) % 10001 - 5000 FROM generate_series(1, 20000) i;
INSERT INTO gist_limits VALUES (-2147483648), (2147483647), (0);
SET enable_seqscan = off;
SELECT count(*) AS rows, count(*) FILTER (WHERE c <@ zm_range_pack(-2147483648, -2147483648)) AS lowest,
       count(*) FILTER (WHERE c <@ zm_range_pack(2147483647, 2147483647)) AS highest
FROM gist_limits WHERE c && '{-2147483648,2147483647}'::int4[];
RESET enable_seqscan;
DROP TABLE gist_limits;
-- Ranges over more than 2^31 values: penalties count growth in 64 bits, so inserts into a deeper
-- index and page splits take them like any other range.
CREATE TABLE gist_wide(p int8);
CREATE INDEX gist_wide_idx ON gist_wide USING gist (p zm_int4rangepacked_gist_ops);
INSERT INTO gist_wide SELECT zm_range_pack(i, i + 3) FROM generate_series(1, 1000) i;
INSERT INTO gist_wide VALUES (zm_range_pack(-2147483648, 2147483647));
-- The split of an overfull page: the next range of the lower list stretches the left side over more
-- than 2^31 values.
TRUNCATE gist_wide;
INSERT INTO gist_wide VALUES (zm_range_pack(-2000000000, -2000000000)), (zm_range_pack(-1999999999, 2000000000)),
                             (zm_range_pack(2000000001, 2000000001));
INSERT INTO gist_wide SELECT zm_range_pack(0, 0) FROM generate_series(1, 500);
SELECT count(*) FROM gist_wide;
SET enable_seqscan = off;
SELECT count(*) FROM gist_wide WHERE p && zm_range_pack(-1999999999, -1999999999);
RESET enable_seqscan;
-- A sorted build indexes the same rows.
DROP INDEX gist_wide_idx;
CREATE INDEX gist_wide_idx ON gist_wide USING gist (p zm_int4rangepacked_gist_ops);
SET enable_seqscan = off;
SELECT count(*) FROM gist_wide WHERE p && zm_range_pack(-1999999999, -1999999999);
RESET enable_seqscan;
DROP TABLE gist_wide;

DROP VIEW gist_packed_ranges;
DROP TABLE gist_values, gist_packed;

DO $$
DECLARE e text;
BEGIN
  FOREACH e IN ARRAY ARRAY['kestrava_range_operators'] LOOP
    IF NOT EXISTS (SELECT FROM gist_extensions_before WHERE extname = e) THEN
      EXECUTE format('DROP EXTENSION %I', e);
    END IF;
  END LOOP;
END $$;
