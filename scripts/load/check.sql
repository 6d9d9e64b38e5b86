-- After the run: every indexed query gives the same rows with and without the indexes (the writes
-- of the run went through penalty and picksplit under concurrency).
CREATE TEMP TABLE probes AS
SELECT n, (random() * 99000)::int AS v, 1 + (random() * 9999)::int AS x FROM generate_series(1, 30) n;
CREATE TEMP TABLE with_index AS
SELECT n, (SELECT count(*) FROM load_values WHERE v && (SELECT a FROM load_sets WHERE id = x)) AS c1,
          (SELECT count(*) FROM load_values WHERE v <@ zm_range_pack(probes.v, probes.v + 500)) AS c2,
          (SELECT count(*) FROM load_values WHERE v <@ (SELECT bf FROM load_bitfields WHERE id = x % 1000 + 1)) AS c3,
          (SELECT count(*) FROM load_packed WHERE p && zm_range_pack(probes.v, probes.v + 100)) AS c4,
          (SELECT count(*) FROM load_packed WHERE p && (SELECT b FROM load_sets WHERE id = x)) AS c5,
          (SELECT count(*) FROM load_packed WHERE p @> probes.v) AS c6,
          (SELECT count(*) FROM load_packed WHERE p <@ zm_range_pack(probes.v, probes.v + 1000)) AS c7
FROM probes;
SET enable_indexscan = off;
SET enable_bitmapscan = off;
CREATE TEMP TABLE without_index AS
SELECT n, (SELECT count(*) FROM load_values WHERE v && (SELECT a FROM load_sets WHERE id = x)) AS c1,
          (SELECT count(*) FROM load_values WHERE v <@ zm_range_pack(probes.v, probes.v + 500)) AS c2,
          (SELECT count(*) FROM load_values WHERE v <@ (SELECT bf FROM load_bitfields WHERE id = x % 1000 + 1)) AS c3,
          (SELECT count(*) FROM load_packed WHERE p && zm_range_pack(probes.v, probes.v + 100)) AS c4,
          (SELECT count(*) FROM load_packed WHERE p && (SELECT b FROM load_sets WHERE id = x)) AS c5,
          (SELECT count(*) FROM load_packed WHERE p @> probes.v) AS c6,
          (SELECT count(*) FROM load_packed WHERE p <@ zm_range_pack(probes.v, probes.v + 1000)) AS c7
FROM probes;
RESET enable_indexscan;
RESET enable_bitmapscan;
SELECT count(*) AS index_mismatches FROM with_index i JOIN without_index w USING (n)
WHERE (i.c1, i.c2, i.c3, i.c4, i.c5, i.c6, i.c7) IS DISTINCT FROM (w.c1, w.c2, w.c3, w.c4, w.c5, w.c6, w.c7);
