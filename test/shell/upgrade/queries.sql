-- Results over the user objects; the same output is expected before the upgrade, after it and in
-- a fresh installation of the new version. Index scans are forced, so the indexes answer.
\pset footer off
SET enable_seqscan = off;
SET enable_bitmapscan = off;
SELECT * FROM busy_per_person ORDER BY person;
SELECT * FROM free_per_person ORDER BY person;
SELECT * FROM lunch_overlaps ORDER BY id LIMIT 40;
SELECT * FROM expression;
SELECT count(*), sum(id) FROM bookings WHERE minute && '{0,59,600,659}'::int4[];
SELECT count(*), sum(id) FROM bookings WHERE minute <@ zm_range_pack(100, 200);
SELECT count(*), sum(id) FROM bookings WHERE minute <@ zm_int4set2bitfield_int4('s', ARRAY[3, 40, 77, 1000]);
SELECT count(*), sum(id) FROM bookings WHERE slot && zm_range_pack(100, 110);
SELECT count(*), sum(id) FROM bookings WHERE slot @> 500;
SELECT count(*), sum(id) FROM bookings WHERE slot && '{5,6,900,905}'::int4[];
SELECT count(*), sum(id) FROM bookings WHERE zm_rangepacked_lower(slot) = 111;
