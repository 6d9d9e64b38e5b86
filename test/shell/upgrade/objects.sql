-- User objects over the extension, as a database holds them before an upgrade: tables indexed by
-- both GiST operator classes and by an expression, CHECK constraints and views over the functions,
-- operators and aggregates. Created alike under the old version (then updated) and the new one.
CREATE TABLE bookings (
  id int PRIMARY KEY,
  person text NOT NULL,
  minute int4 NOT NULL,
  slot int8 NOT NULL CHECK (zm_rangepacked_lower(slot) <= zm_rangepacked_upper(slot)),
  busy int4[] CHECK (busy IS NULL OR zm_int4range_union(busy, '{}'::int4[]) = busy),
  CHECK (busy IS NULL OR zm_count_scalar_in_int4set('r', busy) BETWEEN 0 AND 1440)
);
INSERT INTO bookings
SELECT i, 'p' || (i % 7), (i * 37) % 1440, zm_range_pack((i * 37) % 1440, (i * 37) % 1440 + i % 30),
       CASE WHEN i % 5 = 0 THEN NULL ELSE ARRAY[i % 1000, i % 1000 + 10, i % 1000 + 20, i % 1000 + 25] END
FROM generate_series(1, 5000) i;
CREATE INDEX bookings_minute_idx ON bookings USING gist (minute zm_int4_gist_ops);
CREATE INDEX bookings_slot_idx ON bookings USING gist (slot zm_int4rangepacked_gist_ops);
CREATE INDEX bookings_lower_idx ON bookings ((zm_rangepacked_lower(slot)));
ANALYZE bookings;

CREATE VIEW busy_per_person AS
SELECT person, zm_int4set_agg(zm_rangepacked_lower(slot), zm_rangepacked_upper(slot), 'r') AS busy,
       agg_keep_single(person) AS who
FROM bookings GROUP BY person;
CREATE VIEW free_per_person AS
SELECT person, zm_int4range_exclusion('{0,1439}'::int4[], busy) AS free,
       zm_int4setconv_int4('r', busy, 'm') AS busy_mix,
       zm_count_scalar_in_int4set('r', busy) AS busy_minutes
FROM busy_per_person;
CREATE VIEW lunch_overlaps AS
SELECT id, busy &&& '{720,780}'::int4[] AS busy_at_lunch, 750 <@ busy AS busy_at_1230,
       slot && zm_range_pack(720, 780) AS slot_at_lunch, slot @> 750 AS slot_at_1230,
       zm_sort_int4(busy) AS sorted, zm_int4set2bitfield_int4('r', busy) AS bits
FROM bookings WHERE busy IS NOT NULL;
CREATE VIEW expression AS
SELECT zm_int4range_op(op, operand ORDER BY n) AS users
FROM (VALUES (1, 1::int2, '{1,20}'::int4[]), (2, 513::int2, '{15,40,50,60}'::int4[]),
             (3, 2::int2, '{30,55}'::int4[]), (4, 7::int2, '{10,12,35,36}'::int4[])) s(n, op, operand);
