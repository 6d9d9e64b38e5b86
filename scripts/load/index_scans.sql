-- Searches through both GiST operator classes by range array, bitfield, packed range and value,
-- and writes that insert into and split their pages.
\set x random(1, 10000)
\set v random(0, 99000)
SELECT count(*) FROM load_values WHERE v && (SELECT a FROM load_sets WHERE id = :x);
SELECT count(*) FROM load_values WHERE v <@ zm_range_pack(:v, :v + 500);
SELECT count(*) FROM load_values WHERE v <@ (SELECT bf FROM load_bitfields WHERE id = :x % 1000 + 1);
SELECT count(*) FROM load_packed WHERE p && zm_range_pack(:v, :v + 100);
SELECT count(*) FROM load_packed WHERE p && (SELECT b FROM load_sets WHERE id = :x);
SELECT count(*) FROM load_packed WHERE p @> :v;
SELECT count(*) FROM load_packed WHERE p <@ zm_range_pack(:v, :v + 1000);
INSERT INTO load_values (v) VALUES (:v);
UPDATE load_packed SET p = zm_range_pack(:v, :v + :x % 50) WHERE id = :x;
