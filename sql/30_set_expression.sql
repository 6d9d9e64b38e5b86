-- Set-expression aggregate: each row carries an op code (operation + 4 x groups to close + 512 x
-- groups to open; operation 1 = union, 2 = intersection, 3 = exclusion) and a range array, and the
-- rows, taken in the order of the aggregate's ORDER BY, spell one parenthesised expression.

-- Non-strict: the first row creates the state, a NULL operand skips its row, a NULL op code is an
-- error.
CREATE FUNCTION zm_int4range_op_transfn(internal, int2, int4[]) RETURNS internal
AS 'MODULE_PATHNAME', 'zm_int4range_op_transfn'
LANGUAGE C IMMUTABLE CALLED ON NULL INPUT PARALLEL SAFE;
COMMENT ON FUNCTION zm_int4range_op_transfn(internal, int2, int4[]) IS
  'transition function of zm_int4range_op: applies one row (closes, opens, operand) to the state';

CREATE FUNCTION zm_int4range_op_finalfn(internal) RETURNS int4[]
AS 'MODULE_PATHNAME', 'zm_int4range_op_finalfn'
LANGUAGE C IMMUTABLE CALLED ON NULL INPUT PARALLEL SAFE;
COMMENT ON FUNCTION zm_int4range_op_finalfn(internal) IS
  'final function of zm_int4range_op: closes the groups left open and returns the range array; frees the state''s buffers and keeps the result for a second finalisation';

-- FINALFUNC_MODIFY = READ_WRITE: the final function frees the state's buffers (keeping its result
-- for a hashed aggregate that is rescanned and finalises again), so the server must never share
-- one state between two aggregate calls (it refuses window use).
-- SSPACE: the state's own memory context holds seven 8 KB range buffers (about 136 KB measured).
-- PARALLEL = RESTRICTED: the state is one ordered left-to-right fold with no combine function, so
-- it can never be split across workers; restricted keeps the aggregate in the leader while the
-- scan below it may still run in parallel.
CREATE AGGREGATE zm_int4range_op(int2, int4[]) (
  SFUNC = zm_int4range_op_transfn,
  STYPE = internal,
  SSPACE = 140000,
  FINALFUNC = zm_int4range_op_finalfn,
  FINALFUNC_MODIFY = READ_WRITE,
  PARALLEL = RESTRICTED
);
COMMENT ON AGGREGATE zm_int4range_op(int2, int4[]) IS
  'evaluates the set expression spelt by its rows (op code, range array); write ORDER BY inside the call';
