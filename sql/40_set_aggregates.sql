-- Set aggregates: fold int4 values, lower/upper pairs or whole sets from many rows into one set,
-- returned as a range array ('r'), a scalar array ('s') or a mix array ('m').
--
-- The support functions look at their NULL flags themselves (CALLED ON NULL INPUT), except the
-- serial and deserial functions: declared STRICT, a worker that saw no rows hands over a NULL
-- partial state that is neither serialised nor deserialised, and the combine step skips it.
-- The final functions build their result and leave the state to the aggregate context (a hashed
-- aggregate that is rescanned finalises its groups again); FINALFUNC_MODIFY = READ_WRITE keeps the
-- server from sharing a state between two identical calls and refuses window use.

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
  'zm_int4set_agg final: the set in the requested form (the state stays for the aggregate context to reclaim)';

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
  'zm_int4set_agg_optimized final: the set bits in the requested form (the state stays for the aggregate context to reclaim)';

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
