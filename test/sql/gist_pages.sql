-- GiST index pages as stored, read with pageinspect: the keys a column value becomes, how inserts
-- and builds fill and split pages, and that every inner key is the union of the keys below it.
-- (Part of the extended schedule: it needs the pageinspect extension.)
-- The output does not depend on whether an earlier test created the extensions; one created here is
-- dropped at the end, so the database is left as found.
CREATE TEMP TABLE gist_pages_extensions_before AS
SELECT extname FROM pg_extension WHERE extname IN ('kestrava_range_operators', 'pageinspect');
SET client_min_messages = warning;
CREATE EXTENSION IF NOT EXISTS kestrava_range_operators;
CREATE EXTENSION IF NOT EXISTS pageinspect;
RESET client_min_messages;
SET max_parallel_workers_per_gather = 0;

-- The keys of one index page as packed ranges.
CREATE FUNCTION pg_temp.page_keys(idx regclass, blk int)
RETURNS TABLE(item smallint, key int8, lower int4, upper int4) LANGUAGE sql AS $$
  SELECT itemoffset, k, zm_rangepacked_lower(k), zm_rangepacked_upper(k)
  FROM (SELECT itemoffset, substring(keys FROM '=\((-?[0-9]+)\)')::int8 AS k
        FROM gist_page_items(get_raw_page(idx::text, blk), idx)) s
$$;
-- Entries per page of an index, by level (leaf or inner).
CREATE FUNCTION pg_temp.index_pages(idx regclass)
RETURNS TABLE(blk int, leaf bool, entries bigint) LANGUAGE sql AS $$
  SELECT b, 'leaf' = ANY ((gist_page_opaque_info(get_raw_page(idx::text, b))).flags),
         (SELECT count(*) FROM gist_page_items(get_raw_page(idx::text, b), idx))
  FROM generate_series(0, (pg_relation_size(idx) / 8192)::int - 1) b
$$;

-- Compressing an int4 column: v becomes the key [v, v], the same 32 bits in both halves.
CREATE TABLE gist_values(v int4);
INSERT INTO gist_values VALUES (-1), (0), (5), (2147483647), (-2147483648), (NULL);
CREATE INDEX gist_values_idx ON gist_values USING gist (v zm_int4_gist_ops);
SELECT * FROM pg_temp.page_keys('gist_values_idx', 0) ORDER BY lower;

-- Compressing a packed-range column: the key is the int8 itself.
CREATE TABLE gist_packed(p int8);
INSERT INTO gist_packed VALUES (zm_range_pack(2, 5)), (zm_range_pack(5, 9)), (zm_range_pack(1, 4)),
  (zm_range_pack(10, 10)), (zm_range_pack(-3, -1)), (zm_range_pack(-2147483648, 2147483647)), (NULL);
CREATE INDEX gist_packed_idx ON gist_packed USING gist (p zm_int4rangepacked_gist_ops);
SELECT * FROM pg_temp.page_keys('gist_packed_idx', 0) ORDER BY lower, upper;
DROP TABLE gist_values, gist_packed;

-- Inserts split pages with the two-ended greedy split. 408 values in ascending order overflow the
-- root leaf; every penalty is 1.99, so the sides alternate and split 204/204.
CREATE TABLE gist_split(v int4);
CREATE INDEX gist_split_idx ON gist_split USING gist (v zm_int4_gist_ops);
INSERT INTO gist_split SELECT generate_series(1, 408);
SELECT lower, upper FROM pg_temp.page_keys('gist_split_idx', 0) ORDER BY lower;
SELECT leaf, count(*) AS pages, sum(entries) AS entries FROM pg_temp.index_pages('gist_split_idx') GROUP BY leaf ORDER BY leaf;

-- A sorted CREATE INDEX fills the leaves to the fillfactor (90 by default: 366 entries of 407),
-- fully with fillfactor 100; inner keys cover their children.
CREATE TABLE gist_sorted AS SELECT generate_series(1, 5000) AS v;
CREATE INDEX gist_sorted_idx ON gist_sorted USING gist (v zm_int4_gist_ops);
SELECT leaf, count(*) AS pages, min(entries), max(entries), sum(entries) FROM pg_temp.index_pages('gist_sorted_idx') GROUP BY leaf ORDER BY leaf;
DROP INDEX gist_sorted_idx;
CREATE INDEX gist_sorted_idx ON gist_sorted USING gist (v zm_int4_gist_ops) WITH (fillfactor = 100);
SELECT leaf, count(*) AS pages, min(entries), max(entries), sum(entries) FROM pg_temp.index_pages('gist_sorted_idx') GROUP BY leaf ORDER BY leaf;
SELECT lower, upper FROM pg_temp.page_keys('gist_sorted_idx', 0) ORDER BY lower;
-- A buffering build inserts, so its pages split like inserts do (and, like inserts, choose at random
-- among equally good subtrees: the page count varies).
DROP INDEX gist_sorted_idx;
CREATE INDEX gist_sorted_idx ON gist_sorted USING gist (v zm_int4_gist_ops) WITH (buffering = on);
SELECT count(*) FILTER (WHERE leaf) > 16 AS more_leaves_than_sorted, sum(entries) FILTER (WHERE leaf) AS leaf_entries
FROM pg_temp.index_pages('gist_sorted_idx');
SET enable_seqscan = off;
SELECT count(*) FROM gist_sorted WHERE v <@ zm_range_pack(100, 4000);
RESET enable_seqscan;
DROP TABLE gist_sorted;
DROP TABLE gist_split;

-- The tables and indexes of gist_random: the sorted builds have a fixed shape.
SET client_min_messages = warning;
-- (pg_regress feeds the test to psql on standard input: the include is found from the test directory.)
\getenv abs_srcdir PG_ABS_SRCDIR
\set gist_random_data :abs_srcdir '/sql/include/gist_random_data.psql'
\i :gist_random_data
RESET client_min_messages;
-- Levels of an index: follow the first downlink from the root to a leaf.
CREATE FUNCTION pg_temp.index_levels(idx regclass) RETURNS int LANGUAGE plpgsql AS $$
DECLARE blk int := 0; levels int := 1;
BEGIN
  WHILE NOT 'leaf' = ANY ((gist_page_opaque_info(get_raw_page(idx::text, blk))).flags) LOOP
    SELECT (ctid::text::point)[0]::int INTO blk FROM gist_page_items(get_raw_page(idx::text, blk), idx) LIMIT 1;
    levels := levels + 1;
  END LOOP;
  RETURN levels;
END $$;
SELECT relname, pg_temp.index_levels(oid) AS levels, pg_relation_size(oid) / 8192 AS pages
FROM pg_class WHERE relname LIKE 'rnd\__\_sorted\_idx' ORDER BY relname;

-- Every inner key must be exactly the union of the keys of the page below it, and every row
-- must be reachable, also in the deeper index built by inserts alone.
CREATE FUNCTION pg_temp.check_tree(idx regclass)
RETURNS TABLE(levels int, leaf_entries bigint, inner_entries bigint, wrong_unions bigint) LANGUAGE plpgsql AS $$
DECLARE
  frontier int[] := ARRAY[0];
  next int[];
  blk int;
  item record;
  child_union int8;
BEGIN
  levels := 0; leaf_entries := 0; inner_entries := 0; wrong_unions := 0;
  WHILE cardinality(frontier) > 0 LOOP
    levels := levels + 1;
    next := '{}';
    FOREACH blk IN ARRAY frontier LOOP
      IF 'leaf' = ANY ((gist_page_opaque_info(get_raw_page(idx::text, blk))).flags) THEN
        leaf_entries := leaf_entries + (SELECT count(*) FROM gist_page_items(get_raw_page(idx::text, blk), idx));
        CONTINUE;
      END IF;
      FOR item IN SELECT (ctid::text::point)[0]::int AS child, substring(keys FROM '=\((-?[0-9]+)\)')::int8 AS k
                  FROM gist_page_items(get_raw_page(idx::text, blk), idx) LOOP
        inner_entries := inner_entries + 1;
        next := next || item.child;
        SELECT zm_range_pack(min(zm_rangepacked_lower(k)), max(zm_rangepacked_upper(k))) INTO child_union
        FROM (SELECT substring(keys FROM '=\((-?[0-9]+)\)')::int8 AS k
              FROM gist_page_items(get_raw_page(idx::text, item.child), idx)) c;
        IF child_union IS DISTINCT FROM item.k THEN
          wrong_unions := wrong_unions + 1;
        END IF;
      END LOOP;
    END LOOP;
    frontier := next;
  END LOOP;
  RETURN NEXT;
END $$;
SELECT levels, leaf_entries, inner_entries > 407 AS root_has_split, wrong_unions FROM pg_temp.check_tree('rnd_p_deep_idx');
SELECT leaf_entries, wrong_unions FROM pg_temp.check_tree('rnd_p_inserted_idx');
SELECT leaf_entries, wrong_unions FROM pg_temp.check_tree('rnd_v_buffered_idx');
SELECT * FROM pg_temp.check_tree('rnd_p_sorted_idx');

DROP TABLE rnd_p_deep, rnd_v_sorted, rnd_v_inserted, rnd_v_buffered, rnd_p_sorted, rnd_p_inserted, rnd_p_buffered;

DO $$
DECLARE e text;
BEGIN
  FOREACH e IN ARRAY ARRAY['pageinspect', 'kestrava_range_operators'] LOOP
    IF NOT EXISTS (SELECT FROM gist_pages_extensions_before WHERE extname = e) THEN
      EXECUTE format('DROP EXTENSION %I', e);
    END IF;
  END LOOP;
END $$;
