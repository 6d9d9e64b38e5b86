#!/usr/bin/env bash
# Benchmark of the set-expression aggregate zm_int4range_op against the same expression evaluated
# with PostgreSQL's int4multirange operators (+, *, -) in a PL/pgSQL loop, on a throwaway server.
#
# The expression is a long chain of small operands with nested groups, written one row at a time:
#   ( A * B ) + C - D + ( ( E - F ) * G ) + H   repeated, 8 rows per repetition.
# Each method runs over the first ROWS_SMALL and the first ROWS_LARGE rows, so that the growth of the
# time with the row count can be read off (linear: about 10x for 10x the rows).
#
# Usage: bench/set_expression.sh            (10^5 and 10^6 rows, about a minute and a half)
#        ROWS_SMALL=10000 ROWS_LARGE=100000 bench/set_expression.sh
source "$(dirname "$0")/../scripts/lib.sh"

ROWS_SMALL=${ROWS_SMALL:-100000}
ROWS_LARGE=${ROWS_LARGE:-1000000}

ensure_dependencies
cd "$PROJECT_ROOT"
build_extension
install_extension
start_throwaway_server

log "set-expression benchmark: ${ROWS_SMALL} and ${ROWS_LARGE} rows"
psql -X -q -v ON_ERROR_STOP=1 -v small="$ROWS_SMALL" -v large="$ROWS_LARGE" <<'SQL'
CREATE EXTENSION kestrava_range_operators;
SET work_mem = '512MB';                  -- the ORDER BY inside the call sorts in memory
SET max_parallel_workers_per_gather = 0; -- rows in physical order for the unordered variant
SELECT setseed(0.5);

-- op code per position in the 8-row cycle: 513 = union, open 1; 2 = intersection; 5 = close 1,
-- union; 3 = exclusion; 1025 = union, open 2; 3 = exclusion; 6 = close 1, intersection; 5 = close 1,
-- union.
CREATE TABLE bench_rows (seq int PRIMARY KEY, op int2, operand int4[], mr int4multirange);
INSERT INTO bench_rows
SELECT seq, (ARRAY[513, 2, 5, 3, 1025, 3, 6, 5])[seq % 8 + 1]::int2, a,
       int4multirange(int4range(a[1], a[2], '[]'), int4range(a[3], a[4], '[]'))
FROM (SELECT seq, CASE WHEN seq % 8 = 6
                       THEN ARRAY[l, l + 1000, l + 1002, l + 2000]              -- G: wide
                       ELSE ARRAY[l, l + w1, l + w1 + gap, l + w1 + gap + w2]    -- two small ranges
                  END AS a
      FROM (SELECT seq, floor(random() * 5000)::int AS l, floor(random() * 10)::int AS w1,
                   2 + floor(random() * 20)::int AS gap, floor(random() * 10)::int AS w2
            FROM generate_series(0, :large - 1) seq) r) s;
VACUUM ANALYZE bench_rows;

-- The reference: the same rows, a stack of multiranges, one operator per row.
CREATE FUNCTION bench_multirange_eval(n int) RETURNS int4multirange
LANGUAGE plpgsql AS $$
DECLARE
  vals int4multirange[] := ARRAY['{}'::int4multirange];
  ops int[] := ARRAY[0];
  top int := 1;
  r record;
  code int;
  operation int;
  pending int;
  child int4multirange;
BEGIN
  FOR r IN SELECT op, mr FROM bench_rows WHERE seq < n ORDER BY seq LOOP
    code := r.op::int & 65535;
    operation := code & 3;
    FOR i IN 1 .. (code >> 2) & 127 LOOP
      child := vals[top];
      pending := ops[top];
      top := top - 1;
      vals[top] := CASE pending WHEN 1 THEN vals[top] + child WHEN 2 THEN vals[top] * child ELSE vals[top] - child END;
    END LOOP;
    IF code >> 9 > 0 THEN
      FOR i IN 1 .. code >> 9 LOOP
        top := top + 1;
        vals[top] := '{}';
        ops[top] := CASE WHEN i = 1 THEN operation ELSE 1 END;
      END LOOP;
      operation := 1;
    END IF;
    vals[top] := CASE operation WHEN 1 THEN vals[top] + r.mr WHEN 2 THEN vals[top] * r.mr ELSE vals[top] - r.mr END;
  END LOOP;
  WHILE top > 1 LOOP
    child := vals[top];
    pending := ops[top];
    top := top - 1;
    vals[top] := CASE pending WHEN 1 THEN vals[top] + child WHEN 2 THEN vals[top] * child ELSE vals[top] - child END;
  END LOOP;
  RETURN vals[1];
END
$$;

CREATE FUNCTION bench_range_array(m int4multirange) RETURNS int4[]
LANGUAGE sql IMMUTABLE AS $$
  SELECT ARRAY(SELECT b FROM unnest(m) WITH ORDINALITY AS u(r, i),
                            LATERAL (VALUES (1, lower(r)), (2, upper(r) - 1)) AS v(j, b)
               ORDER BY i, j)
$$;

-- Best of `repeats` runs, in milliseconds.
CREATE FUNCTION bench_ms(query text, repeats int) RETURNS numeric
LANGUAGE plpgsql AS $$
DECLARE
  best numeric;
  started timestamptz;
  ignored text;
BEGIN
  FOR i IN 1 .. repeats LOOP
    started := clock_timestamp();
    EXECUTE query INTO ignored;
    best := least(best, extract(epoch FROM clock_timestamp() - started) * 1000);
  END LOOP;
  RETURN round(best, 1);
END
$$;

\echo
\echo 'Results agree (aggregate with ORDER BY, aggregate in physical order, multirange loop):'
SELECT a = b AS ordered_equals_physical, ARRAY(SELECT unnest(a)) = bench_range_array(m) AS aggregate_equals_multirange,
       cardinality(a) / 2 AS result_ranges
FROM (SELECT (SELECT zm_int4range_op(op, operand ORDER BY seq) FROM bench_rows WHERE seq < :small) AS a,
             (SELECT zm_int4range_op(op, operand) FROM bench_rows WHERE seq < :small) AS b,
             bench_multirange_eval(:small) AS m) x;

CREATE TEMP TABLE timings (rows int, method text, ms numeric);
INSERT INTO timings
SELECT n, m.method, bench_ms(format(m.query, n), CASE WHEN m.method LIKE 'multirange%' THEN 1 ELSE 3 END)
FROM (VALUES (:small), (:large)) AS sizes(n),
     (VALUES ('scan only (count)', 'SELECT count(operand) FROM bench_rows WHERE seq < %s'),
             ('zm_int4range_op ORDER BY seq', 'SELECT cardinality(zm_int4range_op(op, operand ORDER BY seq)) FROM bench_rows WHERE seq < %s'),
             ('zm_int4range_op, physical order', 'SELECT cardinality(zm_int4range_op(op, operand)) FROM bench_rows WHERE seq < %s'),
             ('multirange operators, plpgsql', 'SELECT bench_multirange_eval(%s) IS NOT NULL')) AS m(method, query);

\echo
\echo 'Time in ms (best of 3; one run of the plpgsql loop):'
SELECT method, max(ms) FILTER (WHERE rows = :small) AS small_ms, max(ms) FILTER (WHERE rows = :large) AS large_ms,
       round(max(ms) FILTER (WHERE rows = :large) / nullif(max(ms) FILTER (WHERE rows = :small), 0), 2) AS growth
FROM timings GROUP BY method ORDER BY min(ms);

\echo
\echo 'Speed-up of the aggregate over the multirange loop:'
SELECT rows,
       round(max(ms) FILTER (WHERE method LIKE 'multirange%') / max(ms) FILTER (WHERE method = 'zm_int4range_op ORDER BY seq'), 1) AS ratio_ordered,
       round(max(ms) FILTER (WHERE method LIKE 'multirange%') / max(ms) FILTER (WHERE method = 'zm_int4range_op, physical order'), 1) AS ratio_physical
FROM timings GROUP BY rows ORDER BY rows;
SQL
