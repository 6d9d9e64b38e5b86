#!/usr/bin/env bash
# Benchmark of the packed-range GiST operator classes against PostgreSQL's own indexes on the same
# random small ranges: GiST range_ops and SP-GiST range_ops on an int4range column for the
# packed-range class, btree_gist on an int4 column for the value class. Prints build time, index
# size and the time of 1000 overlap, containment and value queries, side by side with ratios.
#
# usage: bench/gist.sh [rows]          benchmark (default 10^6 rows)
#        bench/gist.sh check [rows]    the randomized index-versus-sequential-scan test at full size
#                                      (default 10^5 rows): fails unless every index scan was used
#                                      and returned exactly the sequential scan's rows
source "$(dirname "$0")/../scripts/lib.sh"

MODE=bench
if [ "${1:-}" = check ]; then
    MODE=check
    shift
fi
ROWS=${1:-$([ $MODE = check ] && echo 100000 || echo 1000000)}
QUERIES=1000

ensure_dependencies
cd "$PROJECT_ROOT"
build_extension
install_extension
start_throwaway_server

if [ $MODE = check ]; then
    log "randomized index scans against sequential scans on $ROWS rows"
    out=$(mktemp)
    psql -X -q -v rows="$ROWS" -v queries=300 -f test/sql/gist_random.sql > "$out" 2>&1
    grep -E '^ +(levels|[0-9]+ +\|)|\| (seq|index|bitmap|indexonly) ' "$out" || true
    bad=$(grep -cE 'ERROR' "$out" || true)
    wrong=$(grep -E '\| (index|bitmap|indexonly) ' "$out" | awk -F'|' '$4 !~ /t/ || ($7 + 0) != 0' | wc -l)
    checked=$(grep -cE '\| (index|bitmap|indexonly) ' "$out" || true)
    rm -f "$out"
    echo "index scans checked: $checked, wrong or not using the index: $wrong, errors: $bad"
    [ "$wrong" -eq 0 ] && [ "$bad" -eq 0 ] && [ "$checked" -gt 0 ]
    exit
fi

psql -X -q -v ON_ERROR_STOP=1 -v rows="$ROWS" -v queries="$QUERIES" <<'SQL'
\pset footer off
SET client_min_messages = warning;
SET maintenance_work_mem = '256MB';
SET max_parallel_maintenance_workers = 0;
CREATE EXTENSION kestrava_range_operators;
CREATE EXTENSION btree_gist;

-- Small ranges over a wide value line: lower uniform in [-10^8, 10^8), length 0..100.
SELECT setseed(0.42);
CREATE TABLE data AS
  SELECT i AS id, lo, lo + len AS hi
  FROM (SELECT i, floor(random() * 2e8 - 1e8)::int AS lo, floor(random() * 101)::int AS len
        FROM generate_series(1, :rows) i) s;
CREATE TABLE t_packed AS SELECT id, zm_range_pack(lo, hi) AS p FROM data;
CREATE TABLE t_range_gist AS SELECT id, int4range(lo, hi, '[]') AS r FROM data;
CREATE TABLE t_range_spgist AS SELECT id, int4range(lo, hi, '[]') AS r FROM data;
CREATE TABLE t_value AS SELECT id, lo AS v FROM data;
CREATE TABLE t_value_btree_gist AS SELECT id, lo AS v FROM data;

-- Queries: overlap with ranges of length 0..1000, containment in ranges of length 0..10000,
-- single values.
CREATE TABLE q_overlap AS
  SELECT lo, lo + len AS hi FROM (SELECT floor(random() * 2e8 - 1e8)::int AS lo, floor(random() * 1001)::int AS len
                                  FROM generate_series(1, :queries)) s;
CREATE TABLE q_contain AS
  SELECT lo, lo + len AS hi FROM (SELECT floor(random() * 2e8 - 1e8)::int AS lo, floor(random() * 10001)::int AS len
                                  FROM generate_series(1, :queries)) s;
CREATE TABLE q_value AS SELECT lo AS v FROM data ORDER BY random() LIMIT :queries;
VACUUM ANALYZE;

-- Milliseconds of one statement.
CREATE FUNCTION pg_temp.time_ms(statement text) RETURNS float8 LANGUAGE plpgsql AS $$
DECLARE t0 timestamptz;
BEGIN
  t0 := clock_timestamp();
  EXECUTE statement;
  RETURN round(extract(epoch FROM clock_timestamp() - t0)::numeric * 1000, 1);
END $$;
-- Best of three runs of a query, in milliseconds, and its row count (to check all agree).
CREATE TYPE timed AS (ms float8, n bigint);
CREATE FUNCTION pg_temp.query_ms(statement text) RETURNS timed LANGUAGE plpgsql AS $$
DECLARE t0 timestamptz; d float8; r timed;
BEGIN
  r.ms := 'Infinity';
  FOR i IN 1..3 LOOP
    t0 := clock_timestamp();
    EXECUTE statement INTO r.n;
    d := extract(epoch FROM clock_timestamp() - t0) * 1000;
    r.ms := least(r.ms, round(d::numeric, 1));
  END LOOP;
  RETURN r;
END $$;

CREATE TABLE builds AS SELECT
  pg_temp.time_ms('CREATE INDEX i_packed ON t_packed USING gist (p zm_int4rangepacked_gist_ops)') AS packed,
  pg_temp.time_ms('CREATE INDEX i_range_gist ON t_range_gist USING gist (r)') AS range_gist,
  pg_temp.time_ms('CREATE INDEX i_range_spgist ON t_range_spgist USING spgist (r)') AS range_spgist,
  pg_temp.time_ms('CREATE INDEX i_value ON t_value USING gist (v zm_int4_gist_ops)') AS value,
  pg_temp.time_ms('CREATE INDEX i_value_btree_gist ON t_value_btree_gist USING gist (v)') AS value_btree_gist;
VACUUM ANALYZE;

-- 1000 index probes in one statement: a nested loop over the query table with an index scan inside.
SET jit = off; SET enable_seqscan = off; SET enable_bitmapscan = off; SET enable_hashjoin = off;
SET enable_mergejoin = off; SET enable_material = off; SET max_parallel_workers_per_gather = 0;

CREATE TABLE q AS SELECT
  pg_temp.query_ms('SELECT count(*) FROM q_overlap q JOIN t_packed t ON t.p && zm_range_pack(q.lo, q.hi)') AS ov_packed,
  pg_temp.query_ms('SELECT count(*) FROM q_overlap q JOIN t_range_gist t ON t.r && int4range(q.lo, q.hi, ''[]'')') AS ov_gist,
  pg_temp.query_ms('SELECT count(*) FROM q_overlap q JOIN t_range_spgist t ON t.r && int4range(q.lo, q.hi, ''[]'')') AS ov_spgist,
  pg_temp.query_ms('SELECT count(*) FROM q_contain q JOIN t_packed t ON t.p <@ zm_range_pack(q.lo, q.hi)') AS in_packed,
  pg_temp.query_ms('SELECT count(*) FROM q_contain q JOIN t_range_gist t ON t.r <@ int4range(q.lo, q.hi, ''[]'')') AS in_gist,
  pg_temp.query_ms('SELECT count(*) FROM q_contain q JOIN t_range_spgist t ON t.r <@ int4range(q.lo, q.hi, ''[]'')') AS in_spgist,
  pg_temp.query_ms('SELECT count(*) FROM q_value q JOIN t_packed t ON q.v <@ t.p') AS pt_packed,
  pg_temp.query_ms('SELECT count(*) FROM q_value q JOIN t_range_gist t ON t.r @> q.v') AS pt_gist,
  pg_temp.query_ms('SELECT count(*) FROM q_value q JOIN t_range_spgist t ON t.r @> q.v') AS pt_spgist,
  pg_temp.query_ms('SELECT count(*) FROM q_value q JOIN t_value t ON t.v = q.v') AS eq_value,
  pg_temp.query_ms('SELECT count(*) FROM q_value q JOIN t_value_btree_gist t ON t.v = q.v') AS eq_btree_gist,
  pg_temp.query_ms('SELECT count(*) FROM q_overlap q JOIN t_value t ON t.v <@ zm_range_pack(q.lo, q.hi)') AS rg_value,
  pg_temp.query_ms('SELECT count(*) FROM q_overlap q JOIN t_value_btree_gist t ON t.v BETWEEN q.lo AND q.hi') AS rg_btree_gist;
RESET ALL;

\echo
\echo Packed-range class (zm_int4rangepacked_gist_ops) against GiST and SP-GiST range_ops
SELECT :rows AS "rows",
       round((pg_relation_size('i_packed') / 1048576.0)::numeric, 1) AS "ours MB",
       round((pg_relation_size('i_range_gist') / 1048576.0)::numeric, 1) AS "GiST MB",
       round((pg_relation_size('i_range_spgist') / 1048576.0)::numeric, 1) AS "SP-GiST MB",
       round((pg_relation_size('i_packed')::numeric / :rows), 1) AS "ours B/row",
       round((pg_relation_size('i_packed')::numeric / pg_relation_size('i_range_gist')), 2) AS "size/GiST",
       round((pg_relation_size('i_packed')::numeric / pg_relation_size('i_range_spgist')), 2) AS "size/SP-GiST";
SELECT packed AS "ours build ms", range_gist AS "GiST ms", range_spgist AS "SP-GiST ms",
       round((range_gist / packed)::numeric, 1) AS "GiST/ours", round((range_spgist / packed)::numeric, 1) AS "SP-GiST/ours"
FROM builds;
SELECT query, (o).ms AS "ours ms", (g).ms AS "GiST ms", (s).ms AS "SP-GiST ms",
       round(((g).ms / (o).ms)::numeric, 2) AS "GiST/ours", round(((s).ms / (o).ms)::numeric, 2) AS "SP-GiST/ours",
       (o).n AS "rows found", ((o).n = (g).n AND (o).n = (s).n) AS "same rows"
FROM q, LATERAL (VALUES ('1000 x overlap (&&)', ov_packed, ov_gist, ov_spgist),
                        ('1000 x contained in (<@)', in_packed, in_gist, in_spgist),
                        ('1000 x contains value (@>)', pt_packed, pt_gist, pt_spgist)) v(query, o, g, s);

\echo
\echo Value class (zm_int4_gist_ops) against btree_gist on the lower ends
SELECT round((pg_relation_size('i_value') / 1048576.0)::numeric, 1) AS "ours MB",
       round((pg_relation_size('i_value_btree_gist') / 1048576.0)::numeric, 1) AS "btree_gist MB",
       round((pg_relation_size('i_value')::numeric / pg_relation_size('i_value_btree_gist')), 2) AS "size/btree_gist",
       value AS "ours build ms", value_btree_gist AS "btree_gist build ms",
       round((value_btree_gist / value)::numeric, 1) AS "btree_gist/ours"
FROM builds;
SELECT query, (o).ms AS "ours ms", (b).ms AS "btree_gist ms", round(((b).ms / (o).ms)::numeric, 2) AS "btree_gist/ours",
       (o).n AS "rows found", (o).n = (b).n AS "same rows"
FROM q, LATERAL (VALUES ('1000 x equal (=)', eq_value, eq_btree_gist),
                        ('1000 x in range (<@ / BETWEEN)', rg_value, rg_btree_gist)) v(query, o, b);
SQL
