#!/usr/bin/env bash
# Benchmark of the set conversions and zm_sort_int4 on 10^6 values, side by side with PostgreSQL's
# own facilities: range_agg over the unnested values for scalar-to-range, intarray's sort() for
# zm_sort_int4. Prints the best of several runs (milliseconds) and the speed-up ratios.
# Usage: bash bench/conversions.sh [runs]   (default 5 runs of the fast queries, 3 of the slow ones)
source "$(dirname "$0")/../scripts/lib.sh"

RUNS=${1:-5}
SLOW_RUNS=$(( RUNS < 3 ? RUNS : 3 ))

ensure_dependencies
cd "$PROJECT_ROOT"
build_extension
install_extension
start_throwaway_server

psql -X -q -v ON_ERROR_STOP=1 -v runs="$RUNS" -v slow_runs="$SLOW_RUNS" <<'SQL'
CREATE EXTENSION kestrava_range_operators;
CREATE EXTENSION intarray;
\o /dev/null
SELECT setseed(0.25);
\o

-- Best wall-clock time of n runs of a query returning one integer, in milliseconds.
CREATE FUNCTION bench_ms(query text, n int) RETURNS numeric LANGUAGE plpgsql AS $$
DECLARE
  best float8 := 'Infinity';
  started timestamptz;
  sink int8;
BEGIN
  FOR i IN 1..n LOOP
    started := clock_timestamp();
    EXECUTE query INTO sink;
    best := least(best, extract(epoch FROM clock_timestamp() - started) * 1000);
  END LOOP;
  RETURN round(best::numeric, 1);
END $$;

-- 10^6 random int4 values; 10^6 strictly increasing values with gaps of 1 or 2 (about 333000
-- runs); their range and mix forms. Stored uncompressed so that no query pays for decompression.
CREATE TABLE bench_sets (name text PRIMARY KEY, a int4[]);
ALTER TABLE bench_sets ALTER COLUMN a SET STORAGE EXTERNAL;
INSERT INTO bench_sets
SELECT 'random', array_agg((floor(random() * 4294967296) - 2147483648)::int4) FROM generate_series(1, 1000000);
INSERT INTO bench_sets
SELECT 'sorted', array_agg(s::int4 ORDER BY i)
FROM (SELECT i, sum(1 + (random() < 0.5)::int) OVER (ORDER BY i) AS s FROM generate_series(1, 1000000) i) x;
INSERT INTO bench_sets SELECT 'ranges', zm_int4setconv_int4('s', a, 'r') FROM bench_sets WHERE name = 'sorted';
INSERT INTO bench_sets SELECT 'mix', zm_int4setconv_int4('s', a, 'm') FROM bench_sets WHERE name = 'sorted';
SELECT name, cardinality(a) AS elements FROM bench_sets ORDER BY name;

CREATE TEMP TABLE results (operation text, ms numeric, builtin text, builtin_ms numeric);
INSERT INTO results VALUES ('zm_sort_int4, random',
  bench_ms($q$SELECT cardinality(zm_sort_int4(a)) FROM bench_sets WHERE name = 'random'$q$, :runs),
  'intarray sort()',
  bench_ms($q$SELECT cardinality(sort(a)) FROM bench_sets WHERE name = 'random'$q$, :runs));
INSERT INTO results VALUES ('zm_sort_int4, sorted',
  bench_ms($q$SELECT cardinality(zm_sort_int4(a)) FROM bench_sets WHERE name = 'sorted'$q$, :runs),
  'intarray sort()',
  bench_ms($q$SELECT cardinality(sort(a)) FROM bench_sets WHERE name = 'sorted'$q$, :runs));
INSERT INTO results VALUES ('scalar -> range',
  bench_ms($q$SELECT cardinality(zm_int4setconv_int4('s', a, 'r')) FROM bench_sets WHERE name = 'sorted'$q$, :runs),
  'range_agg over unnest',
  bench_ms($q$SELECT pg_column_size(range_agg(int4range(v, v, '[]'))) FROM bench_sets, unnest(a) v WHERE name = 'sorted'$q$, :slow_runs));
INSERT INTO results VALUES ('range -> scalar',
  bench_ms($q$SELECT cardinality(zm_int4setconv_int4('r', a, 's')) FROM bench_sets WHERE name = 'ranges'$q$, :runs),
  'array_agg of generate_series',
  bench_ms($q$SELECT cardinality(array_agg(v)) FROM (SELECT e, o, lead(e) OVER (ORDER BY o) AS upper FROM bench_sets, unnest(a) WITH ORDINALITY u(e, o) WHERE name = 'ranges') p, generate_series(e, upper) v WHERE o % 2 = 1$q$, :slow_runs));
INSERT INTO results VALUES ('scalar -> mix',
  bench_ms($q$SELECT cardinality(zm_int4setconv_int4('s', a, 'm')) FROM bench_sets WHERE name = 'sorted'$q$, :runs), NULL, NULL);
INSERT INTO results VALUES ('range -> mix',
  bench_ms($q$SELECT cardinality(zm_int4setconv_int4('r', a, 'm')) FROM bench_sets WHERE name = 'ranges'$q$, :runs), NULL, NULL);
INSERT INTO results VALUES ('mix -> scalar',
  bench_ms($q$SELECT cardinality(zm_int4setconv_int4('m', a, 's')) FROM bench_sets WHERE name = 'mix'$q$, :runs), NULL, NULL);
INSERT INTO results VALUES ('mix -> range',
  bench_ms($q$SELECT cardinality(zm_int4setconv_int4('m', a, 'r')) FROM bench_sets WHERE name = 'mix'$q$, :runs), NULL, NULL);
INSERT INTO results VALUES ('reading the array only',
  bench_ms($q$SELECT cardinality(a) FROM bench_sets WHERE name = 'sorted'$q$, :runs), NULL, NULL);

\pset footer off
SELECT operation, ms, builtin, builtin_ms,
       CASE WHEN builtin_ms IS NOT NULL THEN round(builtin_ms / greatest(ms, 0.1), 1) END AS speedup
FROM results;
SQL
