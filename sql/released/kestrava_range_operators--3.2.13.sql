-- complain if script is sourced in psql, rather than via CREATE EXTENSION
\echo Use "CREATE EXTENSION kestrava_range_operators" to load this file. \quit

-- sql/00_module.sql
CREATE FUNCTION kestrava_range_operators_version() RETURNS text
AS 'MODULE_PATHNAME', 'kestrava_range_operators_version'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
COMMENT ON FUNCTION kestrava_range_operators_version() IS 'version of the loaded library';

-- sql/10_range_operators.sql
-- Range arrays: int4[] of sorted, disjoint lower/upper pairs, both bounds inclusive.

-- Set algebra. Non-strict: each function has its own rule for NULL arguments.
CREATE FUNCTION zm_int4range_union(int4[], int4[]) RETURNS int4[]
AS 'MODULE_PATHNAME', 'zm_int4range_union'
LANGUAGE C IMMUTABLE CALLED ON NULL INPUT PARALLEL SAFE COST 10;
COMMENT ON FUNCTION zm_int4range_union(int4[], int4[]) IS
  'union of two range arrays; NULL when both are NULL, a copy of the other when one is NULL';

CREATE FUNCTION zm_int4range_intersection(int4[], int4[]) RETURNS int4[]
AS 'MODULE_PATHNAME', 'zm_int4range_intersection'
LANGUAGE C IMMUTABLE CALLED ON NULL INPUT PARALLEL SAFE COST 10;
COMMENT ON FUNCTION zm_int4range_intersection(int4[], int4[]) IS
  'intersection of two range arrays; NULL when either is NULL';

CREATE FUNCTION zm_int4range_exclusion(int4[], int4[]) RETURNS int4[]
AS 'MODULE_PATHNAME', 'zm_int4range_exclusion'
LANGUAGE C IMMUTABLE CALLED ON NULL INPUT PARALLEL SAFE COST 10;
COMMENT ON FUNCTION zm_int4range_exclusion(int4[], int4[]) IS
  'values of the first range array that are not in the second; NULL when the first is NULL, a copy of it when the second is NULL';

CREATE FUNCTION zm_int4range_is_strictly_include(int4[], int4[]) RETURNS bool
AS 'MODULE_PATHNAME', 'zm_int4range_is_strictly_include'
LANGUAGE C IMMUTABLE CALLED ON NULL INPUT PARALLEL SAFE COST 10;
COMMENT ON FUNCTION zm_int4range_is_strictly_include(int4[], int4[]) IS
  'true when every range of the first array lies inside a single range of the second';

CREATE FUNCTION zm_int4range_is_overlap(int4[], int4[]) RETURNS bool
AS 'MODULE_PATHNAME', 'zm_int4range_is_overlap'
LANGUAGE C IMMUTABLE CALLED ON NULL INPUT PARALLEL SAFE COST 10;
COMMENT ON FUNCTION zm_int4range_is_overlap(int4[], int4[]) IS
  'true when the two range arrays share a value';

-- Membership and comparison tests (strict: NULL in, NULL out).
CREATE FUNCTION zm_int4_in_rangearray(int4, int4[]) RETURNS bool
AS 'MODULE_PATHNAME', 'zm_int4_in_rangearray'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE COST 5;
COMMENT ON FUNCTION zm_int4_in_rangearray(int4, int4[]) IS 'the value lies in a range of the range array (binary search)';

CREATE FUNCTION zm_int4range_overlap_rangearray(int4[], int4[]) RETURNS bool
AS 'MODULE_PATHNAME', 'zm_int4range_overlap_rangearray'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE COST 10;
COMMENT ON FUNCTION zm_int4range_overlap_rangearray(int4[], int4[]) IS 'the two range arrays share a value';

CREATE FUNCTION zm_int4rangepacked_in_rangearray(int8, int4[]) RETURNS bool
AS 'MODULE_PATHNAME', 'zm_int4rangepacked_in_rangearray'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE COST 10;
COMMENT ON FUNCTION zm_int4rangepacked_in_rangearray(int8, int4[]) IS 'the packed range shares a value with the range array';

CREATE FUNCTION zm_int4rangepacked_in_int4rangepacked(int8, int8) RETURNS bool
AS 'MODULE_PATHNAME', 'zm_int4rangepacked_in_int4rangepacked'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
COMMENT ON FUNCTION zm_int4rangepacked_in_int4rangepacked(int8, int8) IS 'the two packed ranges overlap';

CREATE FUNCTION zm_int4rangepacked_included_in_int4rangepacked(int8, int8) RETURNS bool
AS 'MODULE_PATHNAME', 'zm_int4rangepacked_included_in_int4rangepacked'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
COMMENT ON FUNCTION zm_int4rangepacked_included_in_int4rangepacked(int8, int8) IS 'the first packed range lies inside the second';

CREATE FUNCTION zm_int4rangepacked_contains_int4rangepacked(int8, int8) RETURNS bool
AS 'MODULE_PATHNAME', 'zm_int4rangepacked_contains_int4rangepacked'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
COMMENT ON FUNCTION zm_int4rangepacked_contains_int4rangepacked(int8, int8) IS 'the second packed range lies inside the first';

CREATE FUNCTION zm_int4_in_packedrange(int4, int8) RETURNS bool
AS 'MODULE_PATHNAME', 'zm_int4_in_packedrange'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
COMMENT ON FUNCTION zm_int4_in_packedrange(int4, int8) IS 'the value lies inside the packed range';

-- The library function reads the value from its second and the packed range from its third
-- argument; the first is not read.
CREATE FUNCTION zm_int4rangepacked_contains_int4(int8, int4, int8) RETURNS bool
AS 'MODULE_PATHNAME', 'zm_int4rangepacked_contains_int4'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
COMMENT ON FUNCTION zm_int4rangepacked_contains_int4(int8, int4, int8) IS
  'the value (second argument) lies inside the packed range (third argument); the first argument is ignored';

CREATE FUNCTION zm_int4rangepacked_contains_value(int8, int4) RETURNS bool
AS 'MODULE_PATHNAME', 'zm_int4rangepacked_contains_value'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
COMMENT ON FUNCTION zm_int4rangepacked_contains_value(int8, int4) IS 'the packed range contains the value';

-- Operators. None is defined on (int4[], int4[]) under a name that core arrays or intarray use.
CREATE OPERATOR &&& (
  LEFTARG = int4[], RIGHTARG = int4[], FUNCTION = zm_int4range_overlap_rangearray,
  COMMUTATOR = &&&, RESTRICT = areasel, JOIN = areajoinsel);
COMMENT ON OPERATOR &&& (int4[], int4[]) IS 'range arrays overlap';

CREATE OPERATOR <@@ (
  LEFTARG = int4[], RIGHTARG = int4[], FUNCTION = zm_int4range_is_strictly_include,
  RESTRICT = contsel, JOIN = contjoinsel);
COMMENT ON OPERATOR <@@ (int4[], int4[]) IS 'every range of the left range array lies inside one range of the right one';

CREATE OPERATOR <@ (
  LEFTARG = int4, RIGHTARG = int4[], FUNCTION = zm_int4_in_rangearray,
  RESTRICT = contsel, JOIN = contjoinsel);
COMMENT ON OPERATOR <@ (int4, int4[]) IS 'value lies in the range array';

CREATE OPERATOR && (
  LEFTARG = int8, RIGHTARG = int4[], FUNCTION = zm_int4rangepacked_in_rangearray,
  RESTRICT = areasel, JOIN = areajoinsel);
COMMENT ON OPERATOR && (int8, int4[]) IS 'packed range overlaps the range array';

CREATE OPERATOR && (
  LEFTARG = int8, RIGHTARG = int8, FUNCTION = zm_int4rangepacked_in_int4rangepacked,
  COMMUTATOR = &&, RESTRICT = areasel, JOIN = areajoinsel);
COMMENT ON OPERATOR && (int8, int8) IS 'packed ranges overlap';

CREATE OPERATOR <@ (
  LEFTARG = int8, RIGHTARG = int8, FUNCTION = zm_int4rangepacked_included_in_int4rangepacked,
  COMMUTATOR = @>, RESTRICT = contsel, JOIN = contjoinsel);
COMMENT ON OPERATOR <@ (int8, int8) IS 'left packed range lies inside the right one';

CREATE OPERATOR @> (
  LEFTARG = int8, RIGHTARG = int8, FUNCTION = zm_int4rangepacked_contains_int4rangepacked,
  COMMUTATOR = <@, RESTRICT = contsel, JOIN = contjoinsel);
COMMENT ON OPERATOR @> (int8, int8) IS 'left packed range contains the right one';

CREATE OPERATOR <@ (
  LEFTARG = int4, RIGHTARG = int8, FUNCTION = zm_int4_in_packedrange,
  COMMUTATOR = @>, RESTRICT = contsel, JOIN = contjoinsel);
COMMENT ON OPERATOR <@ (int4, int8) IS 'value lies inside the packed range';

CREATE OPERATOR @> (
  LEFTARG = int8, RIGHTARG = int4, FUNCTION = zm_int4rangepacked_contains_value,
  COMMUTATOR = <@, RESTRICT = contsel, JOIN = contjoinsel);
COMMENT ON OPERATOR @> (int8, int4) IS 'packed range contains the value';

-- sql/20_bitfield.sql
-- Bitfields: a bytea holding the first and last value of a span (int4 each, machine byte order)
-- and one bit per value of the span in whole 64-bit words, most significant bit first.

-- Building and counting. Strict: a NULL kind or set gives NULL. The anyarray forms exist so that
-- arrays of another element type reach the library's own check.
CREATE FUNCTION zm_int4set2bitfield_int4("char", int4[]) RETURNS bytea
AS 'MODULE_PATHNAME', 'zm_int4set2bitfield_int4'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE COST 20;
COMMENT ON FUNCTION zm_int4set2bitfield_int4("char", int4[]) IS
  'bitfield of a set given as a range (''r''), scalar (''s'') or mix (''m'') array';

CREATE FUNCTION zm_int4set2bitfield_int4("char", anyarray) RETURNS bytea
AS 'MODULE_PATHNAME', 'zm_int4set2bitfield_int4'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE COST 20;
COMMENT ON FUNCTION zm_int4set2bitfield_int4("char", anyarray) IS
  'rejects arrays whose elements are not int4 ("accept only int4[]")';

CREATE FUNCTION zm_count_scalar_in_int4set("char", int4[]) RETURNS int4
AS 'MODULE_PATHNAME', 'zm_count_scalar_in_int4set'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE COST 5;
COMMENT ON FUNCTION zm_count_scalar_in_int4set("char", int4[]) IS
  'number of values of a set given as a range (''r''), scalar (''s'') or mix (''m'') array';

CREATE FUNCTION zm_count_scalar_in_int4set("char", anyarray) RETURNS int4
AS 'MODULE_PATHNAME', 'zm_count_scalar_in_int4set'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE COST 5;
COMMENT ON FUNCTION zm_count_scalar_in_int4set("char", anyarray) IS
  'NULL for arrays whose elements are not int4';

-- Tests against a bitfield (strict: NULL in, NULL out).
CREATE FUNCTION zm_int4_in_rangebitfield(int4, bytea) RETURNS bool
AS 'MODULE_PATHNAME', 'zm_int4_in_rangebitfield'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
COMMENT ON FUNCTION zm_int4_in_rangebitfield(int4, bytea) IS 'the value''s bit is set in the bitfield';

CREATE FUNCTION zm_int4rangepacked_in_rangebitfield(int8, bytea) RETURNS bool
AS 'MODULE_PATHNAME', 'zm_int4rangepacked_in_rangebitfield'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE COST 5;
COMMENT ON FUNCTION zm_int4rangepacked_in_rangebitfield(int8, bytea) IS
  'some value of the packed range has its bit set in the bitfield';

CREATE FUNCTION zm_int4set_overlap_bitfield("char", int4[], bytea) RETURNS bool
AS 'MODULE_PATHNAME', 'zm_int4set_overlap_bitfield'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE COST 10;
COMMENT ON FUNCTION zm_int4set_overlap_bitfield("char", int4[], bytea) IS
  'some member of the set (''r'', ''s'' or ''m'' array) has its bit set in the bitfield';

CREATE FUNCTION zm_int4set_overlap_bitfield("char", anyarray, bytea) RETURNS bool
AS 'MODULE_PATHNAME', 'zm_int4set_overlap_bitfield'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE COST 10;
COMMENT ON FUNCTION zm_int4set_overlap_bitfield("char", anyarray, bytea) IS
  'rejects arrays whose elements are not int4 ("accept only int4[]")';

CREATE FUNCTION zm_int4set_included_in_bitfield("char", int4[], bytea) RETURNS bool
AS 'MODULE_PATHNAME', 'zm_int4set_included_in_bitfield'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE COST 10;
COMMENT ON FUNCTION zm_int4set_included_in_bitfield("char", int4[], bytea) IS
  'every member of the set (''r'', ''s'' or ''m'' array) has its bit set in the bitfield';

CREATE FUNCTION zm_int4set_included_in_bitfield("char", anyarray, bytea) RETURNS bool
AS 'MODULE_PATHNAME', 'zm_int4set_included_in_bitfield'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE COST 10;
COMMENT ON FUNCTION zm_int4set_included_in_bitfield("char", anyarray, bytea) IS
  'rejects arrays whose elements are not int4 ("accept only int4[]")';

CREATE OPERATOR <@ (
  LEFTARG = int4, RIGHTARG = bytea, FUNCTION = zm_int4_in_rangebitfield,
  RESTRICT = contsel, JOIN = contjoinsel);
COMMENT ON OPERATOR <@ (int4, bytea) IS 'value''s bit is set in the bitfield';

CREATE OPERATOR && (
  LEFTARG = int8, RIGHTARG = bytea, FUNCTION = zm_int4rangepacked_in_rangebitfield,
  RESTRICT = areasel, JOIN = areajoinsel);
COMMENT ON OPERATOR && (int8, bytea) IS 'some value of the packed range has its bit set in the bitfield';

-- sql/30_set_expression.sql
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
  'final function of zm_int4range_op: closes the groups left open and returns the range array; consumes the state';

-- FINALFUNC_MODIFY = READ_WRITE: the final function frees the state, so the server must never
-- share one state between two aggregate calls nor finalise it twice (it refuses window use).
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

-- sql/40_set_aggregates.sql
-- Set aggregates: fold int4 values, lower/upper pairs or whole sets from many rows into one set,
-- returned as a range array ('r'), a scalar array ('s') or a mix array ('m').
--
-- The support functions look at their NULL flags themselves (CALLED ON NULL INPUT), except the
-- serial and deserial functions: declared STRICT, a worker that saw no rows hands over a NULL
-- partial state that is neither serialised nor deserialised, and the combine step skips it.
-- The final functions consume their state (FINALFUNC_MODIFY = READ_WRITE): the server never
-- shares a state between two identical calls and refuses window use.

CREATE FUNCTION zm_int4set_agg_transfn_A(internal, int4, "char") RETURNS internal
AS 'MODULE_PATHNAME', 'zm_int4set_agg_transfn_A'
LANGUAGE C IMMUTABLE CALLED ON NULL INPUT PARALLEL SAFE;
COMMENT ON FUNCTION zm_int4set_agg_transfn_A(internal, int4, "char") IS
  'zm_int4set_agg transition: one value per row';

CREATE FUNCTION zm_int4set_agg_transfn_A(internal, int4, int4, "char") RETURNS internal
AS 'MODULE_PATHNAME', 'zm_int4set_agg_transfn_A'
LANGUAGE C IMMUTABLE CALLED ON NULL INPUT PARALLEL SAFE;
COMMENT ON FUNCTION zm_int4set_agg_transfn_A(internal, int4, int4, "char") IS
  'zm_int4set_agg transition: one lower/upper pair per row';

CREATE FUNCTION zm_int4set_agg_transfn_B(internal, "char", int4[], "char") RETURNS internal
AS 'MODULE_PATHNAME', 'zm_int4set_agg_transfn_B'
LANGUAGE C IMMUTABLE CALLED ON NULL INPUT PARALLEL SAFE COST 10;
COMMENT ON FUNCTION zm_int4set_agg_transfn_B(internal, "char", int4[], "char") IS
  'zm_int4set_agg transition: one set per row, of the kind given by the first letter';

CREATE FUNCTION zm_int4set_agg_finalfn(internal) RETURNS int4[]
AS 'MODULE_PATHNAME', 'zm_int4set_agg_finalfn'
LANGUAGE C IMMUTABLE CALLED ON NULL INPUT PARALLEL SAFE COST 10;
COMMENT ON FUNCTION zm_int4set_agg_finalfn(internal) IS
  'zm_int4set_agg final: the set in the requested form; consumes the state';

CREATE FUNCTION zm_int4set_agg_combinefn(internal, internal) RETURNS internal
AS 'MODULE_PATHNAME', 'zm_int4set_agg_combinefn'
LANGUAGE C IMMUTABLE CALLED ON NULL INPUT PARALLEL SAFE COST 10;
COMMENT ON FUNCTION zm_int4set_agg_combinefn(internal, internal) IS
  'zm_int4set_agg combine: a new state holding the union of two partial states';

CREATE FUNCTION zm_int4set_agg_serialfn(internal) RETURNS bytea
AS 'MODULE_PATHNAME', 'zm_int4set_agg_serialfn'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE COST 10;
COMMENT ON FUNCTION zm_int4set_agg_serialfn(internal) IS
  'zm_int4set_agg serial: input type byte, output type byte, then lower/upper int32 pairs';

CREATE FUNCTION zm_int4set_agg_deserialfn(bytea, internal) RETURNS internal
AS 'MODULE_PATHNAME', 'zm_int4set_agg_deserialfn'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE COST 10;
COMMENT ON FUNCTION zm_int4set_agg_deserialfn(bytea, internal) IS
  'zm_int4set_agg deserial: rebuilds a partial state from its serial form';

-- SSPACE: a state owns a memory context and a buffer of 1024 ranges.
CREATE AGGREGATE zm_int4set_agg(int4, "char") (
  SFUNC = zm_int4set_agg_transfn_A,
  STYPE = internal,
  SSPACE = 24576,
  FINALFUNC = zm_int4set_agg_finalfn,
  FINALFUNC_MODIFY = READ_WRITE,
  COMBINEFUNC = zm_int4set_agg_combinefn,
  SERIALFUNC = zm_int4set_agg_serialfn,
  DESERIALFUNC = zm_int4set_agg_deserialfn,
  PARALLEL = SAFE
);
COMMENT ON AGGREGATE zm_int4set_agg(int4, "char") IS
  'set of the non-NULL values as a range (''r''), scalar (''s'') or mix (''m'') array';

CREATE AGGREGATE zm_int4set_agg(int4, int4, "char") (
  SFUNC = zm_int4set_agg_transfn_A,
  STYPE = internal,
  SSPACE = 24576,
  FINALFUNC = zm_int4set_agg_finalfn,
  FINALFUNC_MODIFY = READ_WRITE,
  COMBINEFUNC = zm_int4set_agg_combinefn,
  SERIALFUNC = zm_int4set_agg_serialfn,
  DESERIALFUNC = zm_int4set_agg_deserialfn,
  PARALLEL = SAFE
);
COMMENT ON AGGREGATE zm_int4set_agg(int4, int4, "char") IS
  'union of the closed ranges [lower, upper] as a range (''r''), scalar (''s'') or mix (''m'') array';

CREATE AGGREGATE zm_int4set_agg("char", int4[], "char") (
  SFUNC = zm_int4set_agg_transfn_B,
  STYPE = internal,
  SSPACE = 24576,
  FINALFUNC = zm_int4set_agg_finalfn,
  FINALFUNC_MODIFY = READ_WRITE,
  COMBINEFUNC = zm_int4set_agg_combinefn,
  SERIALFUNC = zm_int4set_agg_serialfn,
  DESERIALFUNC = zm_int4set_agg_deserialfn,
  PARALLEL = SAFE
);
COMMENT ON AGGREGATE zm_int4set_agg("char", int4[], "char") IS
  'union of the sets of kind ''r'', ''s'' or ''m'' (first letter), as a range, scalar or mix array (last letter)';

-- Optimised set aggregate: the same for values known to lie in 0..maxinput, on a bitfield of
-- (maxinput >> 3) + 1 bytes sized on the first row (maxinput and letters of later rows are not read).

CREATE FUNCTION zm_int4set_agg_optimized_transfn_A(internal, int4, int4, "char") RETURNS internal
AS 'MODULE_PATHNAME', 'zm_int4set_agg_optimized_transfn_A'
LANGUAGE C IMMUTABLE CALLED ON NULL INPUT PARALLEL SAFE;
COMMENT ON FUNCTION zm_int4set_agg_optimized_transfn_A(internal, int4, int4, "char") IS
  'zm_int4set_agg_optimized transition: one value per row, then maxinput';

CREATE FUNCTION zm_int4set_agg_optimized_transfn_A(internal, int4, int4, int4, "char") RETURNS internal
AS 'MODULE_PATHNAME', 'zm_int4set_agg_optimized_transfn_A'
LANGUAGE C IMMUTABLE CALLED ON NULL INPUT PARALLEL SAFE;
COMMENT ON FUNCTION zm_int4set_agg_optimized_transfn_A(internal, int4, int4, int4, "char") IS
  'zm_int4set_agg_optimized transition: one lower/upper pair per row, then maxinput';

CREATE FUNCTION zm_int4set_agg_optimized_transfn_B(internal, "char", int4[], int4, "char") RETURNS internal
AS 'MODULE_PATHNAME', 'zm_int4set_agg_optimized_transfn_B'
LANGUAGE C IMMUTABLE CALLED ON NULL INPUT PARALLEL SAFE COST 10;
COMMENT ON FUNCTION zm_int4set_agg_optimized_transfn_B(internal, "char", int4[], int4, "char") IS
  'zm_int4set_agg_optimized transition: one set per row of the kind given by the first letter, then maxinput';

CREATE FUNCTION zm_int4set_agg_optimized_finalfn(internal) RETURNS int4[]
AS 'MODULE_PATHNAME', 'zm_int4set_agg_optimized_finalfn'
LANGUAGE C IMMUTABLE CALLED ON NULL INPUT PARALLEL SAFE COST 10;
COMMENT ON FUNCTION zm_int4set_agg_optimized_finalfn(internal) IS
  'zm_int4set_agg_optimized final: the set bits in the requested form; consumes the state';

CREATE FUNCTION zm_int4set_agg_optimized_combinefn(internal, internal) RETURNS internal
AS 'MODULE_PATHNAME', 'zm_int4set_agg_optimized_combinefn'
LANGUAGE C IMMUTABLE CALLED ON NULL INPUT PARALLEL SAFE COST 10;
COMMENT ON FUNCTION zm_int4set_agg_optimized_combinefn(internal, internal) IS
  'zm_int4set_agg_optimized combine: a new state holding both bitfields ORed together';

CREATE FUNCTION zm_int4set_agg_optimized_serialfn(internal) RETURNS bytea
AS 'MODULE_PATHNAME', 'zm_int4set_agg_optimized_serialfn'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE COST 10;
COMMENT ON FUNCTION zm_int4set_agg_optimized_serialfn(internal) IS
  'zm_int4set_agg_optimized serial: input type byte, output type byte, int32 capacity, then the bitfield bytes';

CREATE FUNCTION zm_int4set_agg_optimized_deserialfn(bytea, internal) RETURNS internal
AS 'MODULE_PATHNAME', 'zm_int4set_agg_optimized_deserialfn'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE COST 10;
COMMENT ON FUNCTION zm_int4set_agg_optimized_deserialfn(bytea, internal) IS
  'zm_int4set_agg_optimized deserial: rebuilds a partial state from its serial form';

-- SSPACE: a state owns a memory context; the bitfield's size depends on maxinput.
CREATE AGGREGATE zm_int4set_agg_optimized(int4, int4, "char") (
  SFUNC = zm_int4set_agg_optimized_transfn_A,
  STYPE = internal,
  SSPACE = 8192,
  FINALFUNC = zm_int4set_agg_optimized_finalfn,
  FINALFUNC_MODIFY = READ_WRITE,
  COMBINEFUNC = zm_int4set_agg_optimized_combinefn,
  SERIALFUNC = zm_int4set_agg_optimized_serialfn,
  DESERIALFUNC = zm_int4set_agg_optimized_deserialfn,
  PARALLEL = SAFE
);
COMMENT ON AGGREGATE zm_int4set_agg_optimized(int4, int4, "char") IS
  'set of the non-NULL values in 0..maxinput (second argument) as a range, scalar or mix array';

CREATE AGGREGATE zm_int4set_agg_optimized(int4, int4, int4, "char") (
  SFUNC = zm_int4set_agg_optimized_transfn_A,
  STYPE = internal,
  SSPACE = 8192,
  FINALFUNC = zm_int4set_agg_optimized_finalfn,
  FINALFUNC_MODIFY = READ_WRITE,
  COMBINEFUNC = zm_int4set_agg_optimized_combinefn,
  SERIALFUNC = zm_int4set_agg_optimized_serialfn,
  DESERIALFUNC = zm_int4set_agg_optimized_deserialfn,
  PARALLEL = SAFE
);
COMMENT ON AGGREGATE zm_int4set_agg_optimized(int4, int4, int4, "char") IS
  'union of the ranges [lower, upper] within 0..maxinput (third argument) as a range, scalar or mix array';

CREATE AGGREGATE zm_int4set_agg_optimized("char", int4[], int4, "char") (
  SFUNC = zm_int4set_agg_optimized_transfn_B,
  STYPE = internal,
  SSPACE = 8192,
  FINALFUNC = zm_int4set_agg_optimized_finalfn,
  FINALFUNC_MODIFY = READ_WRITE,
  COMBINEFUNC = zm_int4set_agg_optimized_combinefn,
  SERIALFUNC = zm_int4set_agg_optimized_serialfn,
  DESERIALFUNC = zm_int4set_agg_optimized_deserialfn,
  PARALLEL = SAFE
);
COMMENT ON AGGREGATE zm_int4set_agg_optimized("char", int4[], int4, "char") IS
  'union of the sets of kind ''r'', ''s'' or ''m'' within 0..maxinput (third argument) as a range, scalar or mix array';

-- sql/50_packed_ranges.sql
-- Packed ranges: one closed int4 range [lower, upper] in an int8, lower in bits 0..31 and upper in
-- bits 32..63: (upper << 32) | (lower & 0xFFFFFFFF). Both ends are inclusive.

-- One library entry point behind both forms; it tells them apart by the argument count.
CREATE FUNCTION zm_range_pack(int4, int4) RETURNS int8
AS 'MODULE_PATHNAME', 'zm_range_pack'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
COMMENT ON FUNCTION zm_range_pack(int4, int4) IS 'packs the range [lower, upper] into an int8; lower must not exceed upper';

CREATE FUNCTION zm_range_pack(int4[]) RETURNS int8
AS 'MODULE_PATHNAME', 'zm_range_pack'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
COMMENT ON FUNCTION zm_range_pack(int4[]) IS
  'packs a one-dimensional int4[] of exactly two elements {lower, upper} without NULLs into an int8';

-- Other array types reach the library's element-type check, which refuses them.
CREATE FUNCTION zm_range_pack(anyarray) RETURNS int8
AS 'MODULE_PATHNAME', 'zm_range_pack'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
COMMENT ON FUNCTION zm_range_pack(anyarray) IS 'accepts only int4[] {lower, upper}; other element types are refused';

CREATE FUNCTION zm_rangepacked_lower(int8) RETURNS int4
AS 'MODULE_PATHNAME', 'zm_rangepacked_lower'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
COMMENT ON FUNCTION zm_rangepacked_lower(int8) IS 'lower end of a packed range (its low 32 bits)';

CREATE FUNCTION zm_rangepacked_upper(int8) RETURNS int4
AS 'MODULE_PATHNAME', 'zm_rangepacked_upper'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
COMMENT ON FUNCTION zm_rangepacked_upper(int8) IS 'upper end of a packed range (its high 32 bits)';

-- sql/52_conversions.sql
-- Set representation conversion, sorting and bytea decoders.
--
-- The int4[] forms come with an anyarray overload bound to the same library function, so that an
-- array of another element type reaches the library's "accept only int4[]" check instead of
-- failing at function lookup. With both overloads an untyped literal is ambiguous: write
-- '{1,2,3}'::int4[] or ARRAY[1,2,3].

CREATE FUNCTION zm_int4setconv_int4("char", int4[], "char") RETURNS int4[]
AS 'MODULE_PATHNAME', 'zm_int4setconv_int4'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE COST 10;
COMMENT ON FUNCTION zm_int4setconv_int4("char", int4[], "char") IS
  'rewrites an int4 set from one form into another: ''s'' scalar array (sorted for ''r'' and ''m'' output), ''r'' range array, ''m'' mix array';

CREATE FUNCTION zm_int4setconv_int4("char", anyarray, "char") RETURNS int4[]
AS 'MODULE_PATHNAME', 'zm_int4setconv_int4'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE COST 10;
COMMENT ON FUNCTION zm_int4setconv_int4("char", anyarray, "char") IS
  'rejects arrays whose element type is not int4 ("accept only int4[]")';

CREATE FUNCTION zm_sort_int4(int4[]) RETURNS int4[]
AS 'MODULE_PATHNAME', 'zm_sort_int4'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE COST 10;
COMMENT ON FUNCTION zm_sort_int4(int4[]) IS
  'the array''s values in ascending order, duplicates kept (radix sort)';

CREATE FUNCTION zm_sort_int4(anyarray) RETURNS int4[]
AS 'MODULE_PATHNAME', 'zm_sort_int4'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE COST 10;
COMMENT ON FUNCTION zm_sort_int4(anyarray) IS
  'rejects arrays whose element type is not int4 ("accept only int4[]")';

CREATE FUNCTION zm_bytea2floatarray(bytea) RETURNS float4[]
AS 'MODULE_PATHNAME', 'zm_bytea2floatarray'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE COST 5;
COMMENT ON FUNCTION zm_bytea2floatarray(bytea) IS
  'float4 values packed in a bytea (machine byte order) as float4[]';

CREATE FUNCTION zm_bytea2mix2rangearray(bytea) RETURNS int4[]
AS 'MODULE_PATHNAME', 'zm_bytea2mix2rangearray'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE COST 10;
COMMENT ON FUNCTION zm_bytea2mix2rangearray(bytea) IS
  'the int4 elements of a mix array held in a bytea (machine byte order) as a range array, one range per item in item order';

-- sql/60_gist.sql
-- GiST index over packed ranges. Every key, leaf or inner, is a packed range (int8); an inner key
-- covers the keys below it. Two operator classes share the support functions and differ in how a
-- column value becomes a key: an int4 value v is the range [v, v], a packed range is itself.
--
-- Each strategy is bound to the operator whose result on a row equals the strategy's leaf rule for
-- that column type, so an index scan returns exactly the rows of a sequential scan:
--   strategy  query          leaf rule                    int4 column        packed-range column
--   1, 11     int4[] ranges  a range overlaps the key     && (int4, int4[])  && (int8, int4[])
--   2         bitfield       the key's lower end is set   <@ (int4, bytea)   -
--   3, 13     packed range   the ranges overlap           <@ (int4, int8)    && (int8, int8)
--   14        packed range   the key lies inside it       (as 3)             <@ (int8, int8)
--   15        packed range   the key contains it          -                  @> (int8, int8)
--   16        int4 value     the key contains the value   = (int4, int4)     @> (int8, int4)
-- An operator belongs to a family once, so 11 and 13 (and 14 on the int4 column, where it means
-- the same as 3) carry no operator of their own. No operator means "the packed range equals
-- [v, v]" (15 on the int4 column) or "the packed range's lower end is set in the bitfield" (2 on
-- the packed-range column; && (int8, bytea) tests every value of the range), so those are left out.

CREATE FUNCTION zm_gist_range_consistent(internal, int4, int2, oid, internal) RETURNS bool
AS 'MODULE_PATHNAME', 'zm_gist_range_consistent'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
COMMENT ON FUNCTION zm_gist_range_consistent(internal, int4, int2, oid, internal) IS
  'GiST consistent function of zm_int4_gist_ops';

CREATE FUNCTION zm_gist_range_consistent(internal, int8, int2, oid, internal) RETURNS bool
AS 'MODULE_PATHNAME', 'zm_gist_range_consistent'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
COMMENT ON FUNCTION zm_gist_range_consistent(internal, int8, int2, oid, internal) IS
  'GiST consistent function of zm_int4rangepacked_gist_ops';

CREATE FUNCTION zm_gist_range_union(internal, internal) RETURNS int8
AS 'MODULE_PATHNAME', 'zm_gist_range_union'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
COMMENT ON FUNCTION zm_gist_range_union(internal, internal) IS 'GiST union: the packed range covering all keys';

CREATE FUNCTION zm_gist_range_compress_int4(internal) RETURNS internal
AS 'MODULE_PATHNAME', 'zm_gist_range_compress_int4'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
COMMENT ON FUNCTION zm_gist_range_compress_int4(internal) IS 'GiST compress: an int4 value v becomes the key [v, v]';

CREATE FUNCTION zm_gist_range_compress_int8(internal) RETURNS internal
AS 'MODULE_PATHNAME', 'zm_gist_range_compress_int8'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
COMMENT ON FUNCTION zm_gist_range_compress_int8(internal) IS
  'GiST compress: a packed range is its own key; one whose upper end is below its lower end is refused';

CREATE FUNCTION zm_gist_range_decompress(internal) RETURNS internal
AS 'MODULE_PATHNAME', 'zm_gist_range_decompress'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
COMMENT ON FUNCTION zm_gist_range_decompress(internal) IS 'GiST decompress: keys are used as stored';

CREATE FUNCTION zm_gist_range_fetch_int4(internal) RETURNS internal
AS 'MODULE_PATHNAME', 'zm_gist_range_fetch_int4'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
COMMENT ON FUNCTION zm_gist_range_fetch_int4(internal) IS 'GiST fetch: the key [v, v] gives back the int4 v (index-only scans)';

CREATE FUNCTION zm_gist_range_fetch_int8(internal) RETURNS internal
AS 'MODULE_PATHNAME', 'zm_gist_range_fetch_int8'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
COMMENT ON FUNCTION zm_gist_range_fetch_int8(internal) IS 'GiST fetch: a packed-range key is the column value (index-only scans)';

CREATE FUNCTION zm_gist_range_penalty(internal, internal, internal) RETURNS internal
AS 'MODULE_PATHNAME', 'zm_gist_range_penalty'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
COMMENT ON FUNCTION zm_gist_range_penalty(internal, internal, internal) IS
  'GiST penalty: values added to the key, plus a fraction below 1 favouring the key the new range fills more';

CREATE FUNCTION zm_gist_range_picksplit(internal, internal) RETURNS internal
AS 'MODULE_PATHNAME', 'zm_gist_range_picksplit'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
COMMENT ON FUNCTION zm_gist_range_picksplit(internal, internal) IS
  'GiST picksplit: two-ended greedy split, the left page growing from the lowest ranges, the right from the highest';

CREATE FUNCTION zm_gist_range_same(int8, int8, internal) RETURNS internal
AS 'MODULE_PATHNAME', 'zm_gist_range_same'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
COMMENT ON FUNCTION zm_gist_range_same(int8, int8, internal) IS 'GiST same: the two keys are bitwise equal';

CREATE FUNCTION zm_gist_range_sortsupport(internal) RETURNS void
AS 'MODULE_PATHNAME', 'zm_gist_range_sortsupport'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
COMMENT ON FUNCTION zm_gist_range_sortsupport(internal) IS
  'GiST sort support: keys ordered by lower then upper end, so that CREATE INDEX builds the index sorted';

-- A value overlaps a range array when it lies in one of its ranges. Unlike <@ (int4, int4[]), which
-- ignores an odd trailing element and binary-searches, this reads the array exactly as the index
-- does (an odd element count is an error), so the int4 class can bind it. A C function: an
-- operator over an inlined SQL function could not be matched to the index.
CREATE FUNCTION zm_int4_overlap_rangearray(int4, int4[]) RETURNS bool
AS 'MODULE_PATHNAME', 'zm_int4_overlap_rangearray'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE COST 5;
COMMENT ON FUNCTION zm_int4_overlap_rangearray(int4, int4[]) IS
  'the value lies in a range of the range array; an odd element count is an error';

CREATE OPERATOR && (
  LEFTARG = int4, RIGHTARG = int4[], FUNCTION = zm_int4_overlap_rangearray,
  RESTRICT = areasel, JOIN = areajoinsel);
COMMENT ON OPERATOR && (int4, int4[]) IS 'value lies in a range of the range array';

CREATE OPERATOR CLASS zm_int4_gist_ops
FOR TYPE int4 USING gist AS
  OPERATOR 1 && (int4, int4[]),
  OPERATOR 2 <@ (int4, bytea),
  OPERATOR 3 <@ (int4, int8),
  OPERATOR 16 = (int4, int4),
  FUNCTION 1 zm_gist_range_consistent(internal, int4, int2, oid, internal),
  FUNCTION 2 zm_gist_range_union(internal, internal),
  FUNCTION 3 zm_gist_range_compress_int4(internal),
  FUNCTION 5 zm_gist_range_penalty(internal, internal, internal),
  FUNCTION 6 zm_gist_range_picksplit(internal, internal),
  FUNCTION 7 zm_gist_range_same(int8, int8, internal),
  FUNCTION 9 zm_gist_range_fetch_int4(internal),
  FUNCTION 11 zm_gist_range_sortsupport(internal),
  STORAGE int8;
COMMENT ON OPERATOR CLASS zm_int4_gist_ops USING gist IS
  'packed-range keys over an int4 column: && range array, <@ bitfield, <@ packed range, = value';

CREATE OPERATOR CLASS zm_int4rangepacked_gist_ops
FOR TYPE int8 USING gist AS
  OPERATOR 1 && (int8, int4[]),
  OPERATOR 3 && (int8, int8),
  OPERATOR 14 <@ (int8, int8),
  OPERATOR 15 @> (int8, int8),
  OPERATOR 16 @> (int8, int4),
  FUNCTION 1 zm_gist_range_consistent(internal, int8, int2, oid, internal),
  FUNCTION 2 zm_gist_range_union(internal, internal),
  FUNCTION 3 zm_gist_range_compress_int8(internal),
  FUNCTION 5 zm_gist_range_penalty(internal, internal, internal),
  FUNCTION 6 zm_gist_range_picksplit(internal, internal),
  FUNCTION 7 zm_gist_range_same(int8, int8, internal),
  FUNCTION 9 zm_gist_range_fetch_int8(internal),
  FUNCTION 11 zm_gist_range_sortsupport(internal),
  STORAGE int8;
COMMENT ON OPERATOR CLASS zm_int4rangepacked_gist_ops USING gist IS
  'packed-range column: && range array, && / <@ / @> packed range, @> value';

-- sql/70_keep_single.sql
-- Keep-single aggregate over bool, bytea, int8, int2, int4, text, float4 and float8.
--
-- One library function serves both forms of each support step; it tells them apart by its number
-- of arguments. Each state owns a memory context (8 KB first block) that the final function
-- deletes: FINALFUNC_MODIFY = READ_WRITE keeps the server from finalising one state twice (two
-- identical calls in a query get a state each; window use is refused). The final function takes
-- the aggregated arguments as extra NULL arguments (FINALFUNC_EXTRA) so that the result type can
-- be resolved from an internal state.

CREATE FUNCTION zm_agg_keep_single_transfn(internal, anyelement) RETURNS internal
AS 'MODULE_PATHNAME', 'zm_agg_keep_single_transfn'
LANGUAGE C IMMUTABLE CALLED ON NULL INPUT PARALLEL SAFE;
COMMENT ON FUNCTION zm_agg_keep_single_transfn(internal, anyelement) IS
  'agg_keep_single transition: keeps the first value, every further value must equal it';

CREATE FUNCTION zm_agg_keep_single_transfn(internal, anyelement, bool) RETURNS internal
AS 'MODULE_PATHNAME', 'zm_agg_keep_single_transfn'
LANGUAGE C IMMUTABLE CALLED ON NULL INPUT PARALLEL SAFE;
COMMENT ON FUNCTION zm_agg_keep_single_transfn(internal, anyelement, bool) IS
  'agg_keep_single transition: keeps the first value; with policy true every further value must equal it';

CREATE FUNCTION zm_agg_keep_single_finalfn(internal, anyelement) RETURNS anyelement
AS 'MODULE_PATHNAME', 'zm_agg_keep_single_finalfn'
LANGUAGE C IMMUTABLE CALLED ON NULL INPUT PARALLEL SAFE;
COMMENT ON FUNCTION zm_agg_keep_single_finalfn(internal, anyelement) IS
  'agg_keep_single final: the kept value; consumes the state';

CREATE FUNCTION zm_agg_keep_single_finalfn(internal, anyelement, bool) RETURNS anyelement
AS 'MODULE_PATHNAME', 'zm_agg_keep_single_finalfn'
LANGUAGE C IMMUTABLE CALLED ON NULL INPUT PARALLEL SAFE;
COMMENT ON FUNCTION zm_agg_keep_single_finalfn(internal, anyelement, bool) IS
  'agg_keep_single final: the kept value; consumes the state';

-- Combine states live in the aggregate context, hence non-strict.
CREATE FUNCTION zm_agg_keep_single_combinefn(internal, internal) RETURNS internal
AS 'MODULE_PATHNAME', 'zm_agg_keep_single_combinefn'
LANGUAGE C IMMUTABLE CALLED ON NULL INPUT PARALLEL SAFE;
COMMENT ON FUNCTION zm_agg_keep_single_combinefn(internal, internal) IS
  'agg_keep_single combine: a new state merging two partial states';

-- Strict: a worker that saw no rows hands over NULL, which then skips serialisation and combine.
CREATE FUNCTION zm_agg_keep_single_serialfn(internal) RETURNS bytea
AS 'MODULE_PATHNAME', 'zm_agg_keep_single_serialfn'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
COMMENT ON FUNCTION zm_agg_keep_single_serialfn(internal) IS
  'agg_keep_single serialisation: kind, isNull, type oid, then the datum or the text/bytea bytes';

CREATE FUNCTION zm_agg_keep_single_deserialfn(bytea, internal) RETURNS internal
AS 'MODULE_PATHNAME', 'zm_agg_keep_single_deserialfn'
LANGUAGE C IMMUTABLE STRICT PARALLEL SAFE;
COMMENT ON FUNCTION zm_agg_keep_single_deserialfn(bytea, internal) IS
  'agg_keep_single deserialisation: rebuilds a partial state (policy false)';

CREATE AGGREGATE agg_keep_single(anyelement) (
  SFUNC = zm_agg_keep_single_transfn,
  STYPE = internal,
  SSPACE = 8400,
  FINALFUNC = zm_agg_keep_single_finalfn,
  FINALFUNC_EXTRA,
  FINALFUNC_MODIFY = READ_WRITE,
  COMBINEFUNC = zm_agg_keep_single_combinefn,
  SERIALFUNC = zm_agg_keep_single_serialfn,
  DESERIALFUNC = zm_agg_keep_single_deserialfn,
  PARALLEL = SAFE
);
COMMENT ON AGGREGATE agg_keep_single(anyelement) IS
  'the one value of the group; fails with "agg_keep_single value missmatch" when rows disagree';

CREATE AGGREGATE agg_keep_single(anyelement, bool) (
  SFUNC = zm_agg_keep_single_transfn,
  STYPE = internal,
  SSPACE = 8400,
  FINALFUNC = zm_agg_keep_single_finalfn,
  FINALFUNC_EXTRA,
  FINALFUNC_MODIFY = READ_WRITE,
  COMBINEFUNC = zm_agg_keep_single_combinefn,
  SERIALFUNC = zm_agg_keep_single_serialfn,
  DESERIALFUNC = zm_agg_keep_single_deserialfn,
  PARALLEL = SAFE
);
COMMENT ON AGGREGATE agg_keep_single(anyelement, bool) IS
  'with policy true as agg_keep_single(value); with policy false the first value of the group, the others ignored';
