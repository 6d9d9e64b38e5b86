CREATE EXTENSION IF NOT EXISTS kestrava_range_operators;
SELECT zm_int4range_union('{1,3}', '{4,6}');
