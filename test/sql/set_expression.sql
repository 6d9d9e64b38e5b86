CREATE EXTENSION IF NOT EXISTS kestrava_range_operators;

-- Evaluates one expression given as parallel arrays of op codes and operand literals, in order.
CREATE FUNCTION se_eval(ops int[], operands text[]) RETURNS int4[]
LANGUAGE sql AS $$
  SELECT zm_int4range_op(o::int2, v::int4[] ORDER BY n)
  FROM unnest(ops, operands) WITH ORDINALITY AS r(o, v, n)
$$;

-- Worked example: A u (B n C) - D with A = 1..5, B = 3..10, C = 4..20, D = 6..7.
SELECT zm_int4range_op(op, operand ORDER BY k)
FROM (VALUES (1, 1::int2, '{1,5}'::int4[]),
             (2, 513::int2, '{3,10}'),
             (3, 2::int2, '{4,20}'),
             (4, 7::int2, '{6,7}')) AS rows(k, op, operand);
-- The same rows in another order give another expression: ORDER BY inside the call matters.
SELECT zm_int4range_op(op, operand ORDER BY k DESC)
FROM (VALUES (1, 1::int2, '{1,5}'::int4[]),
             (2, 1::int2, '{3,10}'),
             (3, 2::int2, '{4,20}'),
             (4, 3::int2, '{6,7}')) AS rows(k, op, operand);

-- Op codes: operation + 4 x closes + 512 x opens.
SELECT se_eval('{1,513,2}', '{"{1,5}","{3,10}","{4,20}"}');            -- A u (B n C), closed by the final function
SELECT se_eval('{1,515}', '{"{1,10}","{3,4}"}');                       -- A - B
SELECT se_eval('{1,515,5}', '{"{1,10}","{3,4}","{20,21}"}');          -- (A - B) u C: the group's exclusion at its close, then the row's union
SELECT se_eval('{1,1}', '{"{1,5}","{6,9}"}');                          -- adjacent results merge
SELECT se_eval('{1,1,1}', '{"{1,3}","{5,6}","{10,12}"}');             -- a gap of one value stays
SELECT se_eval('{1,1538,9}', '{"{1,20}","{5,8}","{30,40}"}');         -- 1538 = intersection, opens 3; 9 = union, closes 2
SELECT se_eval('{1,1027,513,2}', '{"{1,100}","{10,20}","{30,60}","{50,70}"}'); -- A - (B u (C n D)): two open groups closed at the end
SELECT se_eval('{2561}', '{"{1,2}"}');                                 -- five groups opened by one row
SELECT se_eval('{2561,21,1}', '{"{1,2}","{5,6}","{8,9}"}');            -- closes 5 then union: ((((({1,2})))) u {5,6}) u {8,9}

-- The first row works on the empty root.
SELECT se_eval('{2}', '{"{1,5}"}');
SELECT se_eval('{3}', '{"{1,5}"}');
SELECT se_eval('{2,1}', '{"{1,5}","{7,9}"}');

-- A row whose operand is NULL is skipped entirely, closes and opens included.
SELECT se_eval('{1,513,2}', ARRAY['{1,10}', NULL, '{3,20}']);          -- the open is not performed: A n C
SELECT se_eval('{1,515,5,1}', ARRAY['{1,10}', '{3,4}', NULL, '{20,30}']); -- the close is not performed: A - (B u D)
SELECT se_eval('{1,4,4}', ARRAY['{1,10}', NULL, NULL]);                 -- closes at the root are never tested
SELECT se_eval('{0,0}', ARRAY[NULL, NULL]);                             -- all operands NULL: empty
SELECT se_eval(ARRAY[-1, 1], ARRAY[NULL, '{4,5}']);                     -- even op code 0xffff is skipped

-- Operands that read as the empty set: {}, with a NULL element, two-dimensional.
SELECT se_eval('{1,1}', '{"{1,5}","{}"}') AS union_empty,
       se_eval('{1,3}', '{"{1,5}","{}"}') AS exclusion_empty,
       se_eval('{1,2}', '{"{1,5}","{}"}') AS intersection_empty;
SELECT se_eval('{1,1}', '{"{1,5}","{2,NULL}"}') AS union_null_element,
       se_eval('{1,3}', '{"{1,5}","{2,NULL}"}') AS exclusion_null_element,
       se_eval('{1,2}', '{"{1,5}","{2,NULL}"}') AS intersection_null_element;
SELECT se_eval('{1,1}', '{"{1,5}","{{7,8},{9,10}}"}') AS union_2d,
       se_eval('{1,3}', '{"{1,5}","{{2,3},{4,5}}"}') AS exclusion_2d,
       se_eval('{1,2}', '{"{1,5}","{{2,3},{4,5}}"}') AS intersection_2d;
-- Odd-looking element counts in such operands are not checked.
SELECT se_eval('{1,1}', '{"{1,5}","{2,NULL,4}"}');
-- Operands are used as they stand (not sorted); the lower bound of the array is irrelevant.
SELECT se_eval('{1}', '{"[0:1]={7,8}"}');

-- The empty result is the one-dimensional empty array, never the zero-dimensional one.
SELECT r, array_ndims(r) AS ndims, array_dims(r) AS dims, pg_column_size(r) AS bytes
FROM (SELECT zm_int4range_op(0::int2, '{}'::int4[]) AS r WHERE false) AS no_rows;
SELECT r, array_ndims(r) AS ndims, array_dims(r) AS dims
FROM (SELECT se_eval('{1,2}', '{"{1,5}","{7,9}"}') AS r) AS emptied;
SELECT r, array_ndims(r) AS ndims, array_dims(r) AS dims
FROM (SELECT se_eval('{1}', ARRAY[NULL]) AS r) AS all_null;
SELECT r, array_ndims(r) AS ndims, array_dims(r) AS dims
FROM (SELECT se_eval('{1,1}', '{"{1,5}","{8,9}"}') AS r) AS filled;

-- Errors, with their SQLSTATE and reporting function.
-- A NULL op code, even on the first row and even with a NULL operand.
SELECT se_eval(ARRAY[NULL]::int[], '{"{1,2}"}');
\echo :LAST_ERROR_SQLSTATE
SELECT se_eval(ARRAY[NULL]::int[], ARRAY[NULL]);
\echo :LAST_ERROR_SQLSTATE
SELECT se_eval(ARRAY[1, NULL], '{"{1,2}","{3,4}"}');
\echo :LAST_ERROR_SQLSTATE
-- A close at depth 0.
SELECT se_eval('{4}', '{"{1,2}"}');
\echo :LAST_ERROR_SQLSTATE
SELECT se_eval('{513,9}', '{"{1,2}","{3,4}"}');
\echo :LAST_ERROR_SQLSTATE
-- Op code 4 at depth 1 closes the group, then operation 0 meets the operand.
SELECT se_eval('{1,513,4}', '{"{1,2}","{5,6}","{8,9}"}');
\echo :LAST_ERROR_SQLSTATE
-- A sixth open group, in one row or in a later one; 0x8001 asks for 64 opens.
SELECT se_eval('{3073}', '{"{1,2}"}');
\echo :LAST_ERROR_SQLSTATE
SELECT se_eval('{1537,1025,513}', '{"{1,2}","{1,2}","{1,2}"}');
\echo :LAST_ERROR_SQLSTATE
SELECT se_eval(ARRAY[-32767], '{"{1,2}"}');
\echo :LAST_ERROR_SQLSTATE
-- Operation 0 without opens, on the first row or later.
SELECT se_eval('{0}', '{"{1,5}"}');
\echo :LAST_ERROR_SQLSTATE
SELECT se_eval('{1,0}', '{"{1,5}","{6,9}"}');
\echo :LAST_ERROR_SQLSTATE
-- Operation 0 on a row that opens a group fails only when the group is closed: by a later row ...
SELECT se_eval('{1,512,5}', '{"{1,5}","{7,8}","{9,9}"}');
\echo :LAST_ERROR_SQLSTATE
-- ... or by the final function.
SELECT se_eval('{1,512}', '{"{1,5}","{7,8}"}');
\echo :LAST_ERROR_SQLSTATE
SELECT se_eval('{1,512,1}', '{"{1,5}","{7,8}","{20,21}"}');
\echo :LAST_ERROR_SQLSTATE
-- An operand of odd length.
SELECT se_eval('{1}', '{"{1,2,3}"}');
\echo :LAST_ERROR_SQLSTATE
SELECT se_eval('{1,1}', '{"{1,2}","{5}"}');
\echo :LAST_ERROR_SQLSTATE
-- Without ORDER BY inside the call the rows come in the plan's order, and the errors say how to fix
-- that; with ORDER BY (above) they do not.
SELECT zm_int4range_op(o, v) FROM (VALUES (4::int2, '{1,2}'::int4[])) t(o, v);
\echo :LAST_ERROR_SQLSTATE
SELECT zm_int4range_op(o, v) FROM (VALUES (1::int2, '{1,2}'::int4[]), (1::int2, '{5}')) t(o, v);
\echo :LAST_ERROR_SQLSTATE
SELECT zm_int4range_op(o, v) FROM (VALUES (1::int2, '{1,2}'::int4[]), (512::int2, '{5,6}')) t(o, v);
\echo :LAST_ERROR_SQLSTATE
-- Errors come in step order: closes, opens, operand length, operation.
SELECT se_eval('{7173}', '{"{1,2,3}"}');            -- close 1 + open 14 at depth 0: the close
\echo :LAST_ERROR_SQLSTATE
SELECT se_eval('{3073}', '{"{1,2,3}"}');            -- open 6 with an odd operand: the open
\echo :LAST_ERROR_SQLSTATE
SELECT se_eval('{0}', '{"{1,2,3}"}');               -- operation 0 with an odd operand: the length
\echo :LAST_ERROR_SQLSTATE

-- Declaration: transition non-strict, final function read-write, no combine, not parallel safe.
SELECT p.proisstrict AS transfn_strict, a.aggfinalmodify, a.aggcombinefn, a.aggtransspace > 0 AS has_sspace,
       (SELECT proparallel FROM pg_proc WHERE oid = 'zm_int4range_op(int2,int4[])'::regprocedure) AS parallel
FROM pg_aggregate a JOIN pg_proc p ON p.oid = a.aggtransfn
WHERE a.aggfnoid = 'zm_int4range_op(int2,int4[])'::regprocedure;

CREATE TABLE se_rows (g int, k int, op int2, operand int4[]);
-- 3000 groups, each A u (B n C) - D with A = g..g+10, B = g+3..g+30, C = g+8..g+40, D = g+5..g+6.
INSERT INTO se_rows
SELECT g, k, (ARRAY[1, 513, 2, 7])[k]::int2,
       CASE k WHEN 1 THEN ARRAY[g, g + 10] WHEN 2 THEN ARRAY[g + 3, g + 30]
              WHEN 3 THEN ARRAY[g + 8, g + 40] ELSE ARRAY[g + 5, g + 6] END
FROM generate_series(1, 4) k, generate_series(1, 3000) g;
ANALYZE se_rows;

CREATE FUNCTION se_expected(g int) RETURNS int4[]
LANGUAGE sql IMMUTABLE AS $$
  SELECT ARRAY[g, g + 4, g + 7, g + 30]
$$;

-- Two identical calls in one query: same answer, no state shared or finalised twice.
SELECT zm_int4range_op(op, operand ORDER BY k) AS first,
       zm_int4range_op(op, operand ORDER BY k) AS second,
       zm_int4range_op(op, operand ORDER BY k) FILTER (WHERE k < 4) AS without_d
FROM se_rows WHERE g = 1;
SELECT count(*) FILTER (WHERE a IS DISTINCT FROM se_expected(g) OR b IS DISTINCT FROM a) AS mismatches
FROM (SELECT g, zm_int4range_op(op, operand ORDER BY k) AS a, zm_int4range_op(op, operand ORDER BY k) AS b
      FROM se_rows GROUP BY g) s;

-- GROUP BY with many groups, sorted grouping.
SELECT count(*) AS groups, count(*) FILTER (WHERE r IS DISTINCT FROM se_expected(g)) AS mismatches
FROM (SELECT g, zm_int4range_op(op, operand ORDER BY k) AS r FROM se_rows GROUP BY g) s;

-- GROUP BY with many groups, hashed and spilling: without ORDER BY in the call the rows arrive in
-- their input order, here k-major so that every group sees its rows in expression order.
SET enable_sort = off;
SET max_parallel_workers_per_gather = 0;
SET work_mem = '1MB';
EXPLAIN (COSTS OFF)
SELECT g, zm_int4range_op(op, operand) FROM (SELECT * FROM se_rows WHERE k = 1 UNION ALL SELECT * FROM se_rows WHERE k = 2
  UNION ALL SELECT * FROM se_rows WHERE k = 3 UNION ALL SELECT * FROM se_rows WHERE k = 4) s GROUP BY g;
SELECT count(*) AS groups, count(*) FILTER (WHERE r IS DISTINCT FROM se_expected(g)) AS mismatches
FROM (SELECT g, zm_int4range_op(op, operand) AS r
      FROM (SELECT * FROM se_rows WHERE k = 1 UNION ALL SELECT * FROM se_rows WHERE k = 2
            UNION ALL SELECT * FROM se_rows WHERE k = 3 UNION ALL SELECT * FROM se_rows WHERE k = 4) s
      GROUP BY g) t;
RESET work_mem;

-- A hashed aggregate rescanned without new input parameters keeps its hash table and finalises
-- every group again (here three times); the second final call must not touch freed memory.
CREATE TABLE se_outer AS SELECT generate_series(1, 3) AS s;
ANALYZE se_outer;
-- Each plan node of an executed query with the number of times it ran.
CREATE FUNCTION se_loops(query text) RETURNS TABLE (node text, loops int)
LANGUAGE plpgsql AS $$
DECLARE
  plan jsonb;
BEGIN
  EXECUTE 'EXPLAIN (ANALYZE, COSTS OFF, TIMING OFF, SUMMARY OFF, FORMAT JSON) ' || query INTO plan;
  RETURN QUERY
    SELECT concat_ws(' ', n->>'Node Type', n->>'Strategy', n->>'Relation Name'), (n->>'Actual Loops')::int
    FROM jsonb_path_query(plan, 'strict $.**?(exists(@."Actual Loops"))') n;
END
$$;
\set rescan_query 'SELECT o.s, (SELECT a.r FROM (SELECT g, zm_int4range_op(op, operand) AS r FROM se_rows WHERE g <= 3 GROUP BY g) a WHERE a.g = o.s + 0 * cardinality(a.r)) AS r FROM se_outer o'
SELECT * FROM se_loops(:'rescan_query');
SELECT s, r, r = se_expected(s) AS ok FROM (:rescan_query) q;
RESET max_parallel_workers_per_gather;
RESET enable_sort;

-- Window use is refused cleanly: the final function consumes its state.
SELECT k, zm_int4range_op(op, operand) OVER (ORDER BY k) FROM se_rows WHERE g = 1;
\echo :LAST_ERROR_SQLSTATE

-- In a parallel plan the aggregate stays above the Gather: no partial aggregation.
SET parallel_setup_cost = 0;
SET parallel_tuple_cost = 0;
SET min_parallel_table_scan_size = 0;
SET max_parallel_workers_per_gather = 2;
EXPLAIN (COSTS OFF)
SELECT zm_int4range_op(op, operand ORDER BY g, k) FROM se_rows WHERE g <= 2;
SELECT zm_int4range_op(op, operand ORDER BY g, k) FROM se_rows WHERE g <= 2;
RESET parallel_setup_cost;
RESET parallel_tuple_cost;
RESET min_parallel_table_scan_size;
RESET max_parallel_workers_per_gather;

-- Large operands make the buffers grow beyond their first 1024 ranges.
WITH big AS (SELECT array_agg(v ORDER BY v) AS a
             FROM generate_series(0, 39999) i, LATERAL (VALUES (4 * i), (4 * i + 1)) x(v))
SELECT cardinality(r) AS elements, r[1:4] AS head, r[cardinality(r) - 1:] AS tail
FROM (SELECT zm_int4range_op(op, operand ORDER BY k) AS r
      FROM (SELECT 1 AS k, 1::int2 AS op, a AS operand FROM big
            UNION ALL SELECT 2, 1025::int2, a FROM big
            UNION ALL SELECT 3, 2::int2, '{0,99999}' FROM big) s) t;
-- Operands stored out of line (TOAST) are read as well.
CREATE TABLE se_big (k int, op int2, operand int4[]);
INSERT INTO se_big SELECT 1, 1, array_agg(v ORDER BY v) FROM generate_series(0, 19999) i, LATERAL (VALUES (3 * i), (3 * i + 1)) x(v);
INSERT INTO se_big VALUES (2, 3, '{0,59990}');
SELECT pg_column_size(operand) > 8192 AS out_of_line FROM se_big WHERE k = 1;
SELECT zm_int4range_op(op, operand ORDER BY k) FROM se_big;

-- An array variable of PL/pgSQL changed element by element (held in expanded form) is read as well.
CREATE FUNCTION se_expanded() RETURNS int4[]
LANGUAGE plpgsql AS $$
DECLARE
  a int4[] := '{}';
  r int4[];
BEGIN
  FOR i IN 1 .. 3 LOOP
    a[2 * i - 1] := 10 * i;
    a[2 * i] := 10 * i + 2;
  END LOOP;
  SELECT zm_int4range_op(op, a ORDER BY op) INTO r FROM (VALUES (1::int2), (2::int2)) v(op);
  RETURN r;
END
$$;
SELECT se_expanded();

DROP FUNCTION se_expanded();
DROP TABLE se_big;
DROP FUNCTION se_loops(text);
DROP TABLE se_outer;
DROP FUNCTION se_expected(int);
DROP TABLE se_rows;
DROP FUNCTION se_eval(int[], text[]);
