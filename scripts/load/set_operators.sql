-- Set algebra, overlap and inclusion between two stored range arrays; membership of a value and a
-- packed range in a range array and in a bitfield; set tests against a bitfield.
\set x random(1, 10000)
\set y random(1, 10000)
\set v random(0, 100000)
SELECT cardinality(zm_int4range_union(p.a, q.b)), cardinality(zm_int4range_intersection(p.a, q.b)),
       cardinality(zm_int4range_exclusion(p.a, q.a)), p.a &&& q.b, q.b <@@ p.a, zm_int4range_is_overlap(p.a, q.a),
       zm_int4range_is_strictly_include(p.a, zm_int4range_union(p.a, q.a))
FROM load_sets p, load_sets q WHERE p.id = :x AND q.id = :y;
SELECT :v <@ p.a, :v <@ f.bf, zm_range_pack(:v, :v + 10) && p.a, zm_range_pack(:v, :v + 10) && f.bf,
       zm_int4set_overlap_bitfield('r', q.b, f.bf), zm_int4set_included_in_bitfield('s', q.s, f.bf),
       zm_int4set_overlap_bitfield('m', q.m, f.bf)
FROM load_sets p JOIN load_bitfields f USING (id), load_sets q WHERE p.id = :x % 1000 + 1 AND q.id = :y;
