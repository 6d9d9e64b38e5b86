CREATE EXTENSION IF NOT EXISTS kestrava_range_operators;

-- Random set expressions, nested up to the five-group limit, evaluated twice: by zm_int4range_op
-- from rows of op codes, and by PostgreSQL's int4multirange operators (+, *, -) from the same
-- expression written out in full with parentheses. Only the counts are printed.
SELECT setseed(0.4242);

CREATE TABLE ser_rows (expr int, seq int, op int2, operand int4[]);
CREATE TABLE ser_exprs (expr int PRIMARY KEY, infix text, depth int);

-- A random set as a canonical multirange; `span` sets how dense it is.
CREATE FUNCTION ser_random_set(span int) RETURNS int4multirange
LANGUAGE plpgsql AS $$
DECLARE
  result int4multirange := '{}';
  lo int;
BEGIN
  FOR i IN 1 .. floor(random() * 9)::int LOOP
    lo := floor(random() * span)::int - span / 2;
    result := result + int4multirange(int4range(lo, lo + floor(random() * (3 + span / 8))::int, '[]'));
  END LOOP;
  RETURN result;
END
$$;

-- The multirange as a range array: inclusive lower, upper pairs.
CREATE FUNCTION ser_range_array(m int4multirange) RETURNS int4[]
LANGUAGE sql IMMUTABLE AS $$
  SELECT ARRAY(SELECT b FROM unnest(m) WITH ORDINALITY AS u(r, i),
                            LATERAL (VALUES (1, lower(r)), (2, upper(r) - 1)) AS v(j, b)
               ORDER BY i, j)
$$;

CREATE FUNCTION ser_symbol(operation int) RETURNS text
LANGUAGE sql IMMUTABLE AS $$ SELECT (ARRAY['+', '*', '-'])[operation] $$;

-- Mostly unions, so that results do not collapse to the empty set.
CREATE FUNCTION ser_random_operation() RETURNS int
LANGUAGE sql AS $$ SELECT CASE WHEN x < 0.5 THEN 1 WHEN x < 0.75 THEN 2 ELSE 3 END FROM (SELECT random() AS x) r $$;

-- Writes the rows of one parenthesis group and returns the group written out in full. Items are
-- leaves (one row) or nested groups. The first leaf row of a group carries the opens of every group
-- that begins with it and the operation of the outermost of them; the row after a group's last
-- leaf carries its close, and groups still open at the end are left to the final function. Rows
-- with a NULL operand and any op code are scattered in between: they must change nothing.
CREATE FUNCTION ser_group(expr int, level int, row_op int, opens int, is_root bool, span int,
                          INOUT seq int, INOUT pending_closes int, INOUT depth int, OUT infix text)
LANGUAGE plpgsql AS $$
DECLARE
  items int := 1 + floor(random() * 4)::int;
  item_op int;
  applied_op int;
  item text;
  operand int4[];
  s int4multirange;
  nested record;
BEGIN
  infix := $e$'{}'::int4multirange$e$;
  depth := greatest(depth, level);
  FOR i IN 1 .. items LOOP
    item_op := ser_random_operation();
    IF i > 1 THEN
      row_op := item_op;
      opens := 0;
      applied_op := item_op;
    ELSE
      -- The first item of a nested group is united with the group's empty start.
      applied_op := CASE WHEN is_root THEN row_op ELSE 1 END;
    END IF;
    IF random() < 0.08 THEN
      seq := seq + 1;
      INSERT INTO ser_rows VALUES (expr, seq, (floor(random() * 65536) - 32768)::int2, NULL);
    END IF;
    IF level < 5 AND random() < 0.3 THEN
      SELECT * INTO nested FROM ser_group(expr, level + 1, row_op, opens + 1, false, span, seq, pending_closes, depth);
      seq := nested.seq;
      pending_closes := nested.pending_closes;
      depth := nested.depth;
      item := nested.infix;
    ELSE
      IF random() < 0.03 THEN
        -- Operands that read as the empty set: a NULL element, two dimensions.
        s := '{}';
        operand := CASE WHEN random() < 0.5 THEN ARRAY[1, NULL] ELSE ARRAY[[1, 2], [3, 4]] END;
      ELSE
        s := ser_random_set(span);
        operand := ser_range_array(s);
      END IF;
      seq := seq + 1;
      INSERT INTO ser_rows VALUES (expr, seq, (row_op + 4 * pending_closes + 512 * opens)::int2, operand);
      pending_closes := 0;
      item := quote_literal(s::text) || '::int4multirange';
    END IF;
    infix := '(' || infix || ' ' || ser_symbol(applied_op) || ' ' || item || ')';
  END LOOP;
  IF NOT is_root THEN
    pending_closes := pending_closes + 1;
  END IF;
END
$$;

DO $$
DECLARE
  g record;
BEGIN
  FOR e IN 1 .. 3000 LOOP
    -- The root's first row may use any operation (it works on the empty root), mostly union.
    g := ser_group(e, 0, CASE WHEN random() < 0.9 THEN 1 ELSE ser_random_operation() END, 0, true, (ARRAY[16, 40, 120])[1 + floor(random() * 3)::int],
                   0, 0, 0);
    INSERT INTO ser_exprs VALUES (e, g.infix, g.depth);
  END LOOP;
END
$$;

CREATE FUNCTION ser_evaluate(infix text) RETURNS int4[]
LANGUAGE plpgsql AS $$
DECLARE
  result int4multirange;
BEGIN
  EXECUTE 'SELECT ' || infix INTO result;
  RETURN ser_range_array(result);
END
$$;

-- Enough expressions, rows and nesting to be worth the comparison.
SELECT count(*) AS expressions, max(depth) AS deepest, count(*) FILTER (WHERE depth = 5) > 20 AS many_at_limit
FROM ser_exprs;
SELECT count(*) > 15000 AS many_rows, count(*) FILTER (WHERE operand IS NULL) > 500 AS many_null_rows,
       count(*) FILTER (WHERE (op::int & 65535) >> 9 > 1) > 100 AS many_multi_opens,
       count(*) FILTER (WHERE operand IS NOT NULL AND ((op::int & 65535) >> 2) & 127 > 1) > 100 AS many_multi_closes
FROM ser_rows;

-- The comparison: results must be equal element for element, and always one-dimensional.
SELECT count(*) AS compared,
       count(*) FILTER (WHERE ARRAY(SELECT unnest(got)) IS DISTINCT FROM ser_evaluate(e.infix)) AS mismatches,
       count(*) FILTER (WHERE array_ndims(got) IS DISTINCT FROM 1) AS not_one_dimensional
FROM ser_exprs e
JOIN (SELECT expr, zm_int4range_op(op, operand ORDER BY seq) AS got FROM ser_rows GROUP BY expr) a USING (expr);

DROP FUNCTION ser_evaluate(text);
DROP FUNCTION ser_group(int, int, int, int, bool, int, int, int, int);
DROP FUNCTION ser_random_operation();
DROP FUNCTION ser_symbol(int);
DROP FUNCTION ser_range_array(int4multirange);
DROP FUNCTION ser_random_set(int);
DROP TABLE ser_exprs;
DROP TABLE ser_rows;
