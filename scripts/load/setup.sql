-- Tables of the load test (scripts/load.sh). psql variable `rows`: rows of the indexed tables.
CREATE EXTENSION IF NOT EXISTS kestrava_range_operators;
SELECT setseed(0.42) \g /dev/null

-- 10000 rows of two canonical range arrays (up to 30 ranges of up to 51 values in 0 .. 100050),
-- the first one also as scalar and mix arrays and as the bytes of its mix form (machine order).
CREATE TABLE load_sets (id int PRIMARY KEY, a int4[] NOT NULL, b int4[] NOT NULL, s int4[], m int4[], mb bytea);
INSERT INTO load_sets (id, a, b)
SELECT id, zm_int4set_agg(lo, lo + len, 'r') FILTER (WHERE k % 2 = 0), zm_int4set_agg(lo, lo + len, 'r') FILTER (WHERE k % 2 = 1)
FROM (SELECT id, k, (random() * 100000)::int AS lo, (random() * 50)::int AS len
      FROM generate_series(1, 10000) id, generate_series(1, 2 + (random() * 58)::int) k) r
GROUP BY id;
UPDATE load_sets SET s = zm_int4setconv_int4('r', a, 's'), m = zm_int4setconv_int4('r', a, 'm');
UPDATE load_sets SET mb = (SELECT string_agg(set_byte(set_byte(set_byte(set_byte('\x00000000'::bytea,
                                 0, e & 255), 1, (e >> 8) & 255), 2, (e >> 16) & 255), 3, (e >> 24) & 255), '' ORDER BY o)
                           FROM unnest(m) WITH ORDINALITY u(e, o));

-- Bitfields of the first 1000 sets.
CREATE TABLE load_bitfields (id int PRIMARY KEY, bf bytea NOT NULL);
INSERT INTO load_bitfields SELECT id, zm_int4set2bitfield_int4('r', a) FROM load_sets WHERE id <= 1000;

-- Values and packed ranges in 0 .. 100000 under both GiST operator classes.
CREATE TABLE load_values (id serial PRIMARY KEY, v int4 NOT NULL);
INSERT INTO load_values (v) SELECT (random() * 100000)::int FROM generate_series(1, :rows);
CREATE INDEX load_values_v ON load_values USING gist (v zm_int4_gist_ops);
CREATE TABLE load_packed (id serial PRIMARY KEY, p int8 NOT NULL);
INSERT INTO load_packed (p) SELECT zm_range_pack(lo, lo + (random() * 200)::int)
FROM (SELECT (random() * 100000)::int AS lo FROM generate_series(1, :rows)) r;
CREATE INDEX load_packed_p ON load_packed USING gist (p zm_int4rangepacked_gist_ops);
VACUUM ANALYZE;

-- The index scans of index_scans.sql use the GiST indexes.
EXPLAIN (COSTS OFF) SELECT count(*) FROM load_values WHERE v && (SELECT a FROM load_sets WHERE id = 1);
EXPLAIN (COSTS OFF) SELECT count(*) FROM load_values WHERE v <@ (SELECT bf FROM load_bitfields WHERE id = 1);
EXPLAIN (COSTS OFF) SELECT count(*) FROM load_packed WHERE p && zm_range_pack(500, 600);
EXPLAIN (COSTS OFF) SELECT count(*) FROM load_packed WHERE p @> 500;
