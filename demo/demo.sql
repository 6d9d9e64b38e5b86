-- Demo: finding free meeting slots.
-- Each person's busy time is a set of minute numbers held as a range array (lower, upper pairs,
-- both inclusive). We want the minutes of the working day when all three people are free, and
-- to check candidate meeting slots against them.
\pset footer off
CREATE EXTENSION IF NOT EXISTS kestrava_range_operators;

-- Bookings as rows of first and last minute; overlapping and touching bookings are fine.
CREATE TEMP TABLE bookings(person text, first_minute int4, last_minute int4);
INSERT INTO bookings VALUES
  ('ana', 540, 599), ('ana', 720, 779), ('ana', 900, 914), ('ana', 915, 929),
  ('bruno', 560, 619), ('bruno', 780, 839), ('bruno', 800, 820),
  ('chen', 600, 659), ('chen', 1000, 1019);

\echo 'Each person''s busy minutes as one range array, folded from the bookings by an aggregate'
CREATE TEMP TABLE busy AS
SELECT person, zm_int4set_agg(first_minute, last_minute, 'r') AS minutes
FROM bookings GROUP BY person;
SELECT * FROM busy ORDER BY person;

\echo 'Busy minutes of anyone: the union of the three range arrays'
SELECT zm_int4range_union(zm_int4range_union(b1.minutes, b2.minutes), b3.minutes) AS anyone_busy
FROM busy b1, busy b2, busy b3 WHERE b1.person = 'ana' AND b2.person = 'bruno' AND b3.person = 'chen';

\echo 'Free minutes in the working day 08:00-17:59: the day minus everyone''s busy time'
SELECT zm_int4range_exclusion('{480,1079}',
         zm_int4range_union(zm_int4range_union(b1.minutes, b2.minutes), b3.minutes)) AS all_free
FROM busy b1, busy b2, busy b3 WHERE b1.person = 'ana' AND b2.person = 'bruno' AND b3.person = 'chen';

\echo 'Who is busy during a 13:30-13:59 meeting? (overlap test against each person''s set)'
SELECT person, minutes &&& '{810,839}'::int4[] AS busy_then FROM busy ORDER BY person;

\echo 'Is 09:30 a busy minute for each person? (binary-search membership)'
SELECT person, 570 <@ minutes AS busy_at_0930 FROM busy ORDER BY person;

\echo 'Which minutes are busy for both ana and bruno?'
SELECT zm_int4range_intersection(a.minutes, b.minutes) AS both_busy
FROM busy a, busy b WHERE a.person = 'ana' AND b.person = 'bruno';
